// An idle service: the CPU time of its listing of the queues, once a second, compared with a shell
// loop, and its memory, compared with other daemons.

#include <sys/mount.h>

#include <ctime>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <thread>

#include "bench/measure.h"
#include "sim/private_cups.h"

namespace bench {
namespace {

namespace fs = std::filesystem;

const fs::path kGroups = "/sys/fs/cgroup";
constexpr int kFewestQueues = 5;
constexpr int kMostQueues = 160;
constexpr std::chrono::seconds kSettling(3);
constexpr std::chrono::seconds kTrialWindow(2);
constexpr std::chrono::seconds kWindow(20);
constexpr std::chrono::milliseconds kRest(150);
constexpr std::chrono::milliseconds kPollInterval(5);

double numberAfter(const fs::path& path, const std::string& field) {
    std::ifstream file(path);
    std::string word;
    while (file >> word && word != field) {
    }
    double number = 0;
    if (!(file >> number))
        throw std::runtime_error("There is no " + field + " in " + path.string() + ".");
    return number;
}

void printMemory(const std::string& name, pid_t process) {
    const fs::path folder = "/proc/" + std::to_string(process);
    printValue("resident/" + name, numberAfter(folder / "status", "VmRSS:"));
    printValue("proportional/" + name, numberAfter(folder / "smaps_rollup", "Pss:"));
}

// Makes queues of host printers, without a driver. Those that exist stay.
void makeQueues(int count) {
    int status = 0;
    sim::commandOutput("set -e; for n in $(seq " + std::to_string(count) +
                           "); do lpadmin -p Queue_$n -E -v usb://HP/Laser?serial=TAG$n; done 2>&1",
                       &status);
    if (status != 0)
        throw std::runtime_error("lpadmin can't make a queue.");
}

// CPU seconds of a process without its children.
double cpuSeconds(pid_t process) {
    clockid_t clock{};
    timespec used{};
    if (clock_getcpuclockid(process, &clock) != 0 || clock_gettime(clock, &used) != 0)
        throw std::runtime_error("A process has ended.");
    return static_cast<double>(used.tv_sec) + static_cast<double>(used.tv_nsec) * 1e-9;
}

struct Usage {
    Clock::time_point when;
    double all;  // CPU seconds, children included
    double own;
    double cups;
};

// A process in a control group, which counts the CPU time of its children as well.
class CountedProcess {
public:
    CountedProcess(const std::string& name, const std::string& command)
        : m_group(newGroup(name)),
          m_process(startQuietly(
              {"sh", "-c", "echo $$ >" + m_group.string() + "/cgroup.procs && exec " + command})) {}
    ~CountedProcess() {
        std::ofstream(m_group / "cgroup.kill") << 1 << std::flush;
        for (std::error_code busy; !fs::remove(m_group, busy);)
            std::this_thread::sleep_for(kPollInterval);
    }

    pid_t pid() const { return m_process.pid(); }

    // The usage at the end of the next burst of work. Between two of these lies a whole number of
    // bursts.
    Usage usageAtRest() const {
        const double before = usage().all;
        Usage last = usage();
        for (Usage now = last; last.all == before || now.when - last.when < kRest; now = usage()) {
            if (now.all != last.all)
                last = now;
            std::this_thread::sleep_for(kPollInterval);
        }
        return last;
    }

private:
    static fs::path newGroup(const std::string& name) {
        const fs::path group = kGroups / ("qnt-bench-" + name + std::to_string(getpid()));
        fs::create_directory(group);
        return group;
    }

    Usage usage() const {
        return {Clock::now(), numberAfter(m_group / "cpu.stat", "usage_usec") * 1e-6,
                cpuSeconds(m_process.pid()), cpuSeconds(cupsProcess())};
    }

    const fs::path m_group;
    sim::Process m_process;
};

void printUsage(const std::string& scale, const Usage& from, const Usage& to) {
    const double seconds = secondsSince(from.when, to.when);
    printValue("idle/" + scale, (to.all - from.all) / seconds);
    printValue("idle own/" + scale, (to.own - from.own) / seconds);
    printValue("idle cupsd/" + scale, (to.cups - from.cups) / seconds / 2);  // used by both sides
}

// The one line that the service runs every second.
std::string recordListing(const sim::SimulatedHost& host) {
    const sim::Process service = startQuietly({QNT_SERVICE});
    waitForIdle(host);
    return recordLines([] {}, [] { std::this_thread::sleep_for(kSettling); }).front();
}

}  // namespace

void measureIdle(int rounds) {
    const bool isTrial = rounds == 1;
    const auto window = isTrial ? kTrialWindow : kWindow;
    const int mostQueues = isTrial ? kFewestQueues : kMostQueues;
    if (mount("none", kGroups.c_str(), "cgroup2", 0, nullptr) != 0)
        throw std::runtime_error("Control groups of version 2 can't be mounted.");
    const sim::SimulatedHost host;
    scriptOf("loop.sh", {"while :; do", recordListing(host), "sleep 1", "done"});
    const CountedProcess service("service", QNT_SERVICE);
    const CountedProcess loop("loop", "sh loop.sh");
    for (int count = kFewestQueues; count <= mostQueues; count *= 2) {
        makeQueues(count);
        std::this_thread::sleep_for(kSettling);
        const bool isEnd = count == kFewestQueues || count == mostQueues;
        for (int round = 0; round < (isEnd ? rounds : 1); ++round) {
            const Usage serviceBefore = service.usageAtRest();
            const Usage loopBefore = loop.usageAtRest();
            std::this_thread::sleep_for(window);
            printUsage(std::to_string(count), serviceBefore, service.usageAtRest());
            printUsage(std::to_string(count) + "/sh", loopBefore, loop.usageAtRest());
        }
        printMemory("qntspooler", service.pid());
        for (const auto& [name, command] : otherDaemons()) {
            const sim::Process daemon = startQuietly(command);
            std::this_thread::sleep_for(kSettling);
            printMemory(name, daemon.pid());
        }
    }
}

}  // namespace bench
