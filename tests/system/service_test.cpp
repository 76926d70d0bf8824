// The whole system: the unmodified service between a simulated host and a real CUPS.

#include <gmock/gmock.h>
#include <sys/prctl.h>

#include <random>

#include "printing/tool_mutex.h"
#include "protocol/little_endian.h"
#include "tests/support/fixture.h"

namespace qnt {
namespace {

using Fault = sim::Fault;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

bool isAlive(pid_t pid) {
    const std::string stat = contents("/proc/" + std::to_string(pid) + "/stat");
    return !stat.empty() && stat.find(") Z") == std::string::npos;
}

int setting(const char* variable, int otherwise) {
    const char* text = std::getenv(variable);
    return text != nullptr ? std::atoi(text) : otherwise;
}

TEST_F(ServiceTest, AHostPrinterBecomesAQueueThatFollowsItsHost) {
    startService();
    sharePrinter("TAG1001", "Office Laser");
    EXPECT_TRUE(hasQueue("Office_Laser", "TAG1001"));
    host.rename("TAG1001", "Bob's Desk #2");  // which CUPS refuses
    for (int times = 0; times < 2; ++times) {
        carryOut(sim::printerList(host.printers()));
        EXPECT_TRUE(hasQueue("Bob_s_Desk__2", "TAG1001"));
    }
    EXPECT_THAT(records(), Contains(HasSubstr("deletePrinter:")).Times(1));
    host.send(sim::waitOffline());
    carryOut(sim::deletePrinter("TAG1001"));
    EXPECT_EQ(sim::commandOutput("lpstat -v"), "");
    EXPECT_EQ(stopService(), 0);
    EXPECT_THAT(host.results(), ElementsAre(1, 1, 1, 1, 1));
    EXPECT_THAT(host.exchanges(PrintingCmdPending), SizeIs(1));
    EXPECT_THAT(host.deletedPrinters(), IsEmpty());
    // The first answer did not fit.
    const auto asked = host.exchanges(GetPrintingCmd);
    EXPECT_EQ(asked[0].outSize, 80U);
    EXPECT_EQ(asked[1].outSize, asked[1].answer.size());
}

// However its queue was deleted, and whether or not the add renames the new one.
TEST_F(ServiceTest, TheDefaultFollowsTheHostAndAnAddAppliesItByOneCommand) {
    replaceTool("lpinfo", "echo raw");  // a queue without a driver, which is quicker
    host.plug("TAG1", "Office Laser");
    host.plug("TAG2", "Second");
    host.setDefault("TAG1");
    startService({"-v"});
    ASSERT_TRUE(waitForRecord("Set default printer: 'TAG1'"));
    const auto expectAdded = [&](const char* id, const std::string& defaultQueue,
                                 std::size_t changes) {
        fs::resize_file(kLog, 0);
        carryOut(sim::addPrinter(id));
        EXPECT_TRUE(isDefault(defaultQueue));
        EXPECT_THAT(records(), Contains("lpadmin -d '" + defaultQueue + "'").Times(changes));
    };
    expectAdded("TAG1", "Office_Laser", 1);
    carryOut(sim::printerList({{"TAG1", "Desk"}}));
    EXPECT_TRUE(isDefault("Desk"));
    expectAdded("TAG1", "Desk", 1);
    expectAdded("TAG2", "Desk", 0);
    carryOut(sim::deletePrinter("TAG1"));
    expectAdded("TAG1", "Desk", 1);
    std::this_thread::sleep_for(1500ms);  // until a check has seen the new queue
    deleteQueue("Desk");
    ASSERT_TRUE(host.waitUntil([&] { return !host.deletedPrinters().empty(); }));
    expectAdded("TAG1", "Desk", 1);
    host.setDefault("TAG2");
    expectDefault("Second");
    EXPECT_THAT(records(), Contains("Set default printer: 'TAG2'").Times(1));
    EXPECT_THAT(host.deletedPrinters(), ElementsAre("TAG1"));
    EXPECT_EQ(stopService(), 0);
    fs::resize_file(kLog, 0);
    startService({"-v"});
    ASSERT_TRUE(waitForRecord("lpadmin -d 'Second'"));
    expectAdded("TAG2", "Second", 1);
}

TEST_F(ServiceTest, TheDefaultQueryUsesTheLastRequiredSize) {
    for (const std::uint32_t size : {200U, 79U})
        host.fault(GetDefaultPrinter, {Fault::Kind::kAskFor, size, {}});
    addQueue("Office_Laser", "TAG1001");
    startService({"-v"});
    EXPECT_TRUE(waitForRecord("Buffer too small reqSize = 79\n"));
    host.setDefault("TAG1001");
    expectDefault("Office_Laser");
    host.fault(GetDefaultPrinter, {Fault::Kind::kAskFor, 10, {}});
    host.fault(GetDefaultPrinter, {Fault::Kind::kSilence, 0, {}});
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

TEST(ToolMutex, LetsAWaitingThreadGoBeforeOneThatLocksAgainAndAgain) {
    constexpr int kRounds = 200;
    ToolMutex mutex;
    std::atomic<int> rounds = 0, roundsOfWait = kRounds;
    mutex.lock();
    std::thread waiter([&] {
        const int start = rounds;
        const std::lock_guard lock(mutex);
        roundsOfWait = rounds - start;
    });
    for (; rounds < kRounds; ++rounds) {
        EXPECT_FALSE(mutex.tryLockAfterOthers(2ms));
        mutex.unlock();
        EXPECT_TRUE(mutex.tryLockAfterOthers(10s));
    }
    mutex.unlock();
    waiter.join();
    EXPECT_LT(roundsOfWait, kRounds / 2);
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
    const std::tuple<std::uint32_t, Fault, int> rows[] = {
        {UserDeletedPrinters, {Fault::Kind::kStatus, 0xF0000001, {}}, 1},
        {UserDeletedPrinters, {Fault::Kind::kSilence, 0, {}}, 0},
        {GetPrintingCmd, {Fault::Kind::kMalformed, 0, {}}, 1}};
    replaceTool("lpstat",
                "rmdir $folder/slow 2>&- && touch $folder/inside && sleep 1\n"
                "exec $real \"$@\"");
    addQueue("Kept", "TAG1002");
    for (const auto& [requestType, fault, exitCode] : rows) {
        addQueue("Old", "TAG1001");
        // After the worker's first check, which sleeps then, only the run loop lists queues.
        startPreloaded({{"QNT_SLEEPS", folder / "sleeps"}, {"QNT_SECOND", "600000"}});
        ASSERT_TRUE(host.waitUntilIdle());
        ASSERT_TRUE(eventually([&] { return fs::exists(folder / "sleeps"); }));
        deleteQueue("Old");
        fs::create_directory(folder / "slow");
        host.fault(requestType, fault);
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
                  fault.kind == Fault::Kind::kStatus);
        for (const char* file : {"inside", "sleeps"})
            fs::remove(folder / file);
        fs::resize_file(kLog, 0);
    }
}

TEST_F(ServiceTest, ARequiredSizeThatIsNotFilledCostsNoMemory) {
    constexpr std::uint32_t kGiB = 1U << 30;
    for (const std::uint32_t size : {kGiB, kGiB + 1, kGiB + 8192})
        host.fault(GetPrintingCmd, {Fault::Kind::kAskFor, size, {}});
    for (const std::uint32_t size : {kGiB, 80U, kGiB, 200U, kGiB / 2})
        host.fault(GetDefaultPrinter, {Fault::Kind::kAskFor, size, {}});
    startService();
    ASSERT_TRUE(host.waitUntil([&] { return host.exchanges(GetDefaultPrinter).size() == 6; }));
    ASSERT_TRUE(host.waitUntilIdle());
    const std::string status = contents("/proc/" + std::to_string(service->pid()) + "/status");
    const int peakKiB = std::stoi(status.substr(status.find("VmHWM:") + 6));
    EXPECT_TRUE(QNT_SANITIZED || peakKiB < 64 * 1024) << peakKiB;
}

TEST_F(ServiceTest, TheServiceFailsUnlessBothWorkersStart) {
    const char* const workers[] = {"DeletedPrinrters", "SetDefaultPrinter"};
    for (int started = 0; started < 2; ++started) {
        fs::remove(kLog);
        startPreloaded({{"QNT_THREADS", std::to_string(started)}});
        EXPECT_EQ(exitCode(), 1);
        EXPECT_THAT(records(),
                    ElementsAre("starting . . .", "Open Kavelink link was opened.",
                                "Opened /proc/driver/qnt_kl",
                                std::string("Failed to start thread '") + workers[started] + "'",
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

// One round of everything: room that grows, a command and a list that change nothing, an add, a
// default, a rename, a deletion by the user or the host.
void converse(sim::SimulatedHost& host, int round) {
    for (std::uint32_t room = 80; room < 980; room += 10)
        host.fault(sim::kRunLoopRequest, {Fault::Kind::kAskFor, room, {}});
    host.fault(GetDefaultPrinter,
               {Fault::Kind::kAskFor, 80 + static_cast<unsigned>(round % 9), {}});
    host.send({9, "", {}});
    host.send(sim::printerList({{"TAG7", "Office"}, {"TAG8", "Front Desk"}}));
    const std::string id = "TAG" + std::to_string(round % 4);
    host.plug(id, "Office " + std::to_string(round % 3));
    host.send(sim::addPrinter(id));
    host.setDefault(id);
    ASSERT_TRUE(host.waitUntilIdle(60s));
    host.rename(id, "Desk " + std::to_string(round % 3));
    host.sendPrinterList();
    ASSERT_TRUE(host.waitUntilIdle(60s));
    if (round % 2 == 0)
        sim::commandOutput("lpstat -e | tail -n 1 | xargs lpadmin -x");
    host.send(sim::deletePrinter(id));
    host.unplug(id);
    host.send(sim::deleteOffline());
    ASSERT_TRUE(host.waitUntilIdle(60s));
}

// QNT_SECONDS sets its length: a fifth for warming up, then two halves, whose growth is compared.
TEST_F(ServiceTest, ALongConversationLeavesNothingBehind) {
    if (QNT_SANITIZED)
        GTEST_SKIP() << "Sanitizers have threads and memory of their own.";
    startService();
    const fs::path process = "/proc/" + std::to_string(service->pid());
    const auto entries = [&](const char* name) {
        return std::distance(fs::directory_iterator(process / name), {});
    };
    // A worker that lists the queues has a pipe and a child meanwhile.
    ASSERT_TRUE(host.waitUntilIdle());
    auto files = entries("fd");
    for (int looks = 0; looks < 100; ++looks, std::this_thread::sleep_for(5ms))
        files = std::min(files, entries("fd"));
    const auto isAtRest = [&] {
        std::string children;
        for (const auto& thread : fs::directory_iterator(process / "task"))
            children += contents(thread.path() / "children");
        return children.empty() && entries("fd") == files;
    };
    const std::chrono::milliseconds fifth(setting("QNT_SECONDS", 10) * 1000 / 5);
    std::vector<int> kilobytes;
    std::vector<double> logPerRound;
    for (int round = 0, before = 0; const int fifths : {1, 2, 2}) {
        const auto logBefore = fs::file_size(kLog);
        const auto end = std::chrono::steady_clock::now() + fifths * fifth;
        for (before = round; std::chrono::steady_clock::now() < end; ++round)
            converse(host, round);
        EXPECT_TRUE(eventually(isAtRest));
        EXPECT_EQ(entries("task"), 3);
        const std::string status = contents(process / "status");
        kilobytes.push_back(std::stoi(status.substr(status.find("RssAnon:") + 8)));
        logPerRound.push_back(static_cast<double>(fs::file_size(kLog) - logBefore) /
                              (round - before));
        std::printf("%d rounds, %zu exchanges: %d KiB, %.0f bytes of log a round\n", round,
                    host.exchanges().size(), kilobytes.back(), logPerRound.back());
    }
    EXPECT_LE(kilobytes[2] - kilobytes[1], 128);
    EXPECT_LE(logPerRound[2], 2 * logPerRound[1]);
}

}  // namespace
}  // namespace qnt
