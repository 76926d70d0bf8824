// Broken surroundings, one after the other in a single life of the unmodified service: what it
// records while something is broken, and that it is back at work by itself once that is mended.

#include <gmock/gmock.h>

#include "sim/service_fixture.h"

namespace qnt {
namespace {

using testing::Contains;

// Shell commands break and mend; what is in the file "script" happens to lpadmin. While it is
// broken the host sends an add, which leaves a record, or none yet, and a queue or none.
struct Break {
    const char* what;
    const char* breaks;
    const char* mends;
    const char* record;
    bool queue;
};

const Break kBreaks[] = {
    {"cupsd dies in the middle of a command", "echo kill -9 $CUPSD >script", "rm script",
     "rc=256\n", false},
    {"cupsd is gone", "kill -9 $CUPSD", ":", "rc=256\n", false},
    {"cupsd is frozen", "kill -STOP $CUPSD", "kill -CONT $CUPSD", "", true},
    {"lpadmin fails", "echo exit 3 >script", "rm script", "rc=768\n", false},
    {"lpadmin crashes", "echo 'kill -SEGV $$' >script", "rm script", "rc=35584\n", false},
    {"lpadmin hangs", "echo sleep 3 >script", "rm script", "", true},
#if !QNT_SANITIZED  // there posix_spawn() is the sanitizer's
    {"no process can be had", "touch none", "rm none", "rc=32512\n", false},
#endif
    {"no descriptor is left", "prlimit -p $SERVICE -n3:99", "prlimit -p $SERVICE -n99:99",
     "addPrinter: id=", true},
    {"the log's disk is full", "mount -t tmpfs -o size=16k log /var/log; yes >/var/log/filler",
     "rm /var/log/filler", "", true},
    {"the log's folder is locked",
     "echo root:x:0:0::$PWD: >passwd; mount --bind passwd /etc/passwd;"
     "mount -t tmpfs -o ro log /var/log",
     ":", "addPrinter: id=", true},
};

class Faults : public ServiceTest {
protected:
    void run(const std::string& command) {
        const std::string variables = "cd " + folder.string() +
                                      " && CUPSD=" + std::to_string(guest.cups->pid()) +
                                      " SERVICE=" + std::to_string(service->pid()) + "; ";
        sim::commandOutput(variables + command + " 2>&-");
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
    startService({}, {{"LD_PRELOAD", QNT_LIMITS}, {"QNT_NO_PROCESS", folder / "none"}});
    std::string id = "TAGa";
    for (const Break& each : kBreaks) {
        SCOPED_TRACE(each.what);
        fs::resize_file(kLog, 0);
        run(each.breaks);
        sendAdd(id);
        if (*each.record == '\0')
            std::this_thread::sleep_for(1500ms);
        EXPECT_TRUE(logs(each.record));
        run(each.mends);
        startCupsWhereItIsGone();
        EXPECT_TRUE(isIdle());
        EXPECT_EQ(hasQueue("Desk_" + id, id), each.queue);
        expectAtWork(id + "x");
        ++id.back();
    }
    EXPECT_EQ(stopService(), 0);
    run("umount /var/log /var/log /etc/passwd");
}

TEST_F(Faults, ExchangesThatFailAreRepeatedEachSecond) {
    using Fault = sim::Fault;
    for (const std::uint32_t request : {sim::kRunLoopRequest, +GetDefaultPrinter}) {
        for (const std::uint32_t error : {EINTR, EIO, ENODEV})
            host.fault(request, {Fault::Kind::kWriteError, error, {}});
        host.fault(request, {Fault::Kind::kCancel, 0, {}});
    }
    startService();
    expectAtWork("TAG1");
    EXPECT_THAT(records(), Contains("SendRequest() failed 0").Times(6));
    EXPECT_THAT(records(), Contains("SendRequest() was canceled").Times(2));
    for (const std::uint32_t request : {GetPrintingCmd, GetDefaultPrinter}) {
        const auto asked = host.exchanges(request);
        for (std::size_t i = 1; i <= 4; ++i)
            EXPECT_GE(asked[i].when - asked[i - 1].when, 1s);
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
