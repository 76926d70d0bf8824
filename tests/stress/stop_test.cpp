// Stop signals at any moment: the unmodified service is stopped again and again in the middle of
// busy work, at random, and at each cancellation point of its workers.
//
// QNT_STOPS tells how often, QNT_START which moments.

#include <sys/prctl.h>
#include <sys/wait.h>

#include <random>

#include "tests/support/fixture.h"

namespace qnt {
namespace {

class Stops : public GuestTest {
protected:
    Stops() { prctl(PR_SET_CHILD_SUBREAPER, 1); }  // what the service loses is found here

    unsigned below(unsigned limit) { return static_cast<unsigned>(random() % limit); }

    // The service with all that it does under way: an add, a rename, a deletion, a default, a
    // report, and the log moved away.
    void work(sim::SimulatedHost& host, const std::map<std::string, std::string>& variables) {
        addQueue("Old", "TAG8");
        addQueue("Kept", "TAG9");
        std::ofstream(kLog, std::ios::trunc).flush();
        std::map<std::string, std::string> all = {{"LD_PRELOAD", preloadable(QNT_HURRIED_SERVICE)},
                                                  {"QNT_CHILD_LEFT", folder / "child left"}};
        all.insert(variables.begin(), variables.end());
        host.setDefault("TAG9");
        startService({"-v"}, all);
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

    // Every end in order: its exit code, what the host heard last, the last record, no process.
    void expectOrderlyEnd(const sim::SimulatedHost& host) {
        const auto asked = std::chrono::steady_clock::now();
        EXPECT_EQ(serviceEnds(20s), 0) << contents(folder / "output");
        longest = std::max(longest, std::chrono::steady_clock::now() - asked);
        const auto messages = host.statusMessages();
        EXPECT_EQ(messages.empty() ? "" : sim::statusState(messages.back()), "stopped");
        EXPECT_TRUE(
            (contents(kLog + std::string(".1")) + contents(kLog)).ends_with("closed, rc = 0\n"));
        EXPECT_EQ(contents(folder / "child left"), "");
        EXPECT_TRUE(eventually([] { return livingChildren().empty(); })) << livingChildren();
        fs::remove(kLog + std::string(".1"));
    }

    // Those of this process, apart from cupsd.
    static std::string livingChildren() {
        return sim::commandOutput("ps -o stat=,args= --ppid " + std::to_string(getpid()) +
                                  " | grep -v -e ^Z -e cupsd -e 'ps -o'");
    }

    std::mt19937 random{std::getenv("QNT_START") ? std::stoul(std::getenv("QNT_START")) : 1};
    std::chrono::steady_clock::duration longest{};
};

TEST_F(Stops, AtRandomMomentsAreOrderly) {
    const char* text = std::getenv("QNT_STOPS");
    const int stops = text != nullptr ? std::stoi(text) : QNT_SANITIZED ? 10 : 25;
    for (int stop = 0; stop < stops && !HasFailure(); ++stop) {
        sim::SimulatedHost host;
        work(host, {});
        std::this_thread::sleep_for(std::chrono::microseconds(below(900'000)));
        if (below(2) == 0)
            fs::rename(kLog, kLog + std::string(".1"));
        for (unsigned signals = below(4) == 0 ? 1000 : 1; signals > 0; --signals)
            service->signal(below(2) == 0 ? SIGTERM : SIGINT);
        expectOrderlyEnd(host);
    }
    std::printf("%d stops, the longest took %.2f s\n", stops,
                std::chrono::duration<double>(longest).count());
}

#ifdef __SANITIZE_THREAD__
TEST_F(Stops, AtEachCancellationPointOfTheWorkersAreOrderly) {
    const std::pair<const char*, int> points[] = {
        {" sleep", 6}, {" write", 4}, {" fgets", 9}, {" waitid", 9}, {" nanosleep", 2}};
    for (const auto& [name, times] : points)
        for (int number = 1; number <= times && !HasFailure(); ++number) {
            SCOPED_TRACE(std::to_string(number) + name);
            sim::SimulatedHost host;
            work(host, {{"QNT_STOP_AT", std::to_string(number) + name}});
            expectOrderlyEnd(host);
        }
}
#endif

}  // namespace
}  // namespace qnt
