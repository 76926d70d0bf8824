// An idle service: the CPU time of its listing of the queues, once a second, compared with a shell
// loop, and its memory. And the unit that starts it again.

#include <sys/mount.h>
#include <sys/resource.h>
#include <unistd.h>

#include <csignal>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <stdexcept>
#include <thread>

#include "bench/measure.h"
#include "sim/private_cups.h"

namespace bench {
namespace {

namespace fs = std::filesystem;

constexpr std::chrono::seconds kSettling(15);  // the service asks CUPS about new queues
constexpr std::chrono::seconds kWindow(30);
constexpr std::chrono::seconds kTurn(20);  // of the watch
constexpr int kTurns = 3;

// CPU seconds.
struct Usage {
    double own = 0;    // without children
    double tools = 0;  // children that have ended, and theirs; a multiple of 10 ms
};

Usage usageOf(pid_t process) {
    clockid_t clock{};
    timespec used{};
    std::ifstream file("/proc/" + std::to_string(process) + "/stat");
    std::string field;
    double userTicks = 0, systemTicks = 0;  // fields 16 and 17
    for (int number = 1; number <= 15; ++number)
        file >> field;
    if (clock_getcpuclockid(process, &clock) != 0 || clock_gettime(clock, &used) != 0 ||
        !(file >> userTicks >> systemTicks))
        throw std::runtime_error("A process has ended.");
    return {static_cast<double>(used.tv_sec) + static_cast<double>(used.tv_nsec) * 1e-9,
            (userTicks + systemTicks) / static_cast<double>(sysconf(_SC_CLK_TCK))};
}

double usageOfEndedChildren() {
    rusage used{};
    getrusage(RUSAGE_CHILDREN, &used);
    return static_cast<double>(used.ru_utime.tv_sec + used.ru_stime.tv_sec) +
           static_cast<double>(used.ru_utime.tv_usec + used.ru_stime.tv_usec) * 1e-6;
}

void printMemory(const std::string& name, const fs::path& file, const std::string& field) {
    std::ifstream words(file);
    std::string word;
    double kilobytes = 0;
    while (words >> word && word != field) {
    }
    if (!(words >> kilobytes))
        throw std::runtime_error("There is no " + field + " in " + file.string() + ".");
    printValue(name, kilobytes);
}

// Makes queues of host printers, without a driver.
void makeQueues(int count) {
    int status = 0;
    sim::commandOutput("set -e; for n in $(seq " + std::to_string(count) +
                           "); do lpadmin -p Queue_$n -E -v usb://HP/Laser?serial=TAG$n; done 2>&1",
                       &status);
    if (status != 0)
        throw std::runtime_error("lpadmin can't make a queue.");
}

}  // namespace

void measureIdle(int rounds) {
    const sim::SimulatedHost host;
    const sim::Process service = startQuietly({QNT_SERVICE});
    const sim::Process loop = startQuietly(scriptOf({"idle"}));
    const pid_t processes[] = {service.pid(), loop.pid(), cupsProcess()};
    for (const int queues : {5, 160}) {
        makeQueues(queues);
        waitForIdle(host);
        std::this_thread::sleep_for(kSettling);
        for (int round = 0; round < rounds; ++round) {
            Usage used[std::size(processes)];
            const auto start = Clock::now();
            for (std::size_t i = 0; i < std::size(processes); ++i)
                used[i] = usageOf(processes[i]);
            std::this_thread::sleep_for(kWindow);
            for (std::size_t i = 0; i < std::size(processes); ++i) {
                const Usage now = usageOf(processes[i]);
                used[i] = {now.own - used[i].own, now.tools - used[i].tools};
            }
            const double seconds = secondsSince(start);
            const std::string suffix = "/" + std::to_string(queues);
            printValue("idle" + suffix, (used[0].own + used[0].tools) / seconds);
            printValue("idle own" + suffix, used[0].own / seconds);
            printValue("idle own/sh" + suffix, used[1].own / seconds);
            printValue("idle/sh" + suffix, (used[1].own + used[1].tools) / seconds);
            printValue("idle cupsd" + suffix, used[2].own / seconds / 2);  // used by both sides
            const fs::path folder = "/proc/" + std::to_string(service.pid());
            printMemory("resident" + suffix, folder / "status", "VmRSS:");
            printMemory("proportional" + suffix, folder / "smaps_rollup", "Pss:");
        }
    }
}

// In a guest whose service runs. A command of the unit that ends is started again for the next
// turn, as systemd does it.
void measureWatch(int rounds) {
    const sim::SimulatedHost host;
    if (mount("none", "/run", "tmpfs", 0, nullptr) != 0 || !fs::create_directory("/run/qntspooler"))
        throw std::runtime_error("/run can't be replaced.");
    for (int round = 0; round < rounds; ++round) {
        const double before = usageOfEndedChildren();
        std::optional<sim::Process> watch;
        for (int turn = 0; turn < kTurns; ++turn) {
            if (!watch || watch->wait(std::chrono::milliseconds(0)))
                watch.emplace(scriptOf({"watch", QNT_WATCH}), "/dev/null");
            std::this_thread::sleep_for(kTurn);
            if (watch->wait(std::chrono::milliseconds(0)).value_or(0) != 0)
                throw std::runtime_error("The watch has failed.");
        }
        watch->signal(SIGTERM);
        waitForEnd(*watch);
        const std::chrono::duration<double> window = kTurns * kTurn;
        printValue("watch", (usageOfEndedChildren() - before) / window.count());
    }
}

}  // namespace bench
