// The whole system: the unmodified service between a simulated host and a real CUPS.

#include <gmock/gmock.h>
#include <sys/prctl.h>

#include <random>

#include "hostlink/kavelink.h"
#include "printing/tool_mutex.h"
#include "protocol/little_endian.h"
#include "sim/hypervisor.h"
#include "tests/support/fixture.h"

namespace qnt {
namespace {

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
    const auto queries = [&] { return host.exchanges(GetDefaultPrinter); };
    ASSERT_TRUE(waitUntil([&] { return queries().size() == 6; }));
    std::vector<std::uint32_t> sizes;
    for (const sim::Exchange& query : queries())
        sizes.push_back(query.outSize);
    EXPECT_THAT(sizes, ElementsAre(80, 200, 79, 111, 111, 10));
    EXPECT_EQ(queries()[0].request, documented("get-default-printer"));
    EXPECT_EQ(readU32(&queries()[5].request[8]), readU32(&queries()[3].reply->answer[8]));
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
            ASSERT_TRUE(waitUntil([&] { return host.isIdle() && !host.results().empty(); }));
            fs::create_directory(folder / "hang");
            if (tool == std::string("lpadmin"))
                host.setDefault("TAG1001");
            ASSERT_TRUE(waitUntil([&] { return !contents(folder / "hung").empty(); }));
            if (answered) {
                host.send(sim::deletePrinter("TAG1001"));
                ASSERT_TRUE(waitUntil([&] { return host.waiting(sim::kRunLoopRequest) == 0; }));
            }
            const pid_t hung = std::stoi(contents(folder / "hung"));
            EXPECT_TRUE(isAlive(hung));
            EXPECT_NE(getsid(hung), getsid(0));  // no terminal that it could wait for
            EXPECT_EQ(stopService(), 0);
            EXPECT_EQ(hasQueue("Office_Laser", "TAG1001"), !answered);
            EXPECT_TRUE(waitUntil([&] { return !isAlive(hung); }));
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
    const std::jthread one(overlap), other(overlap);
    for (int rounds = 0; rounds < 20; ++rounds) {
        EXPECT_TRUE(mutex.tryLockAfterOthers(5s));
        std::this_thread::sleep_for(2ms);
        mutex.unlock();
    }
    ended = true;
}

TEST_F(ServiceTest, AStepThatFailsDuringAStopIsAFailureUnlessTheStopHasCancelledIt) {
    const std::tuple<std::uint32_t, sim::Reply, int> rows[] = {
        {UserDeletedPrinters, {.status = 0xF0000001}, 1},
        {UserDeletedPrinters, {}, 0},  // held
        {GetPrintingCmd, sim::malformed(), 1}};
    replaceTool("lpstat",
                "rmdir $folder/slow 2>&- && touch $folder/inside && sleep 1\n"
                "$real \"$@\" && echo >>$folder/calls");
    addQueue("Kept", "TAG1002");
    for (const auto& [requestType, reply, exitCode] : rows) {
        addQueue("Old", "TAG1001");
        // After the fifth call, which is a worker's, only the run loop lists queues.
        startPreloaded({{"QNT_SECOND", "600000"}});
        ASSERT_TRUE(host.waitUntilIdle());
        ASSERT_TRUE(waitUntil([&] { return contents(folder / "calls").size() == 5; }));
        deleteQueue("Old");
        fs::create_directory(folder / "slow");
        if (exitCode == 0)
            host.hold(requestType);
        else
            host.answerNext(requestType, reply);
        if (requestType == UserDeletedPrinters)
            host.send(sim::deletePrinter("TAG1002"));
        ASSERT_TRUE(waitUntil([&] { return fs::exists(folder / "inside"); }));
        if (exitCode == 0) {
            ASSERT_TRUE(waitUntil([&] { return host.waiting(UserDeletedPrinters) == 1; }));
        }
        EXPECT_EQ(stopService(), exitCode) << requestType;
        EXPECT_TRUE(hasQueue("Kept", "TAG1002"));
        EXPECT_EQ(std::ranges::count(records(), "Error in state machine execution"), exitCode);
        EXPECT_EQ(std::ranges::count(records(), "SendRequest() failed f0000001"),
                  reply.status != kRequestDone);
        for (const char* file : {"inside", "calls"})
            fs::remove(folder / file);
        fs::resize_file(kLog, 0);
        host.release(requestType);
    }
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
    replaceTool("lpinfo",
                "sleep .1; echo raw");  // looking for a driver takes longer than a stop may
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
        ASSERT_TRUE(waitUntil(
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
        ASSERT_TRUE(waitUntil([&] { return livingChildren().empty(); })) << livingChildren();
        fs::remove(moved);
    }
    std::cout << "longest stop: " << longest / 1ms << " ms\n";
}

// Start and end: options, records and exit codes.
using EntryTest = GuestTest;

TEST_F(EntryTest, OptionsAreReadFromLeftToRightUntilHelp) {
    const std::map<std::string, std::vector<std::string>> rows = {
        {"0", {"-l0 -h", "-l abc -h", "-l '' -h"}},
        {"1", {"-l 4294967297 -h", "-v -l 1 -h"}},
        {"2", {"-h", "-h -v", "-l 4 -h", "-l -1 -h", "-l 2x -h", "-x word -h"}},
        {"3", {"-v -h", "-l 3 -h", "-l 1 -v -h"}}};
    for (const auto& [level, lines] : rows)
        for (const std::string& options : lines) {
            int status = -1;
            EXPECT_EQ(sim::commandOutput("'" QNT_SERVICE "' " + options, &status),
                      "Quintaris Shared Printers Tool usage:\n " QNT_SERVICE
                      " [options]\nOptions:\n -h   : This help\n"
                      " -l   : Logging level [0, 3], default " +
                          level + "\n -v   : Verbose logging, set log level to 3\n")
                << options;
            EXPECT_EQ(status, 0);
        }
    EXPECT_THAT(records(), IsEmpty());
}

TEST_F(EntryTest, WithoutLpadminItEndsAlsoWithUnknownOptions) {
    startService({"-x", "-l"}, {{"PATH", folder / "bin"}});
    EXPECT_EQ(exitCode(), 0);
    EXPECT_THAT(records(), ElementsAre("starting . . .", "lpadmin not found in system",
                                       "CUPS not available. Will exit.", "closed, rc = 0"));
    EXPECT_THAT(contents(folder / "output"), HasSubstr("'x'"));
}

TEST_F(EntryTest, AStopSignalDuringTheCupsWaitHasItsDefaultEffect) {
    replaceTool("lpstat", "touch $folder/asked; exit 1");
    service.emplace(std::vector<std::string>{"env", "--ignore-signal=TERM,INT", QNT_SERVICE});
    EXPECT_TRUE(waitUntil([&] { return fs::exists(folder / "asked"); }));
    EXPECT_EQ(stopService(), 128 + SIGTERM);
    EXPECT_THAT(records(), ElementsAre("starting . . ."));
}

TEST_F(EntryTest, WithoutALinkItFails) {
    for (const bool hasDevice : {false, true}) {  // which refuses, so the backdoor is tried
        std::optional<sim::SimulatedHost> host;
        if (hasDevice)
            host.emplace().refuseLink();
        startService();
        EXPECT_EQ(exitCode(), 1);
        EXPECT_THAT(records(),
                    ElementsAre("starting . . .", "Could not open link to Open Kavelink: -5",
                                "closed, rc = 1"));
        fs::resize_file(kLog, 0);
    }
}

TEST_F(EntryTest, WithoutALinkOnTheDeviceStatusMessagesGoOverTheBackdoor) {
    sim::SimulatedHost host;
    host.hold(sim::kLinkCall);  // until the hypervisor takes the instruction
    // The leak sanitizer fails in a traced process.
    startService({},
                 {{"ASAN_OPTIONS", std::getenv("ASAN_OPTIONS") + std::string(":detect_leaks=0")}});
    const sim::Hypervisor hypervisor(service->pid(), host);
    EXPECT_TRUE(host.waitUntilIdle());
    EXPECT_EQ(stopService(), 0);
    std::vector<std::string> received;
    for (const sim::Exchange& exchange : host.exchanges(sim::kLinkCall))
        received.push_back(sim::describeRequest(exchange));
    EXPECT_THAT(received, ElementsAre("link probe", "backdoor probe",
                                      "backdoor message of 209 bytes, state 'initialized'",
                                      "backdoor message of 111 bytes, state 'stopped'"));
}

TEST_F(EntryTest, ItWorksWhateverItInheritsAndItsToolsInheritNoFiles) {
    sim::SimulatedHost host;
    addQueue("Office_Laser", "TAG1");
    host.setDefault("TAG1");
    // A shell that has waited for a command blocks no signal any more, so it reads its own
    // mask.
    replaceTool("lpstat",
                "{ while read -r name value; do case $name$value in SigBlk:*[1-9a-f]*) echo $name;"
                " esac; done </proc/$$/status; ls -l /proc/$$/fd; } >>$folder/inherited;"
                " exec $real \"$@\"");
    // Standard files, a blocked and an ignored signal, a pending alarm.
    const std::string closed =
        "exec <&- >&- 2>&-; exec perl -e 'alarm 1; exec @ARGV' '" QNT_SERVICE "' -l 2";
    service.emplace(std::vector<std::string>{"env", "--block-signal=INT", "--ignore-signal=CHLD",
                                             "sh", "-c", closed});
    ASSERT_TRUE(host.waitUntilIdle());
    expectDefault("Office_Laser");    // by a worker, which blocks the stop signals
    std::this_thread::sleep_for(1s);  // the alarm would have come
    service->signal(SIGINT);
    EXPECT_EQ(exitCode(), 0);
    EXPECT_THAT(host.statusMessages(),
                ElementsAre(documented("initialized"), documented("stopped")));
    // A worker whose request returns although it is cancelled writes the sixth record as well.
    EXPECT_EQ(
        sim::commandOutput("cut -c 20- " + std::string(kLog) + " | sed 's|:[0-9a-f:]*||' | uniq"),
        "F /qntspooler/ starting . . .\nI /qntspooler/ Open Kavelink link was opened.\n"
        "I /QntCCBase/ Opened /proc/driver/qnt_kl\n"
        "F /qntspooler/ Set default printer: 'TAG1'\nI /qntspooler/ Closing . . .\n"
        "I /qntspooler/ SendRequest() was canceled\n"
        "I /qntspooler/ Open Kavelink link was closed.\nF /qntspooler/ closed, rc = 0\n");
    const std::string inherited = contents(folder / "inherited");
    for (const char* own : {"qnt_kl", "quintaris.log", "SigBlk:"})
        EXPECT_EQ(inherited.find(own), std::string::npos) << inherited;
}

void someHandler(int) {}

// No hypervisor of this kind runs under the tests, so the real instruction faults.
TEST(BackdoorGuard, SurvivesTheFaultAndRestoresDispositionsAndMask) {
    std::signal(SIGILL, someHandler);
    std::signal(SIGSEGV, someHandler);
    for (const bool blocked : {false, true}) {
        sigset_t faults, before, after;
        sigemptyset(&faults);
        sigaddset(&faults, SIGILL);
        sigaddset(&faults, SIGSEGV);
        pthread_sigmask(blocked ? SIG_BLOCK : SIG_UNBLOCK, &faults, nullptr);
        pthread_sigmask(SIG_BLOCK, nullptr, &before);
        if (blocked)
            raise(SIGSEGV);  // pending when the probe unblocks it
        KavelinkLink link;
        EXPECT_EQ(kavelinkOpen(&link, kLinkBackdoorOnly), kLinkNotAvailable);
        EXPECT_EQ(link.state, kLinkStateClosed);
        pthread_sigmask(SIG_BLOCK, nullptr, &after);
        for (const int signal : {SIGILL, SIGSEGV})
            EXPECT_EQ(sigismember(&after, signal), sigismember(&before, signal));
        pthread_sigmask(SIG_UNBLOCK, &faults, nullptr);
    }
    EXPECT_EQ(std::signal(SIGILL, SIG_DFL), someHandler);
    EXPECT_EQ(std::signal(SIGSEGV, SIG_DFL), someHandler);
}

}  // namespace
}  // namespace qnt
