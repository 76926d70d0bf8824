// Broken surroundings, one after the other in a single life of the unmodified service: what it
// records while something is broken, and that it is back at work by itself once that is mended.

#include <gmock/gmock.h>

#include "tests/support/fixture.h"

namespace qnt {
namespace {

using testing::Contains;

// Shell commands break and mend; what is in the file "script" happens to lpadmin. While it is
// broken the host sends an add, which fails with a record, waits until it is mended, or goes on.
enum class Add { kFails, kWaits, kGoesOn };
struct Break {
    const char* what;
    const char* breaks;
    const char* mends;
    Add add;
    const char* record = "";
};

const Break kBreaks[] = {
    {"cupsd dies in the middle of a command",
     "echo \"\\$real \\\"\\$@\\\" & sleep .05; kill -9 $CUPSD; wait \\$!; exit\" >script",
     "rm script", Add::kFails, "rc=256\n"},
    {"cupsd is gone", "kill -9 $CUPSD", ":", Add::kFails, "rc=256\n"},
    {"cupsd is frozen", "kill -STOP $CUPSD", "kill -CONT $CUPSD", Add::kWaits},
    {"lpadmin fails", "echo exit 3 >script", "rm script", Add::kFails, "rc=768\n"},
    {"lpadmin crashes", "echo 'kill -SEGV $$' >script", "rm script", Add::kFails, "rc=35584\n"},
    {"lpadmin hangs", "echo sleep 3 >script", "rm script", Add::kWaits},
#if !QNT_SANITIZED  // there posix_spawn() is the sanitizer's
    {"no process can be had", "touch none", "rm none", Add::kFails, "rc=32512\n"},
#endif
    {"no descriptor is left", "prlimit -p $SERVICE -n3:99", "prlimit -p $SERVICE -n99:99",
     Add::kWaits},
    {"the log's disk is full",
     "mount -t tmpfs -o size=16k log /var/log; ! yes >/var/log/filler && sleep 1.1",
     "rm /var/log/filler", Add::kGoesOn},
    {"the log's folder is locked",
     "echo root:x:0:0::$PWD: >passwd; mount --bind passwd /etc/passwd;"
     "mount -t tmpfs -o ro log /var/log; sleep 1.1",
     ":", Add::kGoesOn, "addPrinter: id="},
};

class Faults : public ServiceTest {
protected:
    void run(const std::string& command) {
        const std::string variables = "cd " + folder.string() +
                                      " && CUPSD=" + std::to_string(guest.cups->pid()) +
                                      " SERVICE=" + std::to_string(service->pid()) + "; ";
        int status = 1;
        sim::commandOutput(variables + command + " 2>&-", &status);
        EXPECT_EQ(status, 0) << command;
    }
    static void startCupsWhereItIsGone() {
        if (sim::commandOutput("lpstat -r 2>&1") == "scheduler is running\n")
            return;
        guest.cups->kill();
        guest.cups->start();
    }
    bool logs(const std::string& text) const {
        return eventually([&] {
            return (contents(kLog) + contents(folder / ".quintaris/quintaris.log")).find(text) !=
                   std::string::npos;
        });
    }
    void sendAdd(const std::string& id) {
        host.plug(id, "Desk " + id);
        host.send(sim::addPrinter(id));
    }
    void expectAtWork(const std::string& id) {
        sendAdd(id);
        host.setDefault(id);
        expectDefault("Desk_" + id);
        EXPECT_TRUE(hasQueue("Desk_" + id, id));
        EXPECT_TRUE(logs("Set default printer: '" + id + "'\n"));
    }
};

TEST_F(Faults, AreOutlivedAllInOneLife) {
    standIn("lpadmin", "[ -e $folder/script ] && . $folder/script\nexec $real \"$@\"");
    startPreloaded({{"QNT_NO_PROCESS", folder / "none"}});
    std::string id = "TAGa";
    for (const Break& each : kBreaks) {
        SCOPED_TRACE(each.what);
        fs::resize_file(kLog, 0);
        run(each.breaks);
        sendAdd(id);
        EXPECT_TRUE(logs(each.record));
        if (each.add == Add::kWaits)
            std::this_thread::sleep_for(1500ms);
        EXPECT_EQ(each.add == Add::kWaits ? host.isIdle() : isIdle(), each.add != Add::kWaits);
        run(each.mends);
        startCupsWhereItIsGone();
        EXPECT_TRUE(isIdle());
        EXPECT_EQ(hasQueue("Desk_" + id, id), each.add != Add::kFails);
        expectAtWork(id + "x");
        ++id.back();
    }
    EXPECT_EQ(stopService(), 0);
    run("umount /var/log /var/log /etc/passwd");
}

TEST_F(Faults, ExchangesThatFailAreRepeatedEachSecond) {
    using Fault = sim::Fault;
    for (const std::uint32_t request : {sim::kRunLoopRequest, +GetDefaultPrinter}) {
        for (const int error : {EINTR, EIO, ENODEV})
            host.fault(request, {Fault::Kind::kWriteError, static_cast<std::uint32_t>(error), {}});
        host.fault(request, {Fault::Kind::kCancel, 0, {}});
    }
    addQueue("Old", "TAG8");
    host.fault(UserDeletedPrinters, {Fault::Kind::kWriteError, EIO, {}});
    startService();
    ASSERT_TRUE(host.waitUntil([&] { return !host.exchanges(GetPrintingCmd).empty(); }));
    sim::commandOutput("lpadmin -x Old");
    expectAtWork("TAG1");
    EXPECT_THAT(records(), Contains("SendRequest() failed 0").Times(7));
    EXPECT_THAT(host.exchanges(UserDeletedPrinters), testing::SizeIs(1));  // it is not repeated
    EXPECT_THAT(records(), Contains("SendRequest() was canceled").Times(testing::Ge(2)));
    for (const std::uint32_t request : {GetPrintingCmd, GetDefaultPrinter}) {
        const auto asked = host.exchanges(request);
        for (std::size_t i = 1; i <= 4; ++i)
            EXPECT_GE(asked[i].when - asked[i - 1].when, 900ms);
    }
}

// The driver that the service falls back to is the one that CUPS has.
TEST_F(Faults, WithoutLpinfoTheFixedDriverIsTaken) {
    for (const char* tool : {"lpadmin", "lpstat", "sed", "fgrep", "grep", "head", "cut"})
        standIn(tool, "exec $real \"$@\"");
    startService({}, {{"PATH", folder / "bin"}});
    expectAtWork("TAG1");
}

}  // namespace
}  // namespace qnt
