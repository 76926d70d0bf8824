// The operations on the guest, with a real CUPS and a private USB device tree. A script replaces a
// tool only where the tool must fail, find another driver or show its arguments.

#include <gmock/gmock.h>

#include "cups/queue_creation.h"
#include "cups/queue_listing.h"
#include "cups/queue_operations.h"
#include "cups/trusted_queues.h"
#include "cups/usb_discovery.h"
#include "tests/support/captured_log.h"
#include "tests/support/fixture.h"

using testing::ContainsRegex;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

namespace qnt {
namespace {

const std::string& said = CapturedLog::text;

class Cups : public GuestTest {
protected:
    Cups() {
        setenv("LC_ALL", "C", 1);
        setenv("HOME", folder.c_str(), 1);
        forget();
    }
    ~Cups() override { g_afterSleep = nullptr; }

    static void forget(std::int32_t level = 3) {
        const CapturedLog log(level);
        g_sleeps.clear();
    }
    // Any bytes may be in a name or URI, as no shell sees them.
    static void makeQueue(const std::string& name, const std::string& uri, bool enabled = true) {
        sim::Process lpadmin({"lpadmin", "-p", name, "-v", uri, enabled ? "-E" : "-ox=y"});
        ASSERT_EQ(lpadmin.wait(10s), 0) << name << ' ' << uri;
    }
    static void makeQueues(const QueueBindingList& queues) {
        for (const auto& [id, name] : queues)
            makeQueue(name, kUri + id);
    }
    static std::string queues() {
        return sim::commandOutput("lpstat -v | sed 's/device for //; s/: .*//'");
    }
    static std::string shown(const QueueBindingList& bindings) {
        std::string text;
        for (const QueueBinding& binding : bindings)
            text += binding.id + ' ' + binding.queueName + '\n';
        return text;
    }
    static std::string listed(const std::string& id) {
        QueueBindingList bindings;
        return listPrinterQueues(bindings, id) ? shown(bindings) : "refused";
    }
    static constexpr char kFallbackModel[] =
        "postscript-hp:0/ppd/hplip/HP/hp-color_laserjet_8500-ps.ppd";
};

TEST_F(Cups, ListsTheQueuesOfHostPrintersAndNoOthers) {
    EXPECT_EQ(listed(""), "");
    makeQueues({{"TAG10011", "Longer"}, {"TAG1001", "Office_Laser"}, {"TAG1001", "Second"}});
    addQueue("Stick", "1001");
    makeQueue("Net", "ipp://printer.example/?serial=TAG1001");
    sim::commandOutput("lpoptions -p Second/draft -o copies=2");
    EXPECT_THAT(sim::commandOutput("lpstat -v"), HasSubstr("device for Second/draft: usb:"));
    const std::string all = "TAG10011 Longer\nTAG1001 Office_Laser\nTAG1001 Second\n";
    EXPECT_EQ(listed(""), all);
    EXPECT_EQ(listed("TAG1001"), "TAG1001 Office_Laser\nTAG1001 Second\n");
    EXPECT_EQ(listed("TAG10011"), "TAG10011 Longer\n");
    EXPECT_EQ(listed("TAG100"), "");
    for (const std::int32_t flags : {0, 2, 1, 3}) {
        QueueBindingList bindings{{"TAG0", "Kept"}};
        EXPECT_TRUE(getHostPrinterQueues(bindings, flags));
        EXPECT_EQ(shown(bindings), "TAG0 Kept\n" + (flags % 2 == 1 ? all : "")) << flags;
    }
    guest.cups->stop();
    EXPECT_EQ(listed(""), "");  // as with an empty CUPS
    guest.cups->start();
}

TEST_F(Cups, FindsAUsbProductBySerial) {
    const auto device = [](const char* name, const char* serial, const char* product) {
        const fs::path path = fs::path(sim::kUsbDevicesFolder) / name;
        fs::create_directory(path);
        std::ofstream(path / (serial == nullptr ? "other" : "serial")) << serial;
        std::ofstream(path / (product == nullptr ? "other" : "product")) << product;
    };
    EXPECT_EQ(getUsbProductBySerial(""), "");
    device("1-1", "TAG1001\n", "Office Laser \nsecond line\n");
    device("1-1:1.0", nullptr, nullptr);
    device("1-9", "TAG2\n", "Nine\n");
    device("1-10", "TAG2\n", "Ten\n");
    device("2-1", "TAG3 \n", "Blank\n");
    device("2-2", "TAG3\n", nullptr);
    device("2-3", "TAG3\n", "\n");
    EXPECT_EQ(getUsbProductBySerial("TAG3"), "");
    device("2-4.1", "TAG3", "Bare");
    device("3-1", nullptr, "No Serial\n");
    EXPECT_EQ(getUsbProductBySerial("TAG1001"), "Office Laser ");
    EXPECT_EQ(getUsbProductBySerial("TAG100"), "");
    EXPECT_EQ(getUsbProductBySerial("TAG2"), "Ten");
    EXPECT_EQ(getUsbProductBySerial("TAG3"), "Bare");
    EXPECT_EQ(getUsbProductBySerial("TAG3 "), "Blank");
    EXPECT_EQ(getUsbProductBySerial(""), "No Serial");
    EXPECT_EQ(getUsbProductBySerial(readFirstLine("/sys/bus/usb/devices/usb1/serial")), "");
}

TEST_F(Cups, CountsAPrinterOnlineWhileItsLastQueueIsEnabledAndItsDevicePluggedIn) {
    sim::plugUsbPrinter("TAG1", "Office Laser");
    EXPECT_FALSE(isPrinterOnline("TAG1"));
    makeQueues({{"TAG1", "!"}, {"TAG0", "Lab"}, {"TAG0", "-px"}});
    for (const std::string name : {"B", "all", "Lab,2", "2,Lab", "-p", "a.b*&$(c)|d"}) {
        for (const bool enabled : {false, true}) {
            makeQueue(name, kUri + std::string("TAG1"), enabled);
            EXPECT_EQ(isPrinterOnline("TAG1"), enabled) << name;
        }
        EXPECT_EQ(sim::Process({"lpadmin", "-x", name}).wait(10s), 0);
    }
    forget();
    EXPECT_TRUE(isPrinterOnline("TAG1"));
    sim::unplugUsbPrinter("TAG1");
    EXPECT_FALSE(isPrinterOnline("TAG1"));
    logSetLevel(2);
    EXPECT_FALSE(isPrinterOnline("TAG1"));
    EXPECT_EQ(said, "D isPrinterOnline: TAG1\nD  - true\nD isPrinterOnline: TAG1\nD  - false\n");
}

TEST_F(Cups, MakesTheLastQueueOfAnIdTheDefault) {
    makeQueues({{"TAG1", "A"}, {"TAG1", "B"}, {"TAG2", "C"}});
    setDefaultPrinter("TAG1");
    expectDefault("B");
    setDefaultPrinter("TAG3");
    EXPECT_EQ(said, "D lpadmin -d 'B'\n");
    standIn("lpadmin", "exit 1");
    setDefaultPrinter("TAG2");
    EXPECT_THAT(said, EndsWith("\nF Failed to set default printer 'TAG2'\n"));
    EXPECT_EQ(lastDefaultQueueName(), "B");
}

TEST_F(Cups, DeletesQueuesByNameAndById) {
    makeQueues({{"TAG1", "A"}, {"TAG1", "B_B"}, {"TAG10", "C"}});
    deletePrinterById("TAG1");
    EXPECT_EQ(queues(), "C\n");
    deletePrinterById("");
    addQueue("B_B", "TAG1");
    forget();
    deletePrinter("", "TAG1");
    deletePrinter("B B", "TAG7");
    deletePrinter("B B", "TAG1");
    addQueue("B_B", "TAG1");
    standIn("lpadmin", "exit 1");
    deletePrinter("B B", "TAG1");
    const std::string deletion =
        "F deletePrinter: name=B B id=TAG1\nD Deleting printer with cmd [lpadmin -x 'B_B']\n";
    EXPECT_EQ(said,
              "F deletePrinter: name= id=TAG1\nF deletePrinter: name=B B id=TAG7\n"
              "W Queue 'B_B' is left alone: CUPS does not bind it to 'TAG7'\n" +
                  deletion + deletion + "F Failed to delete printer 'TAG1', rc=256\n");
    EXPECT_EQ(queues(), "B_B\nC\n");
}

TEST_F(Cups, ConfirmsABindingByTheFirstLineForTheQueueOrItsOnlyOne) {
    const std::string line = "device for N: ", usb = "usb://HP/x?serial=", filler(1100, 'x');
    struct Row {
        std::string lines;
        bool ofOne, ofAll;  // for a queue that lpstat shows alone, and for one that it does not
    };
    const Row rows[] = {
        {"", false, false},
        {line + usb + "TAG1\n", true, true},
        {"some warning\n" + line + usb + "TAG1", true, true},
        {line + usb + "TAG1\n" + line + "ipp://x\n", true, false},
        {line + "ipp://x\n" + line + usb + "TAG1\n", false, false},
        {line + usb + filler + "=TAG1\n", true, true},
        {line + usb + filler.substr(0, 1023 - line.size() - usb.size()) + line + usb + "TAG10\n",
         false, false},
        {line + "ipp://x?serial=TAG1\n", false, false},
        {line + usb + "1TAG1\n", false, false},
        {line + "usb:TAG1\n", false, false},
        {line + usb + "TAG1 \n", false, false},
        {line + usb + "TAG.\n", false, false},
        {"device for n: " + usb + "TAG1\n", false, false},
        {"device for N/i: " + usb + "TAG1\n", false, false},
        {" " + line + usb + "TAG1\n", false, false}};
    standIn("lpstat", "cat $folder/lines");
    for (const auto& [lines, ofOne, ofAll] : rows)
        for (const std::string name : {"N", "all", "-N", "N,N"}) {
            std::string named = lines;
            for (std::size_t at = 0; (at = named.find(" N", at)) != std::string::npos; ++at)
                named.replace(at + 1, 1, name);
            std::ofstream(folder / "lines") << named;
            EXPECT_EQ(confirmBinding({"TAG1", name}), name == "N" ? ofOne : ofAll) << named;
        }
}

TEST_F(Cups, RenamesTheQueueOfAHostPrinterAndKeepsTheDefault) {
    addQueue("Office_Laser", "TAG1");
    makeQueue("Guests_Own", "ipp://printer.example/ipp/print");
    setDefaultPrinter("TAG1");
    forget();
    std::string name = "Office Laser";
    EXPECT_TRUE(renamePrinter("Office_Laser", name));
    EXPECT_EQ(name, "Office_Laser");
    EXPECT_FALSE(renamePrinter("Guests_Own", name = "New"));
    EXPECT_EQ(said,
              "D renamePrinter: 'Office_Laser'->'Office Laser'\n"
              "D renamePrinter: 'Guests_Own'->'New'\n");
    addQueue("Odd", "TAG1=2");
    EXPECT_FALSE(renamePrinter("Odd", name = "New"));  // of an id that no queue is made for
    EXPECT_TRUE(renamePrinter("Office_Laser", name = "Desk Laser"));
    EXPECT_EQ(name, "Desk_Laser");
    EXPECT_EQ(queues(), "Desk_Laser\nGuests_Own\nOdd\n");
    expectDefault("Desk_Laser");
}

TEST_F(Cups, AddsAQueueWithTheFixedDriverAndOptions) {
    using Row = std::array<std::string, 4>;  // the name given, the id, the queue, its description
    const Row rows[] = {{"", "TAG1001", "Office_Laser", "Office_Laser"},
                        {"Lab  2", "TAG2", "Lab__2", "Lab  2"}};
    sim::plugUsbPrinter("TAG1001", "Office Laser");
    for (const auto& [given, id, queue, description] : rows) {
        forget();
        std::string name = given;
        addPrinter(name, id);
        EXPECT_EQ(name, queue);
        EXPECT_THAT(said,
                    StartsWith("F addPrinter: id=" + id + " name=" + given +
                               "\nD Adding printer: [lpadmin -p '" + queue + "' -u allow:all -m '" +
                               kFallbackModel + "' -v '" + kUri + id));
    }
    EXPECT_TRUE(g_sleeps.empty());
    guest.cups->stop();  // which writes the queues down
    for (const auto& [given, id, queue, description] : rows)
        EXPECT_THAT(contents(guest.folder / "cups/printers.conf"),
                    ContainsRegex("Printer " + queue + ">[^<]*\nInfo " + description +
                                  "\nLocation Host OS\nMakeModel HP Color LaserJet 8500 [^<]*\n"
                                  "DeviceURI usb://HP/Color%20LaserJet%208500[?]serial=" +
                                  id +
                                  "\nState Idle\n[^<]*\nAccepting Yes\nShared No\n[^<]*\n"
                                  "ErrorPolicy retry-job\n"));
    guest.cups->start();
}

TEST_F(Cups, WaitsForTheDeviceOfAPrinterWithoutANameAndReplacesItsQueues) {
    makeQueues({{"TAG1", "Office_Laser"}, {"TAG1", "Old"}, {"TAG10", "Other"}});
    std::string name = "New";
    addPrinter(name, "");
    EXPECT_EQ(name, "");
    EXPECT_EQ(said, "F addPrinter: id= name=New\nF Cannot get name for printer with id=\n");
    EXPECT_EQ(queues(), "Office_Laser\nOld\nOther\n");
    forget();
    g_afterSleep = [] {
        if (g_sleeps.size() == 5)
            sim::plugUsbPrinter("TAG1", "Office Laser");
    };
    addPrinter(name, "TAG1");
    EXPECT_EQ(g_sleeps, std::vector<unsigned>(5, 1));
    EXPECT_THAT(
        said,
        StartsWith("F addPrinter: id=TAG1 name=\nF deletePrinter: name=Office_Laser id=TAG1\n"
                   "D Deleting printer with cmd [lpadmin -x 'Office_Laser']\n"
                   "F deletePrinter: name=Old id=TAG1\nD Deleting printer with cmd [lpadmin -x "
                   "'Old']\nD Adding printer: [lpadmin -p 'Office_Laser' "));
    EXPECT_EQ(queues(), "Office_Laser\nOther\n");
}

TEST_F(Cups, AsksForTheDriverOnceAndFallsBackToAFixedOne) {
    standIn("lpadmin", "printf '%s\\n' \"$@\" >$folder/arguments; exit 3");
    std::string calls;
    for (const auto& [answer, model] : std::vector<std::pair<std::string, std::string>>{
             {"echo 'a/b.ppd HP Color'; echo 'c.ppd HP'", "a/b.ppd"},
             {"printf %02500d 7", std::string(2499, '0') + "7"},
             {"exit 1", kFallbackModel}}) {
        standIn("lpinfo", "echo \"$LANG $*\" >>$folder/calls; " + answer);
        selectPpdModel();
        for (std::string name : {"Q", "Q"})  // the second asks no more
            addPrinter(name, "TAG1");
        EXPECT_THAT(contents(folder / "arguments"),
                    HasSubstr("\nallow:all\n-m\n" + model + "\n-v\n"));
        EXPECT_THAT(said, EndsWith("\nF Failed add printer 'TAG1', rc=768\n"));
        calls += "C --make-and-model HP Color LaserJet 8500 Postscript -m\n";
        EXPECT_EQ(contents(folder / "calls"), calls);
    }
}

}  // namespace
}  // namespace qnt
