#include "bench/counted_process.h"

#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <ctime>
#include <fstream>
#include <stdexcept>
#include <thread>

#include "sim/private_cups.h"

namespace bench {
namespace {

namespace fs = std::filesystem;

const fs::path kGroups = "/sys/fs/cgroup";
constexpr std::chrono::seconds kSettling(3);
constexpr std::chrono::milliseconds kRest(150);
constexpr std::chrono::milliseconds kPollInterval(5);

fs::path newGroup(const std::string& name) {
    const fs::path group = kGroups / ("qnt-bench-" + name);
    fs::create_directory(group);
    return group;
}

// CPU seconds of a process without its children.
double cpuSeconds(pid_t process) {
    clockid_t clock{};
    timespec used{};
    if (clock_getcpuclockid(process, &clock) != 0 || clock_gettime(clock, &used) != 0)
        throw std::runtime_error("A process has ended.");
    return static_cast<double>(used.tv_sec) + static_cast<double>(used.tv_nsec) * 1e-9;
}

}  // namespace

void mountGroups() {
    if (unshare(CLONE_NEWNS) != 0 ||
        mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("none", kGroups.c_str(), "cgroup2", 0, nullptr) != 0)
        throw std::runtime_error("Control groups of version 2 can't be mounted.");
}

CountedProcess::CountedProcess(const std::string& name, const std::string& command)
    : m_group(newGroup(name)),
      m_process(startQuietly(
          {"sh", "-c", "echo $$ >" + m_group.string() + "/cgroup.procs && exec " + command})) {}

CountedProcess::~CountedProcess() {
    std::ofstream(m_group / "cgroup.kill") << 1 << std::flush;
    for (std::error_code busy; !fs::remove(m_group, busy);)
        std::this_thread::sleep_for(kPollInterval);
}

Usage CountedProcess::usageAtRest() const {
    const double before = usage().all;
    Usage last = usage();
    for (Usage now = last; last.all == before || now.when - last.when < kRest; now = usage()) {
        if (now.all != last.all)
            last = now;
        std::this_thread::sleep_for(kPollInterval);
    }
    return last;
}

void CountedProcess::freeze(bool frozen) const {
    std::ofstream file(m_group / "cgroup.freeze");
    if (!(file << frozen << std::flush))
        throw std::runtime_error("A control group can't be frozen.");
}

Usage CountedProcess::usage() const {
    return {Clock::now(), numberAfter(m_group / "cpu.stat", "usage_usec") * 1e-6,
            cpuSeconds(m_process.pid()), cpuSeconds(cupsProcess())};
}

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

void makeQueues(int count) {
    int status = 0;
    sim::commandOutput("set -e; for n in $(seq " + std::to_string(count) +
                           "); do lpadmin -p Queue_$n -E -v usb://HP/Laser?serial=TAG$n; done 2>&1",
                       &status);
    if (status != 0)
        throw std::runtime_error("lpadmin can't make a queue.");
}

std::string recordListing(const sim::SimulatedHost& host) {
    const sim::Process service = startQuietly({QNT_SERVICE});
    waitForIdle(host);
    return recordLines([] {}, [] { std::this_thread::sleep_for(kSettling); }).front();
}

}  // namespace bench
