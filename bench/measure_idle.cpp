// A service that has nothing to do: the processor time of its looks at the queues, beside a shell
// loop that does the same, and its memory, beside other daemons of a guest.

#include <filesystem>
#include <fstream>
#include <map>
#include <stdexcept>
#include <thread>

#include "bench/cpu_account.h"
#include "bench/measure.h"
#include "bench/neighbours.h"
#include "bench/shell_recorder.h"

namespace bench {
namespace {

constexpr int kFewestQueues = 5;
constexpr int kMostQueues = 160;
constexpr std::chrono::seconds kSettling(3);
constexpr std::chrono::seconds kTrialWindow(2);
constexpr std::chrono::seconds kWindow(20);
constexpr std::chrono::milliseconds kRest(150);
constexpr std::chrono::milliseconds kLookPause(5);
constexpr int kSides = 2;  // that CUPS answers
constexpr double kKibibyte = 1024;

// The one line that the service runs every second.
std::string recordIdleLine(const sim::SimulatedHost& host) {
    if (!host.waitUntil([&] { return host.isIdle(); }))
        throw std::runtime_error("The service does not start.");
    const ShellRecorder recorder(std::filesystem::current_path());
    std::this_thread::sleep_for(kSettling);
    return recorder.lines().at(0);
}

// What a process that works for an instant and then rests has used, at the end of such an instant.
// Between two of these lies a whole number of them, however the seconds fall.
struct Reading {
    std::chrono::steady_clock::time_point when;
    double used = 0;
    double own = 0;   // by the process alone
    double cups = 0;  // by the private CUPS
};

Reading readAtRest(const CpuAccount& account, pid_t process) {
    const auto read = [&] {
        return Reading{std::chrono::steady_clock::now(), account.seconds(), ownCpuSeconds(process),
                       ownCpuSeconds(cupsProcess())};
    };
    const double before = account.seconds();
    Reading last = read();
    while (last.used == before || std::chrono::steady_clock::now() - last.when < kRest) {
        std::this_thread::sleep_for(kLookPause);
        if (account.seconds() != last.used)
            last = read();
    }
    return last;
}

// A service and a shell loop that look at the same queues.
class IdleGuest {
public:
    IdleGuest()
        : m_serviceAccount("service"),
          m_loopAccount("loop"),
          m_service(startService()),
          m_loop(scriptOf("loop.sh", {"while :; do", recordIdleLine(m_host), "sleep 1", "done"}),
                 {}, "/dev/null") {
        m_serviceAccount.add(m_service.pid());
        m_loopAccount.add(m_loop.pid());
        std::this_thread::sleep_for(kSettling);
    }

    pid_t service() const { return m_service.pid(); }

    // Both are measured in the same seconds.
    void measure(const std::string& queues, std::chrono::seconds window) const {
        const Reading service = readAtRest(m_serviceAccount, m_service.pid());
        const Reading loop = readAtRest(m_loopAccount, m_loop.pid());
        std::this_thread::sleep_for(window);
        printUse(queues, kOurs, service, readAtRest(m_serviceAccount, m_service.pid()));
        printUse(queues, kScript, loop, readAtRest(m_loopAccount, m_loop.pid()));
    }

private:
    static void printUse(const std::string& queues, const std::string& side, const Reading& from,
                         const Reading& to) {
        const double seconds = std::chrono::duration<double>(to.when - from.when).count();
        printValue("idle", queues, side, (to.used - from.used) / seconds);
        printValue("idle own", queues, side, (to.own - from.own) / seconds);
        printValue("idle cupsd", queues, side, (to.cups - from.cups) / seconds / kSides);
    }

    sim::SimulatedHost m_host;
    CpuAccount m_serviceAccount;
    CpuAccount m_loopAccount;
    sim::Process m_service;
    sim::Process m_loop;
};

// A field of a file under /proc that is given in kB.
double bytesIn(const std::string& path, const std::string& field) {
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);) {
        if (line.starts_with(field + ":"))
            return std::stod(line.substr(field.size() + 1)) * kKibibyte;
    }
    throw std::runtime_error("There is no " + field + " in " + path + ".");
}

void printMemory(const std::string& side, pid_t process) {
    const std::string folder = "/proc/" + std::to_string(process);
    printValue("memory", "resident", side, bytesIn(folder + "/status", "VmRSS"));
    printValue("memory", "proportional", side, bytesIn(folder + "/smaps_rollup", "Pss"));
}

using Daemons = std::map<std::string, sim::Process>;

Daemons startNeighbours() {
    Daemons daemons;
    for (const auto& [name, command] : installedNeighbours())
        daemons.try_emplace(name, command, std::map<std::string, std::string>{}, "/dev/null");
    return daemons;
}

}  // namespace

void measureIdle(int rounds) {
    const auto window = isTrial(rounds) ? kTrialWindow : kWindow;
    const int mostQueues = isTrial(rounds) ? kFewestQueues : kMostQueues;
    const Daemons neighbours = startNeighbours();
    const IdleGuest guest;
    int queues = 0;
    for (int count = kFewestQueues; count <= mostQueues; count *= 2) {
        while (queues < count)
            addRawQueue(++queues);
        std::this_thread::sleep_for(kSettling);
        const bool isEnd = count == kFewestQueues || count == mostQueues;
        for (int round = 0; round < (isEnd ? rounds : 1); ++round)
            guest.measure(std::to_string(count), window);
        printMemory(kOurs, guest.service());
        for (const auto& [name, process] : neighbours)
            printMemory(name, process.pid());
    }
    deleteAllQueues();
}

}  // namespace bench
