#include "bench/cpu_account.h"

#include <sys/mount.h>
#include <unistd.h>

#include <chrono>
#include <ctime>
#include <fstream>
#include <stdexcept>
#include <thread>

namespace bench {
namespace {

namespace fs = std::filesystem;

constexpr int kRemovalTries = 100;
constexpr std::chrono::milliseconds kRemovalPause(20);
constexpr double kMicrosecond = 1e-6;
constexpr double kNanosecond = 1e-9;

}  // namespace

CpuAccount::CpuAccount(const std::string& name)
    : m_mount(fs::current_path() / name),
      m_group(m_mount / ("qnt-bench-" + std::to_string(getpid()) + "-" + name)) {
    fs::create_directory(m_mount);
    if (mount("none", m_mount.c_str(), "cgroup2", 0, nullptr) != 0 ||
        !fs::create_directory(m_group))
        throw std::runtime_error("No control group of version 2 can be made.");
}

CpuAccount::~CpuAccount() {
    for (int tries = 0; rmdir(m_group.c_str()) != 0 && tries < kRemovalTries; ++tries)
        std::this_thread::sleep_for(kRemovalPause);
    umount2(m_mount.c_str(), MNT_DETACH);
    rmdir(m_mount.c_str());
}

void CpuAccount::add(pid_t process) const {
    std::ofstream processes(m_group / "cgroup.procs");
    processes << process << std::flush;
    if (!processes)
        throw std::runtime_error("A process can't be put into a control group.");
}

double CpuAccount::seconds() const {
    std::ifstream statistics(m_group / "cpu.stat");
    std::string word;
    double microseconds = 0;
    while (statistics >> word && word != "usage_usec") {
    }
    if (!(statistics >> microseconds))
        throw std::runtime_error("The control group does not tell its use of the processor.");
    return microseconds * kMicrosecond;
}

double ownCpuSeconds(pid_t process) {
    clockid_t clock{};
    timespec used{};
    if (clock_getcpuclockid(process, &clock) != 0 || clock_gettime(clock, &used) != 0)
        throw std::runtime_error("The process has ended.");
    return static_cast<double>(used.tv_sec) + static_cast<double>(used.tv_nsec) * kNanosecond;
}

}  // namespace bench
