// The whole system: the unmodified service between a simulated host and a real CUPS.

#include <gmock/gmock.h>
#include <sys/prctl.h>

#include <random>

#include "printing/tool_mutex.h"
#include "protocol/little_endian.h"
#include "tests/support/fixture.h"

namespace qnt {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

bool isAlive(pid_t pid) {
    const std::string stat = contents("/proc/" + std::to_string(pid) + "/stat");
    return !stat.empty() && stat.find(") Z") == std::string::npos;
}

TEST_F(ServiceTest, TheDefaultQueryUsesTheLastRequiredSize) {
    for (const std::uint32_t size : {200U, 79U})
        host.answerNext(GetDefaultPrinter, sim::askFor(size));
    addQueue("Office_Laser", "TAG1001");
    startService({"-v"});
    EXPECT_TRUE(waitForRecord("Buffer too small reqSize = 79\n"));
    host.setDefault("TAG1001");
    expectDefault("Office_Laser");
    host.answerNext(GetDefaultPrinter, sim::askFor(10));
    host.answerNext(GetDefaultPrinter, sim::silence());
    const auto queries = [&] { return host.exchanges(GetDefaultPrinter); };
    ASSERT_TRUE(host.waitUntil([&] { return queries().size() == 6; }));
    std::vector<std::uint32_t> sizes;
    for (const sim::Exchange& query : queries())
        sizes.push_back(query.outSize);
    EXPECT_THAT(sizes, ElementsAre(80, 200, 79, 111, 111, 10));
    EXPECT_EQ(queries()[0].request, documented("get-default-printer"));
    EXPECT_EQ(readU32(&queries()[5].request[8]), readU32(&queries()[3].answer[8]));
}

// A worker's listing hangs, or its call of lpadmin; the run loop's listing does not.
TEST_F(ServiceTest, AHungToolInAWorkerDelaysNeitherStopNorCommand) {
    const std::pair<const char*, const char*> tools[] = {{"lpstat", "rmdir $folder/hang 2>&-"},
                                                         {"lpadmin", "[ $1 = -d ]"}};
    host.plug("TAG1001", "Office Laser");
    for (const auto& [tool, condition] : tools)
        for (const bool answered : {false, true}) {
            SCOPED_TRACE(tool + std::to_string(answered));
            addQueue("Office_Laser", "TAG1001");
            replaceTool(tool, std::string(condition) +
                                  " && echo $$ >$folder/hung && exec sleep 600\nexec $real \"$@\"");
            startService();
            host.sendPrinterList();  // so that the next command fits
            ASSERT_TRUE(host.waitUntil([&] { return host.isIdle() && !host.results().empty(); }));
            fs::create_directory(folder / "hang");
            if (tool == std::string("lpadmin"))
                host.setDefault("TAG1001");
            ASSERT_TRUE(eventually([&] { return !contents(folder / "hung").empty(); }));
            if (answered) {
                host.send(sim::deletePrinter("TAG1001"));
                ASSERT_TRUE(
                    host.waitUntil([&] { return host.waiting(sim::kRunLoopRequest) == 0; }));
            }
            const pid_t hung = std::stoi(contents(folder / "hung"));
            EXPECT_TRUE(isAlive(hung));
            EXPECT_NE(getsid(hung), getsid(0));  // no terminal that it could wait for
            EXPECT_EQ(stopService(), 0);
            EXPECT_EQ(hasQueue("Office_Laser", "TAG1001"), !answered);
            EXPECT_TRUE(eventually([&] { return !isAlive(hung); }));
            EXPECT_EQ(records().back(), "closed, rc = 0");
            for (const char* file : {"hung", "hang"})
                fs::remove(folder / file);
            fs::remove(folder / "bin" / tool);
            host.setDefault("");
        }
}

TEST(ToolMutex, IsNotKeptFromTheRunLoopByTwoThreadsThatOverlap) {
    ToolMutex mutex;
    std::atomic<bool> ended = false;
    const auto overlap = [&] {
        while (!ended) {
            const std::lock_guard lock(mutex);
            std::this_thread::sleep_for(2ms);  // in which the other one begins to wait
        }
    };
    std::thread one(overlap), other(overlap);
    for (int rounds = 0; rounds < 20; ++rounds) {
        EXPECT_TRUE(mutex.tryLockAfterOthers(5s));
        std::this_thread::sleep_for(2ms);
        mutex.unlock();
    }
    ended = true;
    one.join();
    other.join();
}

TEST_F(ServiceTest, AStepThatFailsDuringAStopIsAFailureUnlessTheStopHasCancelledIt) {
    const std::tuple<std::uint32_t, sim::Reply, int> rows[] = {
        {UserDeletedPrinters, sim::status(0xF0000001), 1},
        {UserDeletedPrinters, sim::silence(), 0},
        {GetPrintingCmd, sim::malformed(), 1}};
    replaceTool("lpstat",
                "rmdir $folder/slow 2>&- && touch $folder/inside && sleep 1\n"
                "exec $real \"$@\"");
    addQueue("Kept", "TAG1002");
    for (const auto& [requestType, reply, exitCode] : rows) {
        addQueue("Old", "TAG1001");
        // After the worker's first check, which sleeps then, only the run loop lists queues.
        startPreloaded({{"QNT_SLEEPS", folder / "sleeps"}, {"QNT_SECOND", "600000"}});
        ASSERT_TRUE(host.waitUntilIdle());
        ASSERT_TRUE(eventually([&] { return fs::exists(folder / "sleeps"); }));
        deleteQueue("Old");
        fs::create_directory(folder / "slow");
        host.answerNext(requestType, reply);
        if (requestType == UserDeletedPrinters)
            host.send(sim::deletePrinter("TAG1002"));
        ASSERT_TRUE(eventually([&] { return fs::exists(folder / "inside"); }));
        if (exitCode == 0) {
            ASSERT_TRUE(host.waitUntil([&] { return host.waiting(UserDeletedPrinters) == 1; }));
        }
        EXPECT_EQ(stopService(), exitCode) << requestType;
        EXPECT_TRUE(hasQueue("Kept", "TAG1002"));
        EXPECT_EQ(std::ranges::count(records(), "Error in state machine execution"), exitCode);
        EXPECT_EQ(std::ranges::count(records(), "SendRequest() failed f0000001"),
                  reply.status != kRequestDone);
        for (const char* file : {"inside", "sleeps"})
            fs::remove(folder / file);
        fs::resize_file(kLog, 0);
    }
}

TEST_F(ServiceTest, ARequiredSizeThatIsNotFilledCostsNoMemory) {
    constexpr std::uint32_t kGiB = 1U << 30;
    for (const std::uint32_t size : {kGiB, kGiB + 1, kGiB + 8192})
        host.answerNext(GetPrintingCmd, sim::askFor(size));
    for (const std::uint32_t size : {kGiB, 80U, kGiB, 200U, kGiB / 2})
        host.answerNext(GetDefaultPrinter, sim::askFor(size));
    startService();
    ASSERT_TRUE(host.waitUntil([&] { return host.exchanges(GetDefaultPrinter).size() == 6; }));
    ASSERT_TRUE(host.waitUntilIdle());
    const std::string status = contents("/proc/" + std::to_string(service->pid()) + "/status");
    const int peakKiB = std::stoi(status.substr(status.find("VmHWM:") + 6));
    EXPECT_TRUE(QNT_SANITIZED || peakKiB < 64 * 1024) << peakKiB;
}

TEST_F(ServiceTest, TheServiceFailsUnlessBothWorkersStart) {
    if (QNT_SANITIZED)
        GTEST_SKIP() << "a sanitizer needs the memory";
    // The stack of the first worker does not fit, or that of the second.
    for (const auto& [stack, worker] :
         {std::pair{"3000000", "DeletedPrinrters"}, {"1000000", "SetDefaultPrinter"}}) {
        fs::remove(kLog);
        service.emplace(std::vector<std::string>{
            "sh", "-c",
            std::string("ulimit -v 1500000; ulimit -s ") + stack + "; exec '" QNT_SERVICE "'"});
        EXPECT_EQ(exitCode(), 1);
        EXPECT_THAT(records(), ElementsAre("starting . . .", "Open Kavelink link was opened.",
                                           "Opened /proc/driver/qnt_kl",
                                           std::string("Failed to start thread '") + worker + "'",
                                           "Open Kavelink link was closed.", "closed, rc = 1"));
    }
    EXPECT_THAT(host.statusMessages(), SizeIs(4));
}

// While it adds, renames, deletes, sets a default and reports a deletion. QNT_ROUNDS is the number
// of stops, QNT_START chooses their moments.
TEST_F(GuestTest, AStopAtAnyMomentIsOrderly) {
    std::mt19937 random(static_cast<unsigned>(setting("QNT_START", 1)));
    const auto below = [&](unsigned limit) { return static_cast<unsigned>(random() % limit); };
    prctl(PR_SET_CHILD_SUBREAPER, 1);  // what the service leaves is found here
    const auto livingChildren = [] {   // of this process, except cupsd
        return sim::commandOutput("ps -o stat=,args= --ppid " + std::to_string(getpid()) +
                                  " | grep -v -e ^Z -e cupsd -e 'ps -o'");
    };
    const std::string moved = kLog + std::string(".1");
    std::chrono::steady_clock::duration longest{};
    for (int rounds = setting("QNT_ROUNDS", 10); rounds > 0; --rounds) {
        sim::SimulatedHost host;
        addQueue("Old", "TAG8");
        addQueue("Kept", "TAG9");
        host.setDefault("TAG9");
        std::ofstream(kLog, std::ios::trunc).flush();
        startPreloaded({{"QNT_SECOND", "20"}}, {"-v"});
        // Half of the stops come early, from the first probe of the link on.
        const bool early = rounds % 2 == 0;
        ASSERT_TRUE(host.waitUntil(
            [&] { return !host.exchanges(early ? sim::kLinkCall : +GetPrintingCmd).empty(); }));
        deleteQueue("Old");
        host.plug("TAG1", "Office " + std::to_string(below(3)));
        host.sendPrinterList();
        host.send(sim::addPrinter("TAG1"));
        host.send(
            sim::printerList({{"TAG1", "Lab"}, {"TAG9", "Kept " + std::to_string(below(3))}}));
        host.setDefault("TAG1");
        host.send(sim::deletePrinter("TAG9"));
        std::this_thread::sleep_for(
            std::chrono::microseconds(early ? below(300'000) : below(900'000)));
        if (below(2) == 0)
            fs::rename(kLog, moved);
        const auto stopped = std::chrono::steady_clock::now();
        for (unsigned signals = below(4) == 0 ? 1000 : 1; signals > 0; --signals)
            service->signal(below(2) == 0 ? SIGTERM : SIGINT);
        ASSERT_EQ(exitCode(), 0) << contents(folder / "output");
        longest = std::max(longest, std::chrono::steady_clock::now() - stopped);
        EXPECT_EQ(sim::statusState(host.statusMessages().back()), "stopped");
        ASSERT_TRUE((contents(moved) + contents(kLog)).ends_with("closed, rc = 0\n"));
        ASSERT_TRUE(eventually([&] { return livingChildren().empty(); })) << livingChildren();
        fs::remove(moved);
    }
    std::cout << "longest stop: " << longest / 1ms << " ms\n";
}

}  // namespace
}  // namespace qnt
