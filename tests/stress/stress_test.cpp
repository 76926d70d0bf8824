// Stress on the unmodified service: stops at any moment, and mutated answers.
//
// QNT_ROUNDS or QNT_MINUTES sets how long, QNT_START which random moments and answers.

#include <sys/prctl.h>
#include <sys/wait.h>

#include <algorithm>
#include <random>

#include "tests/support/fixture.h"

namespace qnt {
namespace {

using sim::Fault;
using Clock = std::chrono::steady_clock;

unsigned long setting(const char* variable, unsigned long otherwise) {
    const char* text = std::getenv(variable);
    return text != nullptr ? std::stoul(text) : otherwise;
}

class Stress : public GuestTest {
protected:
    unsigned below(unsigned limit) { return static_cast<unsigned>(random() % limit); }

    // QNT_MINUTES long, or so many rounds; until one fails.
    void repeat(unsigned long rounds, const std::function<void()>& round) {
        const unsigned long minutes = setting("QNT_MINUTES", 0);
        const auto end = Clock::now() + minutes * 1min;
        unsigned long done = 0;
        while ((minutes != 0 ? Clock::now() < end : done < setting("QNT_ROUNDS", rounds)) &&
               !HasFailure()) {
            round();
            ++done;
        }
        std::printf("%lu rounds\n", done);
    }

    // The service with sleeps that last a fiftieth.
    void startHurried(std::map<std::string, std::string> variables) {
        variables["QNT_HURRY"] = "";
        std::ofstream(kLog, std::ios::trunc).flush();
        startPreloaded(variables, {"-v"});
    }

    std::mt19937 random{static_cast<unsigned>(setting("QNT_START", 1))};
};

class Stops : public Stress {
protected:
    Stops() { prctl(PR_SET_CHILD_SUBREAPER, 1); }  // what the service leaves is found here

    // Starts the service and everything that it does: an add, a rename, a deletion, a default, a
    // report.
    void work(sim::SimulatedHost& host) {
        addQueue("Old", "TAG8");
        addQueue("Kept", "TAG9");
        host.setDefault("TAG9");
        startHurried({{"QNT_CHILD_LEFT", folder / "child left"}});
        ASSERT_TRUE(eventually(
            [&] { return !host.exchanges(GetPrintingCmd).empty() || serviceEnds(0ms) >= 0; }));
        sim::Process({"lpadmin", "-x", "Old"}).wait(10s);
        host.plug("TAG1", "Office " + std::to_string(below(3)));
        host.sendPrinterList();
        host.send(sim::addPrinter("TAG1"));
        host.send(
            sim::printerList({{"TAG1", "Lab"}, {"TAG9", "Kept " + std::to_string(below(3))}}));
        host.setDefault("TAG1");
        host.send(sim::deletePrinter("TAG9"));
    }

    void expectOrderlyEnd(const sim::SimulatedHost& host) {
        EXPECT_EQ(serviceEnds(20s), 0) << contents(folder / "output");
        const auto messages = host.statusMessages();
        EXPECT_EQ(messages.empty() ? "" : sim::statusState(messages.back()), "stopped");
        const std::string moved = kLog + std::string(".1");
        EXPECT_TRUE((contents(moved) + contents(kLog)).ends_with("closed, rc = 0\n"));
        EXPECT_EQ(contents(folder / "child left"), "");
        const auto livingChildren = [] {  // of this process, except cupsd
            return sim::commandOutput("ps -o stat=,args= --ppid " + std::to_string(getpid()) +
                                      " | grep -v -e ^Z -e cupsd -e 'ps -o'");
        };
        EXPECT_TRUE(eventually([&] { return livingChildren().empty(); })) << livingChildren();
        fs::remove(moved);
    }
};

TEST_F(Stops, AtRandomMomentsAreOrderly) {
    repeat(QNT_SANITIZED ? 10 : 25, [&] {
        sim::SimulatedHost host;
        work(host);
        std::this_thread::sleep_for(std::chrono::microseconds(below(900'000)));
        if (below(2) == 0)
            fs::rename(kLog, kLog + std::string(".1"));
        for (unsigned signals = below(4) == 0 ? 1000 : 1; signals > 0; --signals)
            service->signal(below(2) == 0 ? SIGTERM : SIGINT);
        expectOrderlyEnd(host);
    });
}

#if QNT_SANITIZED && !defined(__SANITIZE_THREAD__)

// Mutated answers and sizes. The service may end its run with the record of a failed step; it may
// not crash, hang or leak.
class Conversation : public Stress {
protected:
    std::string text() {
        std::string bytes(below(50), ' ');
        std::ranges::generate(bytes, [&] { return static_cast<char>(below(256)); });
        const std::string known[] = {"TAG1", "TAG2", "Office Laser", "Front Desk", "", bytes};
        return known[below(std::size(known))];
    }

    Bytes mutated(Bytes bytes) {
        const std::uint32_t edges[] = {0, 12, 80, 0x7FFFFFFF, 0x80000000, 0xFFFFFFF0, ~0U};
        const std::size_t at = below(static_cast<unsigned>(bytes.size()));
        if (const unsigned kind = below(3); kind == 0)
            bytes[at] ^= static_cast<std::uint8_t>(1 << below(8));
        else if (kind == 1)
            bytes.resize(1 + at + below(2) * below(300), static_cast<std::uint8_t>(below(256)));
        else if (const std::size_t field = at / 4 * 4; field + 4 <= bytes.size())
            writeU32(&bytes[field], edges[below(std::size(edges))] + below(3));
        return bytes;
    }

    // The answer, of which so many of a hundred are mutated, or a size that is asked for.
    Fault fault(const Bytes& answer, unsigned percent) {
        const std::uint32_t sizes[] = {1, 19, 79, 80, 108, 500, 5000, 1 << 20, 1 << 27, ~0U};
        if (below(5) == 0)
            return {Fault::Kind::kAskFor, sizes[below(std::size(sizes))], {}};
        return {Fault::Kind::kRaw, 0, below(100) < percent ? mutated(answer) : answer};
    }

    void conversation() {
        sim::SimulatedHost host;
        host.fault(sim::kRunLoopRequest, {Fault::Kind::kAskFor, 1000, {}});
        for (int i = 0; i < 60; ++i) {
            const sim::HostCommand command{1 + below(6), text(), {{text(), text()}, {text(), ""}}};
            host.fault(sim::kRunLoopRequest, fault(sim::encodeAnswer(command, below(100)), 10));
            host.fault(GetDefaultPrinter, fault(sim::encodeDefaultPrinter(text(), below(9)), 50));
        }
        host.plug("TAG1", text());
        startHurried({{"ASAN_OPTIONS", std::getenv("ASAN_OPTIONS") + kSanitizer}});
        const auto hasEnded = [&] { return serviceEnds(0ms) >= 0; };
        EXPECT_TRUE(eventually(
            [&] { return hasEnded() || (host.isIdle() && host.waiting(GetDefaultPrinter) != 0); },
            60s));
        const int expected = hasEnded() ? 1 : 0;
        EXPECT_EQ(expected == 1 ? serviceEnds() : stopService(20s), expected)
            << contents(folder / "output");
        const std::string log = contents(kLog);
        EXPECT_TRUE(log.ends_with("closed, rc = " + std::to_string(expected) + '\n'));
        EXPECT_EQ(log.find("Error in state machine execution\n") != log.npos, expected == 1);
        host.unplug("TAG1");
        exchanges += host.exchanges().size();
    }

    const std::string kSanitizer =
        ":exitcode=99:allocator_may_return_null=1:max_allocation_size_mb=200";
    std::size_t exchanges = 0;
};

TEST_F(Conversation, OfMutatedAnswersIsSurvivedOrEndedInOrder) {
    repeat(6, [&] { conversation(); });
    std::printf("%zu exchanges\n", exchanges);
}
#endif

}  // namespace
}  // namespace qnt
