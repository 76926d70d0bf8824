// A host, the guest's user and one without rights who act at random, on the unmodified service and
// a real CUPS with the policy of the package. Every local user may create temporary queues with any
// name and any device URI.

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <sys/socket.h>

#include <algorithm>
#include <cctype>
#include <list>
#include <random>
#include <regex>

#include "cups/printer_names.h"
#include "posix/unique_fd.h"
#include "tests/support/fixture.h"

namespace qnt {
namespace {

using testing::Contains;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;
using testing::UnorderedElementsAreArray;

// Ids and names that are easily mixed up, or that the tools of CUPS take for something else.
const std::vector<std::string> kIds = {"TAG1", "TAG10", "TAG100", "TAG2", "TAG.", "TAG-x"};
const std::vector<std::string> kNames = {"Lab",     "lab 2", "Lab,lab",    "all",
                                         "Bob's 1", "B#",    "B\u00fc ro", "Front Desk"};

// A printer that the host has shared, and what the guest should have of it.
struct Printer {
    std::string id, name;
    bool hasQueue = true, isPlugged = true, isEnabled = true, isReported = false;
    std::string queueName() const { return acceptedQueueName(queueNameFor(name)); }
};

class WalkTest : public ServiceTest {
protected:
    WalkTest() {
        for (const fs::path& each : {guest().folder.path, folder})
            fs::permissions(each, fs::perms::others_exec, fs::perm_options::add);
        // A thread of CUPS 2.4.2 that waits for a device crashes when its queue is deleted. Later
        // releases delete a queue whose device can't be reached.
        sockaddr_in address{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
        socklen_t size = sizeof address;
        bind(device.get(), reinterpret_cast<sockaddr*>(&address), size);
        if (sim::commandOutput("ipptool --version") != "CUPS v2.4.2\n")
            listen(device.get(), 100);
        getsockname(device.get(), reinterpret_cast<sockaddr*>(&address), &size);
        uri = "://127.0.0.1:" + std::to_string(ntohs(address.sin_port)) + "/x";
        replaceTool("lpinfo", "echo raw");  // a queue without a driver, which is quicker
        sim::commandOutput("lpadmin -p Own -E -v ipp://printer.example/ipp; lpadmin -d Own");
        start();
    }
    ~WalkTest() override {
        service.reset();
        guest().cups.kill();  // a thread of it may still wait for the device, which closes
        guest().cups.start();
    }
    void start() {
        startPreloaded({{"QNT_SECOND", "200"}}, {"-v"});
        EXPECT_TRUE(host.waitUntilIdle());
    }

    std::size_t below(std::size_t limit) { return random() % limit; }
    std::string anyId() { return kIds[below(kIds.size())]; }
    std::string unusedName() {
        const std::string name = kNames[below(kNames.size())];
        const bool isUsed = std::ranges::any_of(
            printers, [&](const Printer& printer) { return areSameQueue(printer.name, name); });
        return isUsed ? unusedName() : name;
    }
    Printer* find(const std::string& id) {
        const auto found = std::ranges::find(printers, id, &Printer::id);
        return found == printers.end() ? nullptr : &*found;
    }
    // Acts on any printer that has a queue.
    void withAnyQueue(const std::function<void(Printer&)>& act) {
        std::ranges::shuffle(printers, random);
        const auto found = std::ranges::find(printers, true, &Printer::hasQueue);
        if (found != printers.end())
            act(*found);
    }
    // Waits until those that count as deleted are reported. The host removes them from its list.
    void expectReports() {
        for (const Printer& printer : printers)
            if (printer.isReported)
                reported.push_back(printer.id);
        std::erase_if(printers, [](const Printer& printer) { return printer.isReported; });
        EXPECT_TRUE(waitUntil([&] { return host.deletedPrinters().size() >= reported.size(); }));
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
        std::ofstream(folder / "request")
            << "{ OPERATION CUPS-Create-Local-Printer GROUP operation-attributes-tag "
               "ATTR charset attributes-charset utf-8 "
               "ATTR naturalLanguage attributes-natural-language en "
               "ATTR uri printer-uri \"ipp://localhost/\" GROUP printer-attributes-tag "
               "ATTR name printer-name \"" +
                   name + "\" ATTR uri device-uri \"" + scheme + uri + more + "\" }";
        // Later releases of CUPS answer after they have tried to reach the device for two minutes.
        sim::Process& user = users.emplace_back(std::vector<std::string>{
            "setpriv", "--reuid=nobody", "--regid=nogroup", "--clear-groups", "ipptool", "-q",
            "ipp://" + std::regex_replace(guest().cups.socketPath(), std::regex("/"), "%2F") + "/",
            folder / "request"});
        EXPECT_TRUE(waitUntil([&] { return isListed() || user.wait(0ms).value_or(0) != 0; }));
        EXPECT_EQ(user.wait(0ms).value_or(0), 0);
    }
    void takeStep(std::size_t kinds) {
        const auto& [what, act] = steps[below(kinds)];
        SCOPED_TRACE(trace += std::string(", ") + what);
        act();
        // A worker has applied the host's default, if that is another one.
        EXPECT_TRUE(waitUntil([&] { return host.waiting(GetDefaultPrinter) == 1; }));
        std::vector<std::string> expected{"device for Own: ipp://printer.example/ipp"}, queues;
        for (const Printer& printer : printers)
            if (printer.hasQueue)
                expected.push_back("device for " + printer.queueName() + ": " + kUri + printer.id);
        std::istringstream lines(sim::commandOutput("lpstat -v"));
        for (std::string line; std::getline(lines, line);)
            if (line.find("://127.") == std::string::npos &&
                line.find(": usb:=") == std::string::npos)
                queues.push_back(line);  // it is not of the user without rights
        EXPECT_THAT(queues, UnorderedElementsAreArray(expected)) << contents(kLog);
        const Printer* preferred = find(defaultId);
        EXPECT_TRUE(!preferred || !preferred->hasQueue || isDefault(preferred->queueName()));
        EXPECT_THAT(host.deletedPrinters(), UnorderedElementsAreArray(reported));
    }

    const UniqueFd device{socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)};
    std::string uri;
    std::list<sim::Process> users;
    std::mt19937 random{static_cast<unsigned>(setting("QNT_START", 1))};
    std::vector<Printer> printers;
    std::string defaultId, trace = "steps";
    std::vector<std::string> reported;
    const std::function<void()> share = [this] {
        const std::string id = anyId();
        if (!find(id))
            printers.push_back({id, unusedName()});
        const std::string name = find(id)->name;
        *find(id) = {id, name};
        host.plug(id, name);
        carryOut(sim::printerList(host.printers()));
        fs::resize_file(kLog, 0);
        carryOut(sim::addPrinter(id));
        EXPECT_THAT(records(), Contains(StartsWith("lpadmin -d ")).Times(id == defaultId));
    };
    const std::function<void()> renameAll = [this] {
        std::vector<std::string> names{unusedName()};
        for (const Printer& printer : printers)
            names.push_back(printer.name);
        std::ranges::shuffle(names, random);
        for (Printer& printer : printers) {
            const std::string before = printer.queueName();
            printer.name = names.back();
            names.pop_back();
            if (below(4) == 0)
                std::ranges::transform(printer.name, printer.name.begin(), toupper);
            printer.isEnabled |= printer.queueName() != before;  // its queue is a new one
            host.rename(printer.id, printer.name);
        }
        carryOut(sim::printerList(host.printers()));
    };
    const std::vector<std::pair<const char*, std::function<void()>>> steps = {
        {"share", share},
        {"share", share},
        {"rename all", renameAll},
        {"rename all", renameAll},
        {"set the default", [this] { host.setDefault(defaultId = anyId()); }},
        {"delete",
         [this] {
             const std::string id = anyId();
             carryOut(sim::deletePrinter(id));
             if (Printer* printer = find(id))
                 printer->hasQueue = false;
         }},
        {"delete offline",
         [this] {
             carryOut(sim::deleteOffline());
             for (Printer& printer : printers)
                 if (printer.hasQueue && !(printer.isPlugged && printer.isEnabled))
                     printer.isReported = true;
             expectReports();
         }},
        {"disable or unplug",
         [this] {
             withAnyQueue([this](Printer& printer) {
                 (below(2) == 0 ? printer.isPlugged : printer.isEnabled) = false;
                 if (!printer.isPlugged)
                     sim::unplugUsbPrinter(printer.id);
                 if (!printer.isEnabled)
                     sim::Process({"cupsdisable", printer.queueName()}).wait(kPatience);
             });
         }},
        {"the user deletes",
         [this] {
             carryOut({9, "", {}});  // before it, the service looks at the queues
             for (std::size_t most = 1 + below(2); most > 0; --most)
                 withAnyQueue([](Printer& printer) {
                     deleteQueue(printer.queueName());
                     printer.isReported = true;
                     printer.hasQueue = false;
                 });
             expectReports();
         }},
        {"a temporary queue with an id",
         [this] { createTemporary(below(2) == 0 ? "Aaa" : "zzz", "usb", "?serial=" + anyId()); }},
        {"a temporary queue whose listing is followed by another one's line",
         [this] {
             std::string name = "Own";
             withAnyQueue([&](const Printer& printer) {
                 // Otherwise only the listing can show it, so it is left alone.
                 if (isOneQueueToLpstat(printer.queueName()))
                     name = printer.queueName();
             });
             createTemporary(below(2) == 0 ? "Aa" : "zz", "ipp",
                             "\ndevice for " + name + ": usb:=" + anyId());
         }},
        {"answer with a bit flipped",
         [this] {
             Bytes answer = sim::encodeAnswer({9, "", {}}, 0);
             answer[below(answer.size())] ^= static_cast<std::uint8_t>(1U << below(8));
             const std::size_t before = host.exchanges().size();
             host.answerNext(sim::kRunLoopRequest, {.answer = answer});
             EXPECT_TRUE(waitUntil([&] {
                 return service->wait(0s) || (host.isIdle() && host.exchanges().size() > before);
             }));
             if (service->wait(0s)) {
                 EXPECT_EQ(exitCode(), 1);
                 EXPECT_EQ(records().back(), "closed, rc = 1");
                 start();
             }
         }},
        {"restart CUPS",
         [] {
             guest().cups.stop();
             guest().cups.start();
         }},
        {"restart the service", [this] {
             if (below(2) == 0) {
                 EXPECT_EQ(stopService(), 0);
             }
             service.reset();
             if (below(2) == 0)
                 withAnyQueue([](Printer& printer) {
                     deleteQueue(printer.queueName());
                     printer.hasQueue = false;
                 });
             start();
         }}};
};

// QNT_STEPS sets the number of steps, QNT_START chooses them.
TEST_F(WalkTest, TheGuestHasThePrintersOfItsHostAfterEachStep) {
    const int last = setting("QNT_STEPS", 60);
    for (int step = 1; step <= last && !HasFailure(); ++step)
        takeStep(steps.size());
}

// Takes QNT_STEPS steps without a restart, then as many again, after which nothing has grown.
TEST_F(WalkTest, ALongRunLeavesNothingBehind) {
    if (QNT_SANITIZED)
        GTEST_SKIP() << "Sanitizers have threads and memory of their own.";
    const fs::path process = "/proc/" + std::to_string(service->pid());
    const auto entries = [&](const char* name) {
        return std::distance(fs::directory_iterator(process / name), {});
    };
    // A worker that lists the queues has a pipe and a child meanwhile.
    auto files = entries("fd");
    for (int looks = 0; looks < 100; ++looks, std::this_thread::sleep_for(5ms))
        files = std::min(files, entries("fd"));
    const auto isAtRest = [&] {
        std::string children;
        for (const auto& thread : fs::directory_iterator(process / "task"))
            children += contents(thread.path() / "children");
        return children.empty() && entries("fd") == files && entries("task") == 3;
    };
    int kilobytes[2];
    for (int& each : kilobytes) {
        for (int left = setting("QNT_STEPS", 15); left > 0 && !HasFailure(); --left)
            takeStep(steps.size() - 3);
        EXPECT_TRUE(waitUntil(isAtRest));
        const std::string status = contents(process / "status");
        each = std::stoi(status.substr(status.find("RssAnon:") + 8));
    }
    EXPECT_LE(kilobytes[1] - kilobytes[0], 128);
}

TEST_F(WalkTest, AHostPrinterWithTheNameOfATemporaryQueueStays) {
    createTemporary("Second", "ipp", "");
    host.plug("TAG2", "Second");
    ASSERT_TRUE(waitUntil([&] {
        host.send(sim::addPrinter("TAG2"));
        const bool isDone = waitUntil([&] { return !host.results().empty(); }, 5s);
        if (!isDone)  // later releases of CUPS refuse it while they wait for the device
            shutdown(device.get(), SHUT_RDWR);
        return isDone;
    }));
    EXPECT_THAT(sim::commandOutput("lpoptions -p Second"),
                HasSubstr(" printer-is-temporary=false "));
    // QNT_WAIT: as long as CUPS needs to delete a temporary queue.
    std::this_thread::sleep_for(std::chrono::seconds(setting("QNT_WAIT", 0)));
    guest().cups.stop();
    guest().cups.start();
    EXPECT_TRUE(hasQueue("Second", "TAG2"));
    EXPECT_THAT(host.deletedPrinters(), IsEmpty());
}

}  // namespace
}  // namespace qnt
