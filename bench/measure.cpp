#include "bench/measure.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <memory>
#include <stdexcept>

#include "sim/private_cups.h"

namespace bench {
namespace {

namespace fs = std::filesystem;

constexpr std::chrono::minutes kLongest(5);

std::unique_ptr<sim::Guest> g_guest;

}  // namespace

void printValue(const std::string& name, double value) {
    std::printf("%s\t%.9g\n", name.c_str(), value);
    std::fflush(stdout);
}

double secondsSince(Clock::time_point start, Clock::time_point end) {
    return std::chrono::duration<double>(end - start).count();
}

sim::Process startQuietly(const Command& command) {
    return sim::Process(command, "/dev/null");
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
    return g_guest->cups.pid();
}

namespace {

void runInGuest(void (*measure)(int), int rounds) {
    g_guest = std::make_unique<sim::Guest>();
    fs::current_path(g_guest->folder.path);
    measure(rounds);
    g_guest.reset();
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
