// A user of the guest without rights, who may create temporary queues with any name and any device
// URI, against the unmodified service, with the policy of the packaged CUPS.

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <grp.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>

#include "posix/unique_fd.h"
#include "tests/support/fixture.h"

namespace qnt {
namespace {

using testing::Contains;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr uid_t kNobody = 65534;

// RFC 8010: each attribute has a tag, a name and a value, each text with its length in two bytes.
std::string attribute(char tag, const std::string& name, const std::string& value) {
    const auto sized = [](const std::string& text) {
        return std::string{static_cast<char>(text.size() >> 8), static_cast<char>(text.size())} +
               text;
    };
    return tag + sized(name) + sized(value);
}

// The operation CUPS-Create-Local-Printer, in HTTP.
std::string creationRequest(const std::string& name, const std::string& uri) {
    const std::string body =
        std::string("\2\0\x40\x28\0\0\0\1\1", 9) + attribute(0x47, "attributes-charset", "utf-8") +
        attribute(0x48, "attributes-natural-language", "en") +
        attribute(0x45, "printer-uri", "ipp://localhost/") + '\4' +
        attribute(0x42, "printer-name", name) + attribute(0x45, "device-uri", uri) + '\3';
    return "POST / HTTP/1.1\r\nHost: localhost\r\nContent-Type: application/ipp\r\n"
           "Connection: close\r\nContent-Length: " +
           std::to_string(body.size()) + "\r\n\r\n" + body;
}

// Sends the bytes to CUPS as the user nobody, in a child that ends when CUPS has answered. Later
// releases of CUPS answer after they have tried to reach the device, for two minutes.
pid_t sendAsNobody(const std::string& bytes) {
    const pid_t child = fork();
    if (child == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        sockaddr_un address{AF_UNIX, ""};
        guest.cups->socketPath().copy(address.sun_path, sizeof address.sun_path - 1);
        const int cups = socket(AF_UNIX, SOCK_STREAM, 0);
        char answer[4096];
        const bool sent =
            setgroups(0, nullptr) == 0 && setgid(kNobody) == 0 && setuid(kNobody) == 0 &&
            connect(cups, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
            write(cups, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size()) &&
            read(cups, answer, sizeof answer) > 0;
        _exit(sent ? 0 : 1);
    }
    return child;
}

class LocalUserTest : public ServiceTest {
protected:
    LocalUserTest() {
        fs::permissions(guest.folder, fs::perms::others_exec, fs::perm_options::add);
        // Later releases of CUPS delete a queue whose device can't be reached.
        sockaddr_in address{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
        socklen_t size = sizeof address;
        bind(device.get(), reinterpret_cast<sockaddr*>(&address), size);
        listen(device.get(), 100);
        getsockname(device.get(), reinterpret_cast<sockaddr*>(&address), &size);
        uri = "://127.0.0.1:" + std::to_string(ntohs(address.sin_port)) + "/x";
        // Root's own queue, and what the host expects of the service.
        sim::commandOutput("lpadmin -p Payroll -E -v socket://10.0.0.9");
        host.plug("TAG1001", "Office Laser");
        host.setDefault("TAG1001");
        standIn("lpinfo", "echo raw");  // a queue without a driver, which is quicker
        startService();
        command(sim::addPrinter("TAG1001"));
        command(sim::printerList(host.printers()));
    }

    // Creates a temporary queue, if it is not there any more, whose line in the listing is followed
    // by `more`.
    void createTemporary(const std::string& name, const std::string& scheme,
                         const std::string& more) {
        const auto isListed = [&] {
            return sim::commandOutput("lpstat -v").find("device for " + name + ": ") !=
                   std::string::npos;
        };
        if (isListed())
            return;
        const pid_t user = sendAsNobody(creationRequest(name, scheme + uri + more));
        int status = -1;
        EXPECT_TRUE(
            eventually([&] { return waitpid(user, &status, WNOHANG) == user || isListed(); }));
        EXPECT_TRUE(status == -1 || status == 0);
    }
    void command(const sim::HostCommand& sent) {
        host.send(sent);
        ASSERT_TRUE(hasResults(++commands));
    }
    void expectOnlyTheHostsPrinter(const std::string& name) {
        EXPECT_TRUE(hasQueue(name, "TAG1001")) << sim::commandOutput("lpstat -v");
        expectDefault(name);
        EXPECT_THAT(sim::commandOutput("lpstat -v"),
                    HasSubstr("device for Payroll: socket://10.0.0.9\n"));
        EXPECT_THAT(host.deletedPrinters(), IsEmpty());
    }
    // Lets the host send each kind of command while the user's queue is there.
    void expectUnimpressed(const std::function<void()>& createQueue) {
        std::string name = "Office_Laser";
        const auto after = [&](const sim::HostCommand& sent) {
            createQueue();
            command(sent);
            expectOnlyTheHostsPrinter(name);
        };
        after(sim::deleteOffline());
        host.setDefault("");  // which any printer may be
        host.setDefault("TAG1001");
        after(sim::deleteOffline());
        name = "Front_Desk";
        host.rename("TAG1001", "Front Desk");
        after(sim::printerList(host.printers()));
        createQueue();
        command(sim::addPrinter("TAG1001"));  // under its first name, then renamed
        expectOnlyTheHostsPrinter(name);
        std::this_thread::sleep_for(std::chrono::seconds(waitSeconds));
        expectOnlyTheHostsPrinter(name);
        EXPECT_TRUE(isIdle());
    }

    const UniqueFd device{socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)};
    std::string uri;
    std::size_t commands = 0;
    // QNT_WAIT: as long as CUPS needs to delete the user's queue.
    const int waitSeconds = std::getenv("QNT_WAIT") ? std::atoi(std::getenv("QNT_WAIT")) : 0;
};

TEST_F(LocalUserTest, ATemporaryQueueWithAHostPrintersIdIsNotItsQueue) {
    for (const std::string name : {"Aaa", "zzz"}) {  // listed first, listed last
        SCOPED_TRACE(name);
        expectUnimpressed([&] { createTemporary(name, "usb", "?serial=TAG1001"); });
        host.rename("TAG1001", "Office Laser");
        command(sim::printerList(host.printers()));
    }
    createTemporary("lone", "usb", "?serial=TAG9");
    host.setDefault("TAG9");
    command(sim::deleteOffline());
    EXPECT_TRUE(isDefault("Office_Laser"));
    sim::commandOutput("lpadmin -x lone");
    std::this_thread::sleep_for(1500ms);  // longer than between two checks
    EXPECT_THAT(host.deletedPrinters(), IsEmpty());
}

TEST_F(LocalUserTest, AForgedLineDoesNotChangeAnotherQueue) {
    const auto forge = [&] {
        createTemporary("zz", "ipp", "\ndevice for Payroll: usb:=TAG1001");
        createTemporary("Aa", "ipp", "\ndevice for Front_Desk: usb:=TAG77");
    };
    expectUnimpressed(forge);
    forge();
    command(sim::deletePrinter("TAG1001"));
    EXPECT_THAT(sim::commandOutput("lpstat -v"), HasSubstr("for Payroll: socket://10.0.0.9\n"));
    EXPECT_FALSE(hasQueue("Front_Desk", "TAG1001"));
}

TEST_F(LocalUserTest, AHostPrinterWithTheNameOfATemporaryQueueStays) {
    createTemporary("Second", "ipp", "");
    host.plug("TAG2", "Second");
    host.send(sim::addPrinter("TAG2"));
    const auto isRefused = [] {
        return contents(kLog).find("Failed add printer 'TAG2'") != std::string::npos;
    };
    ASSERT_TRUE(host.waitUntil([&] { return host.results().size() > commands || isRefused(); }));
    if (isRefused()) {  // later releases do while they try to reach the device of the user's queue
        EXPECT_NE(std::system("lpadmin -p Second -L x 2>&-"), 0);
        return;
    }
    EXPECT_THAT(sim::commandOutput("lpoptions -p Second"),
                HasSubstr(" printer-is-temporary=false "));
    std::this_thread::sleep_for(std::chrono::seconds(waitSeconds));
    guest.cups->stop();
    guest.cups->start();
    EXPECT_TRUE(hasQueue("Second", "TAG2"));
    EXPECT_THAT(host.deletedPrinters(), IsEmpty());
}

}  // namespace
}  // namespace qnt
