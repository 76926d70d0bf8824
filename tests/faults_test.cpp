// Broken surroundings, one after the other in a single life of the unmodified service: what it
// records while something is broken, and that it is back at work by itself once that is mended.

#include <sys/mount.h>
#include <sys/resource.h>

#include "sim/service_fixture.h"

namespace qnt {
namespace {

using sim::Fault;

class Faults : public ServiceTest {
protected:
    // While it is broken the host sends an add, of which there is a record, or which waits.
    enum class Add { kFails, kSucceeds };
    struct Row {
        std::string what;
        std::function<void()> breaks;
        std::function<void()> mends;
        std::string record;
        Add add;
    };

    ~Faults() override {
        for (const char* place : m_covered)
            umount(place);
    }

    static std::function<void()> signalCups(int number) {
        return [number] { kill(guest.cups->pid(), number); };
    }
    static void restartCups() {
        guest.cups->kill();
        guest.cups->start();
    }
    std::function<void()> lpadmin(const std::string& script) {
        return [this, script] { standIn("lpadmin", script); };
    }
    std::function<void()> limitFiles(rlim_t number) {
        return [this, number] {
            const rlimit limit{number, 1024};
            EXPECT_EQ(prlimit(service->pid(), RLIMIT_NOFILE, &limit, nullptr), 0);
        };
    }
    std::function<void()> failWrites(std::uint32_t error) {
        return [this, error] {
            for (const std::uint32_t request : {sim::kRunLoopRequest, +GetDefaultPrinter})
                host.fault(request, {Fault::Kind::kWriteError, error, {}});
        };
    }
    void cover(const char* place, const fs::path& file, unsigned long flags, const char* options) {
        ASSERT_EQ(mount(file.c_str(), place, "tmpfs", flags, options), 0);
        m_covered.push_back(place);
    }
    void fillLogFolder() {
        cover("/var/log", "log", 0, "size=16k");
        std::ofstream("/var/log/filler") << std::string(1 << 20, 'x');
    }
    // The user's home is the fixture's folder.
    void lockLogFolder() {
        std::ofstream(folder / "passwd") << "root:x:0:0::" << folder.string() << ":\n";
        cover("/etc/passwd", folder / "passwd", MS_BIND, nullptr);
        cover("/var/log", "log", MS_RDONLY, nullptr);
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
    void meet(const Row& row, const std::string& id) {
        SCOPED_TRACE(row.what);
        fs::resize_file(kLog, 0);
        row.breaks();
        sendAdd(id);
        if (row.record.empty())
            std::this_thread::sleep_for(1500ms);
        EXPECT_TRUE(logs(row.record));
        row.mends();
        EXPECT_TRUE(isIdle());
        EXPECT_EQ(hasQueue("Desk_" + id, id), row.add == Add::kSucceeds);
        expectAtWork(id + "x");
    }

private:
    std::vector<const char*> m_covered;
};

TEST_F(Faults, AreOutlivedAllInOneLife) {
    const auto nothing = [] {};
    const auto realLpadmin = [&] { fs::remove(folder / "bin/lpadmin"); };
    const auto realLpadminAndCups = [&] {
        realLpadmin();
        restartCups();
    };
    const std::string cups = std::to_string(guest.cups->pid());
    const std::string real = "exec $real \"$@\"";
    const std::string asked = "addPrinter: id=", unsent = "SendRequest() failed 0\n";
    const Row rows[] = {
        {"cupsd dies in the middle of a command", lpadmin("kill -9 " + cups + ';' + real),
         realLpadminAndCups, "rc=256\n", Add::kFails},
        {"cupsd is gone", signalCups(SIGKILL), restartCups, "rc=256\n", Add::kFails},
        {"cupsd is frozen", signalCups(SIGSTOP), signalCups(SIGCONT), "", Add::kSucceeds},
        {"lpadmin fails", lpadmin("exit 3"), realLpadmin, "rc=768\n", Add::kFails},
        {"lpadmin crashes", lpadmin("kill -SEGV $$"), realLpadmin, "rc=35584\n", Add::kFails},
        {"lpadmin hangs", lpadmin("sleep 3;" + real), realLpadmin, "", Add::kSucceeds},
#if !QNT_SANITIZED  // there posix_spawn() is the sanitizer's
        {"no process can be had", [&] { std::ofstream(folder / "none").flush(); },
         [&] { fs::remove(folder / "none"); }, "rc=32512\n", Add::kFails},
#endif
        {"no descriptor is left", limitFiles(3), limitFiles(1024), asked, Add::kSucceeds},
        {"the host's driver says EINTR", failWrites(EINTR), nothing, unsent, Add::kSucceeds},
        {"the host's driver says EIO", failWrites(EIO), nothing, unsent, Add::kSucceeds},
        {"the host's driver says ENODEV", failWrites(ENODEV), nothing, unsent, Add::kSucceeds},
        {"the log's disk is full", [&] { fillLogFolder(); }, [] { fs::remove("/var/log/filler"); },
         "", Add::kSucceeds},
        {"the log's folder is locked", [&] { lockLogFolder(); }, nothing, asked, Add::kSucceeds},
    };
    startService({}, {{"LD_PRELOAD", QNT_LIMITS}, {"QNT_NO_PROCESS", folder / "none"}});
    std::string id = "TAGa";
    for (const Row& row : rows) {
        meet(row, id);
        ++id.back();
    }
    EXPECT_EQ(stopService(), 0);
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
