// A user of the guest without rights, who may create temporary queues with any name and any device
// URI, against the unmodified service, with the policy of the packaged CUPS.

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <sys/socket.h>

#include <list>

#include "posix/unique_fd.h"
#include "tests/support/fixture.h"

namespace qnt {
namespace {

using testing::HasSubstr;
using testing::IsEmpty;

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

// Sends standard input to CUPS as a user without rights, and ends when CUPS has answered.
constexpr char kSendAsNobody[] =
    "exec setpriv --reuid=nobody --regid=nogroup --clear-groups perl -MIO::Socket::UNIX -e '"
    "$cups = IO::Socket::UNIX->new($ENV{CUPS_SERVER}); print $cups <STDIN>; $cups->flush;"
    "exit(<$cups> !~ m,^HTTP/1.1 200,)' <";

class LocalUserTest : public ServiceTest {
protected:
    LocalUserTest() {
        fs::permissions(guest().folder, fs::perms::others_exec, fs::perm_options::add);
        // Later releases of CUPS delete a queue whose device can't be reached.
        sockaddr_in address{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
        socklen_t size = sizeof address;
        bind(device.get(), reinterpret_cast<sockaddr*>(&address), size);
        listen(device.get(), 100);
        getsockname(device.get(), reinterpret_cast<sockaddr*>(&address), &size);
        uri = "://127.0.0.1:" + std::to_string(ntohs(address.sin_port)) + "/x";
        // Root's own queue, and what the host expects of the service.
        sim::commandOutput("lpadmin -p Payroll -E -v socket://10.0.0.9");
        host.setDefault("TAG1001");
        replaceTool("lpinfo", "echo raw");  // a queue without a driver, which is quicker
        startService();
        sharePrinter("TAG1001", "Office Laser");
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
        const std::string file = folder / "request";
        std::ofstream(file) << creationRequest(name, scheme + uri + more);
        // Later releases of CUPS answer after they have tried to reach the device for two minutes.
        sim::Process& user =
            users.emplace_back(std::vector<std::string>{"sh", "-c", kSendAsNobody + file});
        const auto hasAnswer = [&] { return user.wait(0ms).has_value(); };
        EXPECT_TRUE(eventually([&] { return hasAnswer() || isListed(); }));
        EXPECT_EQ(user.wait(0ms).value_or(0), 0);
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
        const auto after = [&](const sim::HostCommand& command) {
            createQueue();
            carryOut(command);
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
        carryOut(sim::addPrinter("TAG1001"));  // under its first name, then renamed
        expectOnlyTheHostsPrinter(name);
        std::this_thread::sleep_for(std::chrono::seconds(waitSeconds));
        expectOnlyTheHostsPrinter(name);
        EXPECT_TRUE(host.waitUntilIdle());
    }

    const UniqueFd device{socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)};
    std::string uri;
    std::list<sim::Process> users;
    // QNT_WAIT: as long as CUPS needs to delete the user's queue.
    const int waitSeconds = setting("QNT_WAIT", 0);
};

TEST_F(LocalUserTest, ATemporaryQueueWithAHostPrintersIdIsNotItsQueue) {
    for (const std::string name : {"Aaa", "zzz"}) {  // listed first, listed last
        SCOPED_TRACE(name);
        expectUnimpressed([&] { createTemporary(name, "usb", "?serial=TAG1001"); });
        host.rename("TAG1001", "Office Laser");
        carryOut(sim::printerList(host.printers()));
    }
    createTemporary("lone", "usb", "?serial=TAG9");
    host.setDefault("TAG9");
    carryOut(sim::deleteOffline());
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
    carryOut(sim::deletePrinter("TAG1001"));
    EXPECT_THAT(sim::commandOutput("lpstat -v"), HasSubstr("for Payroll: socket://10.0.0.9\n"));
    EXPECT_FALSE(hasQueue("Front_Desk", "TAG1001"));
}

TEST_F(LocalUserTest, AHostPrinterWithTheNameOfATemporaryQueueStays) {
    createTemporary("Second", "ipp", "");
    host.plug("TAG2", "Second");
    const std::size_t results = host.results().size();
    host.send(sim::addPrinter("TAG2"));
    const auto isRefused = [] {
        return contents(kLog).find("Failed add printer 'TAG2'") != std::string::npos;
    };
    ASSERT_TRUE(host.waitUntil([&] { return host.results().size() > results || isRefused(); }));
    if (isRefused()) {  // later releases do while they try to reach the device of the user's queue
        EXPECT_NE(std::system("lpadmin -p Second -L x 2>&-"), 0);
        return;
    }
    EXPECT_THAT(sim::commandOutput("lpoptions -p Second"),
                HasSubstr(" printer-is-temporary=false "));
    std::this_thread::sleep_for(std::chrono::seconds(waitSeconds));
    guest().cups->stop();
    guest().cups->start();
    EXPECT_TRUE(hasQueue("Second", "TAG2"));
    EXPECT_THAT(host.deletedPrinters(), IsEmpty());
}

}  // namespace
}  // namespace qnt
