// Stress on the unmodified service: stops at any moment, and mutated answers.
//
// QNT_ROUNDS or QNT_MINUTES sets how long, QNT_START which random moments and answers.

#include <sys/prctl.h>
#include <sys/wait.h>

#include <random>

#include "sim/random_answers.h"
#include "tests/support/fixture.h"

namespace qnt {
namespace {

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
TEST_F(Stress, AConversationOfMutatedAnswersIsSurvivedOrEndedInOrder) {
    const std::string options =
        ":exitcode=99:allocator_may_return_null=1:max_allocation_size_mb=200";
    std::size_t exchanges = 0;
    repeat(6, [&] {
        sim::SimulatedHost host;
        sim::RandomAnswers answers(static_cast<unsigned>(random()));
        host.fault(sim::kRunLoopRequest, {sim::Fault::Kind::kAskFor, 1000, {}});
        answers.queue(host, 60);
        host.plug("TAG1", answers.text());
        startHurried({{"ASAN_OPTIONS", std::getenv("ASAN_OPTIONS") + options}});
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
    });
    std::printf("%zu exchanges\n", exchanges);
}
#endif

}  // namespace
}  // namespace qnt
