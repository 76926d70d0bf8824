#include "bench/measure.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <optional>
#include <stdexcept>

#include "sim/guest_namespace.h"
#include "sim/private_cups.h"

namespace bench {
namespace {

namespace fs = std::filesystem;

constexpr std::chrono::minutes kLongest(5);

std::optional<sim::PrivateCups> g_cups;

}  // namespace

void printValue(const std::string& name, double value) {
    std::printf("%s\t%.9g\n", name.c_str(), value);
    std::fflush(stdout);
}

double secondsSince(Clock::time_point start, Clock::time_point end) {
    return std::chrono::duration<double>(end - start).count();
}

sim::Process startQuietly(const Command& command) {
    return sim::Process(command, {}, "/dev/null");
}

Command scriptOf(Command functionAndArguments) {
    Command command = {"sh", QNT_COMMANDS};
    command.insert(command.end(), functionAndArguments.begin(), functionAndArguments.end());
    return command;
}

void waitForEnd(sim::Process& process) {
    if (!process.wait(kLongest))
        throw std::runtime_error("A process does not end.");
}

void waitForIdle(const sim::SimulatedHost& host) {
    if (!host.waitUntilIdle(kLongest))
        throw std::runtime_error("The service asks for no command.");
}

pid_t cupsProcess() {
    return g_cups->pid();
}

namespace {

void runInGuest(void (*measure)(int), int rounds) {
    std::string name = fs::temp_directory_path() / "qnt-bench-XXXXXX";
    const fs::path folder = mkdtemp(name.data());
    sim::enterGuestNamespace(folder / "log");
    fs::current_path(folder);
    g_cups.emplace(folder / "cups");
    measure(rounds);
    g_cups.reset();
    fs::remove_all(folder);
}

const std::map<std::string, void (*)(int)> kMeasurements = {{"add", measureAdd},
                                                            {"rename", measureRename},
                                                            {"life", measureLife},
                                                            {"idle", measureIdle},
                                                            {"watch", measureWatch}};

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
    try {
        if (argc != 3 || !bench::kMeasurements.contains(argv[1]))
            throw std::runtime_error("usage: measure add|rename|life|idle|watch ROUNDS");
        bench::runInGuest(bench::kMeasurements.at(argv[1]), std::atoi(argv[2]));
        return 0;
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "measure: %s\n", failure.what());
        return 1;
    }
}
