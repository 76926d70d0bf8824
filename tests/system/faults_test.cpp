// Failing surroundings of the unmodified service: what it logs meanwhile, and that it works again
// by itself afterwards.

#include <gmock/gmock.h>

#include "tests/support/fixture.h"

namespace qnt {
namespace {

using testing::Contains;

// While something fails the host sends an add, which fails with a record, waits, or is carried out.
enum class Add { kFails, kWaits, kIsDone };
struct Failure {
    const char* what;
    const char* script = "";  // happens to the tool; $CUPSD and $SERVICE are the processes
    const char* begin = ":";  // commands of bash in the test's folder
    const char* end = ":";
    Add add = Add::kFails;
    const char* record = "";
};

const Failure kFailures[] = {
    {.what = "cupsd dies in the middle of a command",
     .script = R"(kill -STOP $CUPSD; $real "$@" & sleep .1; kill -9 $CUPSD; wait $!; exit)",
     .record = "rc=256\n"},
    {.what = "cupsd is stopped",
     .begin = "kill -STOP $CUPSD",
     .end = "kill -CONT $CUPSD",
     .add = Add::kWaits},
    {.what = "lpadmin crashes", .script = "kill -SEGV $$", .record = "rc=35584\n"},
    {.what = "no shell can be started",
     .begin = "mount --bind /dev/null /bin/sh",
     .end = "umount /bin/sh",
     .record = "rc=32512\n"},
    {.what = "no descriptor is left",
     .begin = "prlimit -p $SERVICE -n3:99",
     .end = "prlimit -p $SERVICE -n99:99",
     .add = Add::kWaits},
    {.what = "the log's disk is full",
     .begin = "mount -t tmpfs -o size=16k log /var/log; ! yes >/var/log/filler && sleep 1.1",
     .end = "rm /var/log/filler",
     .add = Add::kIsDone},
};

// Ways in which CUPS does not answer; happens to lpstat.
const Failure kSilences[] = {
    {.what = "cupsd is killed", .begin = "kill -9 $CUPSD"},
    {.what = "cupsd is killed during a listing",
     .script = R"([ -n "$1" ] && { $real "$@" & kill -9 $CUPSD; wait $!; exit; })"},
    {.what = "cupsd is stopped", .begin = "kill -STOP $CUPSD", .end = "kill -CONT $CUPSD"},
    {.what = "400 connections are held",
     .begin = "setsid perl -MIO::Socket::UNIX -e 'for (1 .. 400) { push @s, IO::Socket::UNIX->new("
              "Peer => $ENV{CUPS_SERVER}, Blocking => 0, Timeout => 1) || last } "
              "print \"held\\n\"; close STDOUT; sleep 600' >held & echo $! >holder; "
              "until [ -s held ]; do sleep .1; done",
     .end = "kill $(cat holder); rm held"},
};

class Faults : public ServiceTest {
protected:
    std::string variables() const {
        return "CUPSD=" + std::to_string(guest().cups.pid()) +
               " SERVICE=" + std::to_string(service->pid()) + "; ";
    }
    void run(const std::string& command) {
        sim::Process bash({"bash", "-c", "cd " + folder.string() + "; " + variables() + command});
        EXPECT_EQ(bash.wait(kPatience), 0) << command;
    }
    static void startCupsWhereItIsGone() {
        if (sim::commandOutput("lpstat -r 2>&1") == "scheduler is running\n")
            return;
        guest().cups.kill();
        guest().cups.start();
    }
    void sendAdd(const std::string& id) {
        host.plug(id, "Desk " + id);
        host.send(sim::addPrinter(id));
    }
    void expectWorking(const std::string& id) {
        sendAdd(id);
        host.setDefault(id);
        expectDefault("Desk_" + id);
        EXPECT_TRUE(hasQueue("Desk_" + id, id));
        EXPECT_TRUE(waitForRecord("Set default printer: '" + id + "'\n"));
    }
};

TEST_F(Faults, AreSurvivedInOneRun) {
    replaceTool("lpadmin", "[ -e $folder/script ] && . $folder/script\nexec $real \"$@\"");
    startService();
    std::string id = "TAGa";
    for (const Failure& each : kFailures) {
        SCOPED_TRACE(each.what);
        fs::resize_file(kLog, 0);
        std::ofstream(folder / "script") << variables() << each.script << std::endl;
        run(each.begin);
        sendAdd(id);
        EXPECT_TRUE(waitForRecord(each.record));
        if (each.add == Add::kWaits)
            std::this_thread::sleep_for(1500ms);
        EXPECT_TRUE(each.add == Add::kWaits ? !host.isIdle() : host.waitUntilIdle());
        fs::remove(folder / "script");
        run(each.end);
        startCupsWhereItIsGone();
        EXPECT_TRUE(host.waitUntilIdle());
        EXPECT_EQ(hasQueue("Desk_" + id, id), each.add != Add::kFails);
        expectWorking(id + "x");
        ++id.back();
    }
    EXPECT_EQ(stopService(), 0);
    run("umount /var/log");
}

// QNT_ROUNDS sets how often each of them happens, and QNT_SECONDS how long it lasts.
TEST_F(Faults, NoQueueCountsAsDeletedWhileCupsDoesNotAnswer) {
    replaceTool("lpstat", "[ -e $folder/script ] && . $folder/script\nexec $real \"$@\"");
    addQueue("One", "TAG1");
    addQueue("Two", "TAG2");
    startService();
    ASSERT_TRUE(host.waitUntilIdle());
    for (const Failure& each : kSilences)
        for (int rounds = setting("QNT_ROUNDS", 1); rounds > 0; --rounds) {
            SCOPED_TRACE(each.what);
            std::ofstream(folder / "new script") << variables() << each.script << std::endl;
            fs::rename(folder / "new script", folder / "script");
            run(each.begin);
            std::this_thread::sleep_for(std::chrono::seconds(setting("QNT_SECONDS", 2)));
            run(each.end);
            fs::remove(folder / "script");
            startCupsWhereItIsGone();
            EXPECT_THAT(host.deletedPrinters(), testing::IsEmpty());
        }
    deleteQueue("One");
    EXPECT_TRUE(waitUntil([&] { return !host.deletedPrinters().empty(); }));
    std::this_thread::sleep_for(1500ms);  // longer than between two checks
    EXPECT_THAT(host.deletedPrinters(), testing::ElementsAre("TAG1"));
}

TEST_F(Faults, ExchangesThatFailAreRepeatedEachSecond) {
    for (const std::uint32_t request : {sim::kRunLoopRequest, +GetDefaultPrinter}) {
        for (const int error : {EINTR, EIO, ENODEV})
            host.answerNext(request, {.error = error});
        host.answerNext(request, {.status = kRequestCanceled});
    }
    startService();
    expectWorking("TAG1");
    EXPECT_THAT(records(), Contains("SendRequest() failed 0").Times(6));
    for (const std::uint32_t request : {GetPrintingCmd, GetDefaultPrinter}) {
        const auto asked = host.exchanges(request);
        for (std::size_t i = 1; i <= 4; ++i)
            EXPECT_GE(asked[i].when - asked[i - 1].when, 900ms);
    }
}

// Memory runs out: for a size that the host asks for, and for allocations of each thread.
class MemoryTest : public ServiceTest {
protected:
    void SetUp() override {
        if (QNT_SANITIZED)
            GTEST_SKIP() << "allocations are the sanitizer's";
        startPreloaded({{"QNT_NO_MEMORY", none}});
        ASSERT_TRUE(host.waitUntilIdle());
    }
    void expectFailedStep(const std::string& record) {
        EXPECT_EQ(exitCode(), 1) << contents(folder / "output");
        EXPECT_THAT(records(), Contains(record));
        EXPECT_THAT(records(), Contains("Error in state machine execution"));
        EXPECT_EQ(sim::statusState(host.statusMessages().back()), "stopped");
    }

    const std::string id = "TAG" + std::string(100, '1');
    const fs::path none = folder / "none";  // lets allocations fail
};

TEST_F(MemoryTest, ADefaultIsAppliedOnceThereIsMemory) {
    const std::string other = "TAG" + std::string(200, '2');
    host.setDefault(id);
    ASSERT_TRUE(waitUntil([&] { return host.exchanges(GetDefaultPrinter).size() == 3; }));
    addQueue("Office", id);
    addQueue("Lab", other);
    std::ofstream(none).flush();
    host.answerNext(sim::kRunLoopRequest, sim::askFor(100));
    EXPECT_TRUE(waitForRecord("Not enough memory for setDefaultPrinter\n"));
    expectDefault("Office");  // by the run loop
    host.setDefault(other);
    EXPECT_TRUE(waitForRecord("Not enough memory for defaultPrinterLoop\n"));
    EXPECT_TRUE(waitForRecord("Not enough memory for deletedPrintersLoop\n"));
    fs::remove(none);
    expectDefault("Lab");  // by a worker
    EXPECT_EQ(stopService(), 0);
}

TEST_F(MemoryTest, TheRunLoopEndsAtAStepWithoutMemory) {
    std::ofstream(none).flush();
    host.send(sim::deletePrinter(id));
    expectFailedStep("Not enough memory for executeStateMachine");
}

TEST_F(MemoryTest, ASizeThatTheHostAsksForCostsNothingUntilFilledOrIsTooLarge) {
    constexpr std::uint32_t kGiB = 1U << 30, kLarge = 3 * kGiB;
    for (const std::uint32_t size : {kGiB, kGiB + 1, kGiB + 8192})
        for (const std::uint32_t request : {sim::kRunLoopRequest, +GetDefaultPrinter})
            host.answerNext(request, sim::askFor(size));
    host.answerNext(GetDefaultPrinter, sim::askFor(200));
    ASSERT_TRUE(
        waitUntil([&] { return host.isIdle() && host.exchanges(GetDefaultPrinter).size() == 5; }));
    const std::string status = contents("/proc/" + std::to_string(service->pid()) + "/status");
    EXPECT_LT(std::stoi(status.substr(status.find("VmHWM:") + 6)), 64 * 1024);
    const std::string limit = "prlimit -p " + std::to_string(service->pid()) + " --as=";
    sim::commandOutput(limit + "1000000000:");
    host.answerNext(GetDefaultPrinter, sim::askFor(kLarge));
    EXPECT_TRUE(waitForRecord("Not enough memory for defaultPrinterLoop\n"));
    host.answerNext(sim::kRunLoopRequest, sim::askFor(kLarge));
    expectFailedStep("[PRINTING_TOOL] Not enough memory for processAnswerFromHost");
}

}  // namespace
}  // namespace qnt
