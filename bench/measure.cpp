#include "bench/measure.h"

#include <sys/mount.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
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

double secondsOf(const Command& command) {
    const auto start = Clock::now();
    sim::Process process = startQuietly(command);
    if (!process.wait(kLongest))
        throw std::runtime_error(command.front() + " does not end.");
    return secondsSince(start);
}

double secondsToStop(sim::Process& process) {
    const auto start = Clock::now();
    process.signal(SIGTERM);
    if (!process.wait(kLongest))
        throw std::runtime_error("A daemon does not stop.");
    return secondsSince(start);
}

sim::Process startQuietly(const Command& command) {
    return sim::Process(command, {}, "/dev/null");
}

void waitForIdle(const sim::SimulatedHost& host) {
    if (!host.waitUntilIdle())
        throw std::runtime_error("The service asks for no command.");
}

double execute(sim::SimulatedHost& host, const sim::HostCommand& command) {
    waitForIdle(host);
    const std::size_t before = host.results().size();
    const auto start = Clock::now();
    host.send(command);
    if (!host.waitUntilIdle(kLongest))
        throw std::runtime_error("A command takes too long.");
    const std::vector<std::uint32_t> results = host.results();
    if (results.size() == before || results.back() != qnt::CmdDone)
        throw std::runtime_error("A command failed.");
    return secondsSince(start, host.exchanges(qnt::PrintingCmdAnswer).back().when);
}

pid_t cupsProcess() {
    return g_cups->pid();
}

std::vector<std::string> recordLines(const std::function<void()>& prepare,
                                     const std::function<void()>& act) {
    const fs::path shell = fs::canonical("/bin/sh");
    const fs::path copy = fs::absolute("sh");
    const fs::path record = fs::absolute("commands");
    fs::copy_file(shell, copy, fs::copy_options::overwrite_existing);
    std::ofstream("recorder") << "#!/bin/bash\nprintf '%s\\n' \"$2\" >>" << record
                              << "\nexec -a sh " << copy << " \"$@\"\n";
    fs::permissions("recorder", fs::perms::owner_all);
    if (mount("recorder", shell.c_str(), nullptr, MS_BIND, nullptr) != 0)
        throw std::runtime_error("The shell can't be replaced by one that records.");
    std::vector<std::string> previous, lines;
    do {
        previous = lines;
        prepare();
        std::ofstream(record, std::ios::trunc).flush();
        act();
        lines.clear();
        std::ifstream file(record);
        for (std::string line; std::getline(file, line);)
            lines.push_back(line);
    } while (lines.empty() || lines != previous);
    umount2(shell.c_str(), MNT_DETACH);
    return lines;
}

Command scriptOf(const std::string& name, const std::vector<std::string>& lines) {
    std::ofstream script(name);
    for (const std::string& line : lines)
        script << line << '\n';
    return {"sh", name};
}

std::map<std::string, Command> otherDaemons() {
    std::map<std::string, Command> daemons = {
        {"earlyoom", {"earlyoom", "--dryrun", "-r", "3600"}},
        // Listens to a socket in place of a virtio port.
        {"qemu-ga", {"qemu-ga", "-m", "unix-listen", "-p", "qemu-ga.sock", "-t", "."}},
    };
    std::erase_if(daemons, [](const auto& daemon) {
        return sim::commandOutput("command -v " + daemon.first).empty();
    });
    return daemons;
}

namespace {

void runInGuest(const std::function<void()>& measure) {
    std::string name = fs::temp_directory_path() / "qnt-bench-XXXXXX";
    const fs::path folder = mkdtemp(name.data());
    sim::enterGuestNamespace(folder / "log");
    fs::current_path(folder);
    g_cups.emplace(folder / "cups");
    measure();
    g_cups.reset();
    fs::remove_all(folder);
}

const std::map<std::string, void (*)(int)> kMeasurements = {{"add", measureAdd},
                                                            {"rename", measureRename},
                                                            {"idle", measureIdle},
                                                            {"life", measureLife},
                                                            {"soak", measureSoak}};

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
    const std::string figure = argc > 1 ? argv[1] : "";
    try {
        if (figure == "submit")
            bench::submitForever();
        else if (argc == 3 && bench::kMeasurements.contains(figure))
            bench::runInGuest([&] { bench::kMeasurements.at(figure)(std::atoi(argv[2])); });
        else if (argc == 3 && figure == "farm")
            bench::measureFarm(std::atoi(argv[2]));
        else if (argc == 5 && figure == "guest")
            bench::runInGuest(
                [&] { bench::measureGuest(std::atoi(argv[2]), std::atoi(argv[3]), argv[4]); });
        else
            throw std::runtime_error(
                "usage: measure add|rename|idle|life ROUNDS, measure soak MINUTES, measure farm "
                "GUESTS");
        return 0;
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "measure: %s\n", failure.what());
        return 1;
    }
}
