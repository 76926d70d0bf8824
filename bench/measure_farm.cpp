// Many guests on one machine, each with namespaces, a CUPS and a simulated host of its own, and the
// service with five queues. One more guest for every ten, at least one, runs a shell loop in place
// of the service until CPU time has been measured.

#include <sys/mman.h>

#include <algorithm>
#include <fstream>
#include <list>
#include <random>
#include <stdexcept>
#include <thread>

#include "bench/counted_process.h"
#include "sim/private_cups.h"

namespace bench {
namespace {

namespace fs = std::filesystem;
using Seconds = std::chrono::duration<double>;

constexpr int kQueues = 5;
constexpr int kAddsOfOne = 15;
constexpr double kAddInterval = 1;         // seconds
constexpr double kTurnOfAdds = 20;         // seconds for all adds of one
constexpr double kTurnOfFirstAdd = 5;      // seconds
constexpr double kWaking = 2;              // seconds until a thawed service asks for commands again
constexpr double kWindow = 60;             // seconds without events
constexpr double kDeletionInterval = 0.3;  // the guests delete one after the other
constexpr std::size_t kStartedAtOnce = 4;
constexpr std::size_t kLeastMemory = 600'000'000;  // free bytes; a guest needs about 50,000,000
constexpr std::chrono::minutes kLongest(20);

constexpr double kStartInterval = 0.15;            // seconds between two services
constexpr std::size_t kMemoryOfAdd = 100'000'000;  // bytes that CUPS uses for an add
constexpr double kTouching = 0.4;                  // seconds, at most, to get them

// Turns in which so many guests act at the same moment, while the services of all others are
// frozen.
struct Turns {
    double end() const { return start + length * count; }

    double start;  // seconds after the common start
    int firstGuest;
    int guestsOfTurn;
    int count;
    double length;  // seconds
};

// When all guests do what, in seconds after their common start. A first add takes a processor about
// a second, as it looks for the driver; a later one takes a quarter of a second.
struct Schedule {
    explicit Schedule(int guests)
        : settled(10 + kStartInterval * 1.1 * guests),
          firstAddsAlone{settled + kWindow + 10, 0, 1, std::max(1, guests / 20), kTurnOfFirstAdd},
          firstAddsOfEach{firstAddsAlone.end(), firstAddsAlone.count, processors,
                          guests > 1 ? firstAddsAlone.count : 0, kTurnOfFirstAdd},
          firstAddOfAll(firstAddsOfEach.end() + 5 + kTouching * guests),
          addsAlone{firstAddOfAll + 10 + guests * 0.8, 0, 1, 1, kTurnOfAdds},
          addsOfEach{addsAlone.end(), 0, processors, 1, kTurnOfAdds},
          addsOfOne(addsOfEach.end() + 5),
          addOfTenth(addsOfOne + 15),
          addOfAll(addOfTenth + 10 + kTouching * guests),
          deletions(addOfAll + 10 + guests * 0.3),
          end(deletions + kDeletionInterval * guests + 10) {}

    void waitUntil(double seconds) const {
        std::this_thread::sleep_until(
            start + std::chrono::duration_cast<Clock::duration>(Seconds(seconds)));
    }

    int processors = static_cast<int>(std::thread::hardware_concurrency());
    double settled;
    Turns firstAddsAlone, firstAddsOfEach;  // of one guest, and of one for each processor
    double firstAddOfAll;
    Turns addsAlone, addsOfEach;
    double addsOfOne, addOfTenth, addOfAll, deletions, end;
    Clock::time_point start;
};

class Guest {
public:
    Guest(int index, int guests, const fs::path& folder)
        : m_index(index), m_guests(guests), m_folder(folder), m_schedule(guests) {}

    void run() {
        const bool isLoop = m_index >= m_guests;
        makeQueues(kQueues);
        if (isLoop)
            scriptOf("loop.sh", {"while :; do", recordListing(m_host), "sleep 1", "done"});
        awaitStart();
        // At a random moment of a second: guests that list their queues together go on to do so.
        std::mt19937 random(static_cast<unsigned>(m_index));
        m_schedule.waitUntil(kStartInterval * m_index + std::uniform_real_distribution<>()(random));
        const CountedProcess process("guest" + std::to_string(m_index),
                                     isLoop ? "sh loop.sh" : QNT_SERVICE);
        if (!isLoop)
            waitForIdle(m_host);
        measureWindow(process, isLoop ? "/sh" : "");
        if (isLoop)
            return;
        printMemory("farm/" + std::to_string(m_guests), process.pid());
        takeTurns(process, m_schedule.firstAddsAlone,
                  [&](double now) { addAt(now, "first alone"); });
        takeTurns(process, m_schedule.firstAddsOfEach,
                  [&](double now) { addAt(now, "first each"); });
        if (m_added > 0)
            process.freeze(true);  // until the next turns end
        else
            addAt(m_schedule.firstAddOfAll, "first all");
        const auto addOften = [&](double now, const std::string& what) {
            for (int number = 0; number < kAddsOfOne; ++number)
                addAt(now + kAddInterval * number, what);
        };
        takeTurns(process, m_schedule.addsAlone, [&](double now) { addOften(now, "alone"); });
        takeTurns(process, m_schedule.addsOfEach, [&](double now) { addOften(now, "each"); });
        for (int number = 0; m_index == 0 && number < kAddsOfOne; ++number)
            addAt(m_schedule.addsOfOne, "one");
        if (m_index < std::max(1, m_guests / 10))
            addAt(m_schedule.addOfTenth, "tenth");
        addAt(m_schedule.addOfAll, "all");
        deleteOne();
        // Goes on listing its queues, so that the last guests share the machine as the first did.
        m_schedule.waitUntil(m_schedule.end);
    }

private:
    void print(const std::string& what, double value) const {
        printValue("farm " + what + "/" + std::to_string(m_guests), value);
    }

    void awaitStart() {
        std::ofstream(m_folder / ("ready" + std::to_string(m_index))).flush();
        while (!fs::exists(m_folder / "start"))
            std::this_thread::sleep_for(std::chrono::milliseconds(200));
        std::time_t start = 0;
        std::ifstream(m_folder / "start") >> start;
        m_schedule.start = Clock::from_time_t(start);
    }

    static double wakeUps(pid_t process) {
        double sum = 0;
        for (const auto& task :
             fs::directory_iterator("/proc/" + std::to_string(process) + "/task"))
            sum += numberAfter(task.path() / "status", "voluntary_ctxt_switches:");
        return sum;
    }

    void measureWindow(const CountedProcess& process, const std::string& side) const {
        // The guests read their counters at different moments, as reading takes time itself.
        m_schedule.waitUntil(m_schedule.settled + 5.0 * m_index / m_guests);
        const Usage from = process.usageAtRest();
        const double wakeUpsBefore = wakeUps(process.pid());
        m_schedule.waitUntil(m_schedule.settled + kWindow + 5.0 * m_index / m_guests);
        const Usage to = process.usageAtRest();
        const double seconds = secondsSince(from.when, to.when);
        print("own" + side, (to.own - from.own) / seconds);
        print("tools" + side, (to.all - from.all - to.own + from.own) / seconds);
        print("all" + side, (to.all - from.all) / seconds);
        print("cupsd" + side, (to.cups - from.cups) / seconds);
        print("wake-ups" + side, (wakeUps(process.pid()) - wakeUpsBefore) / seconds);
    }

    template <typename Act>
    void takeTurns(const CountedProcess& process, const Turns& turns, const Act& act) const {
        m_schedule.waitUntil(turns.start);
        process.freeze(true);
        const int guest = m_index - turns.firstGuest;
        if (guest >= 0 && guest < turns.count * turns.guestsOfTurn) {
            const int turn = guest / turns.guestsOfTurn;
            m_schedule.waitUntil(turns.start + turns.length * turn);
            process.freeze(false);
            act(turns.start + turns.length * turn + kWaking);
            process.freeze(true);
        }
        m_schedule.waitUntil(turns.end());
        process.freeze(false);
    }

    void addAt(double when, const std::string& what) {
        const std::string number = std::to_string(++m_added);
        const std::string id = "TAG9" + number;
        m_host.plug(id, "Added " + number);
        m_schedule.waitUntil(when);
        print("add " + what, execute(m_host, sim::addPrinter(id)));
    }

    void deleteOne() {
        m_schedule.waitUntil(m_schedule.deletions + kDeletionInterval * m_index);
        const auto reports = [&] { return m_host.exchanges(qnt::UserDeletedPrinters); };
        if (!reports().empty())
            throw std::runtime_error("A deletion is reported that has not happened.");
        sim::commandOutput("lpadmin -x Queue_1");
        const auto deleted = Clock::now();
        if (!m_host.waitUntil([&] { return !reports().empty(); }))
            throw std::runtime_error("A deletion is not reported.");
        print("deletion", std::max(0.0, secondsSince(deleted, reports().front().when)));
    }

    const int m_index;
    const int m_guests;
    const fs::path m_folder;
    Schedule m_schedule;
    int m_added = 0;
    sim::SimulatedHost m_host;
};

std::size_t availableMemory() {
    return static_cast<std::size_t>(numberAfter("/proc/meminfo", "MemAvailable:")) * 1024;
}

// The host of a virtual machine may take back free memory, and getting it again can take longer
// than an add. So memory is used, and freed a second before all guests add.
void touchMemory(int guests, Clock::time_point start) {
    Schedule schedule(guests);
    schedule.start = start;
    for (const double when : {schedule.firstAddOfAll, schedule.addOfAll}) {
        schedule.waitUntil(when - kTouching * guests);
        const std::size_t size =
            std::min(kMemoryOfAdd * static_cast<std::size_t>(guests), availableMemory() / 2);
        void* const memory = mmap(nullptr, size, PROT_READ | PROT_WRITE,
                                  MAP_PRIVATE | MAP_ANONYMOUS | MAP_POPULATE, -1, 0);
        schedule.waitUntil(when - 1);
        if (memory != MAP_FAILED)
            munmap(memory, size);
    }
}

}  // namespace

void measureGuest(int index, int guests, const std::string& folder) {
    Guest(index, guests, folder).run();
}

void measureFarm(int guests) {
    mountGroups();
    std::string name = fs::temp_directory_path() / "qnt-farm-XXXXXX";
    const fs::path folder = mkdtemp(name.data());
    const std::string self = fs::read_symlink("/proc/self/exe");
    const int loops = std::max(1, guests / 10);
    std::list<sim::Process> processes;
    const auto isReady = [&](int index) {
        return fs::exists(folder / ("ready" + std::to_string(index)));
    };
    for (int index = 0; index < guests + loops; ++index) {
        if (availableMemory() < kLeastMemory)
            throw std::runtime_error("Not enough memory for more than " + std::to_string(index) +
                                     " guests.");
        processes.emplace_back(
            Command{"unshare", "--fork", "--kill-child", "--pid", "--mount-proc", "--net", self,
                    "guest", std::to_string(index), std::to_string(guests), folder},
            std::map<std::string, std::string>{}, folder / "values");
        const auto unready = [&] {
            std::size_t count = 0;
            for (int started = 0; started <= index; ++started)
                count += isReady(started) ? 0 : 1;
            return count;
        };
        const bool isLast = index + 1 == guests + loops;
        for (const auto end = Clock::now() + kLongest; unready() >= (isLast ? 1 : kStartedAtOnce);
             std::this_thread::sleep_for(std::chrono::milliseconds(100))) {
            if (Clock::now() > end)
                throw std::runtime_error("A guest does not start.");
        }
    }
    const std::time_t start = Clock::to_time_t(Clock::now()) + 1;
    std::ofstream(folder / "start~") << start << std::flush;
    fs::rename(folder / "start~", folder / "start");
    touchMemory(guests, Clock::from_time_t(start));
    for (sim::Process& process : processes) {
        if (process.wait(kLongest) != 0)
            throw std::runtime_error("A guest has failed; see " + (folder / "values").string());
    }
    std::ifstream values(folder / "values");
    for (std::string line; std::getline(values, line);)
        if (line.find('\t') != std::string::npos)
            std::printf("%s\n", line.c_str());
    fs::remove_all(folder);
}

}  // namespace bench
