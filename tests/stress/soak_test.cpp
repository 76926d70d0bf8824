// A long, busy conversation: the service comes to hold no more memory, descriptors, threads and
// children than it had, and its log grows as evenly as the exchanges come. QNT_SOAK_SECONDS tells
// how long, a quarter of it without changes of CUPS and the rest with.

#include "tests/support/fixture.h"

namespace qnt {
namespace {

using sim::Fault;

struct Usage {
    long exchanges = 0;
    long kilobytes = 0;  // resident, without what lies in files
    long descriptors = 0;
    long threads = 0;
    long zombies = 0;
    long logBytes = 0;
};

long fieldOf(const std::string& status, const std::string& name) {
    return std::stol(status.substr(status.find(name) + name.size()));
}

class Soak : public GuestTest {
protected:
    Soak() {
        startService();
        settle();
    }

    void settle() {
        ASSERT_TRUE(host.waitUntil([&] { return host.isIdle(); }));
    }

    // What is open or ended for a moment, as the worker lists the queues, does not count.
    Usage usage() const {
        const std::string pid = std::to_string(service->pid());
        const std::string countZombies = "ps -o stat= --ppid " + pid + " | grep -c ^Z";
        long descriptors = 1000, zombies = 1000;
        for (int look = 0; look < 20; ++look) {
            const fs::directory_iterator open("/proc/" + pid + "/fd");
            descriptors = std::min<long>(descriptors, std::distance(begin(open), end(open)));
            zombies = std::min(zombies, std::stol(sim::commandOutput(countZombies)));
        }
        const std::string status = contents("/proc/" + pid + "/status");
        return {exchanges,   fieldOf(status, "RssAnon:"),
                descriptors, fieldOf(status, "Threads:"),
                zombies,     static_cast<long>(fs::file_size(kLog))};
    }

    // Ten tenths of the time, the first for warming up; the second half is to be as the first.
    void soak(int quarters, const std::function<void(int round)>& converse) {
        const char* text = std::getenv("QNT_SOAK_SECONDS");
        const Milliseconds tenth{(text != nullptr ? std::stol(text) : 12) * 1000 * quarters / 40};
        std::vector<Usage> usages;
        std::puts("exchanges kB anonymous  descriptors  threads  zombies  log bytes");
        for (int round = 0; usages.size() < 10;) {
            const auto end = std::chrono::steady_clock::now() + tenth;
            do
                converse(round++);
            while (std::chrono::steady_clock::now() < end && !HasFatalFailure());
            usages.push_back(usage());
            const Usage& now = usages.back();
            std::printf("%9ld %12ld %12ld %8ld %8ld %10ld\n", now.exchanges, now.kilobytes,
                        now.descriptors, now.threads, now.zombies, now.logBytes);
        }
        expectFlat(usages[0], usages[4], usages[9]);
    }

    static void expectFlat(const Usage& start, const Usage& middle, const Usage& end) {
        const double tenThousands = static_cast<double>(end.exchanges - middle.exchanges) / 10'000;
        const auto growth = [&](long Usage::*field) {
            return static_cast<double>(end.*field - middle.*field) / tenThousands;
        };
        std::printf(
            "growth per 10,000 exchanges: %.0f kB, %.1f descriptors, %.1f threads, "
            "%.1f zombies, %.0f bytes of log\n",
            growth(&Usage::kilobytes), growth(&Usage::descriptors), growth(&Usage::threads),
            growth(&Usage::zombies), growth(&Usage::logBytes));
        EXPECT_LE(end.kilobytes - middle.kilobytes, 128);
        EXPECT_EQ(end.descriptors, start.descriptors);
        EXPECT_EQ(end.threads, 3);
        EXPECT_EQ(end.zombies, 0);
        const double before = static_cast<double>(middle.logBytes - start.logBytes) /
                              static_cast<double>(middle.exchanges - start.exchanges);
        EXPECT_LE(growth(&Usage::logBytes) / 10'000, before * 2);
    }

    std::atomic<long> exchanges = 0;
    sim::SimulatedHost host{[this](const std::string&) { ++exchanges; }};
};

TEST_F(Soak, ManyExchangesWithoutAChangeOfCups) {
    addQueue("Office", "TAG1");
    host.setDefault("TAG1");
    soak(1, [&](int round) {
        for (std::uint32_t room = 0; room < 90; ++room)
            host.fault(sim::kRunLoopRequest, {Fault::Kind::kAskFor, 80 + room * 10, {}});
        host.fault(GetDefaultPrinter,
                   {Fault::Kind::kAskFor, 80 + static_cast<unsigned>(round % 9), {}});
        host.send({9, "", {}});
        host.send(sim::printerList({{"TAG1", "Office"}, {"TAG8", "Front Desk"}}));
        host.send(sim::deletePrinter("TAG7"));
        settle();
    });
    EXPECT_EQ(stopService(), 0);
}

TEST_F(Soak, ManyExchangesThatChangeCups) {
    soak(3, [&](int round) {
        const std::string id = "TAG" + std::to_string(round % 4);
        host.plug(id, "Office " + std::to_string(round % 3));
        host.send(sim::addPrinter(id));
        host.setDefault(id);
        settle();
        host.rename(id, "Desk " + std::to_string(round % 3));
        host.sendPrinterList();
        settle();
        if (round % 2 == 0)
            sim::commandOutput("lpstat -e | tail -n 1 | xargs lpadmin -x");
        host.send(sim::deletePrinter(id));
        host.unplug(id);
        host.send(sim::deleteOffline());
        settle();
    });
    EXPECT_EQ(stopService(), 0);
}

}  // namespace
}  // namespace qnt
