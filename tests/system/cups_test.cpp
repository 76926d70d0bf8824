// What is done in the guest, with a real CUPS and a private USB device tree. A script replaces a
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

const std::string& logged = CapturedLog::text;

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
    static void addQueues(const QueueBindingList& queues) {
        for (const auto& [id, name] : queues)
            addQueue(name, id);
    }
    static std::string queues() {
        return sim::commandOutput("lpstat -v | sed 's/device for //; s/: .*//'");
    }
    static std::string listed(const std::string& id) {
        QueueBindingList bindings;
        std::string text = listPrinterQueues(bindings, id) ? "" : "refused";
        for (const QueueBinding& binding : bindings)
            text += binding.id + ' ' + binding.queueName + '\n';
        return text;
    }
    static constexpr char kFallbackModel[] =
        "postscript-hp:0/ppd/hplip/HP/hp-color_laserjet_8500-ps.ppd";
};

TEST_F(Cups, ListsTheQueuesOfHostPrintersAndNoOthers) {
    EXPECT_EQ(listed(""), "");
    addQueues({{"TAG10011", "Longer"}, {"TAG1001", "Office_Laser"}, {"TAG1001", "Second"}});
    addQueue("Stick", "1001");
    addQueue("Net", "TAG1001", "ipp://printer.example/?serial=");
    sim::commandOutput("lpoptions -p Second/draft -o copies=2");
    EXPECT_EQ(listed(""), "TAG10011 Longer\nTAG1001 Office_Laser\nTAG1001 Second\n");
    EXPECT_EQ(listed("TAG1001"), "TAG1001 Office_Laser\nTAG1001 Second\n");
    EXPECT_EQ(listed("TAG10011"), "TAG10011 Longer\n");
    EXPECT_EQ(listed("TAG100"), "");
    guest().cups->stop();
    EXPECT_EQ(listed(""), "");  // as with an empty CUPS
    guest().cups->start();
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
    addQueues({{"TAG1", "!"}, {"TAG0", "Lab"}, {"TAG0", "-px"}});
    for (const std::string name : {"B", "all", "Lab,2", "-p"}) {
        for (const bool enabled : {false, true}) {
            addQueue(name, "TAG1", kUri, enabled);
            EXPECT_EQ(isPrinterOnline("TAG1"), enabled) << name;
        }
        deleteQueue(name);
    }
    forget();
    EXPECT_TRUE(isPrinterOnline("TAG1"));
    sim::unplugUsbPrinter("TAG1");
    EXPECT_FALSE(isPrinterOnline("TAG1"));
    EXPECT_EQ(logged, "D isPrinterOnline: TAG1\nD  - true\nD isPrinterOnline: TAG1\nD  - false\n");
}

TEST_F(Cups, MakesTheLastQueueOfAnIdTheDefault) {
    addQueues({{"TAG1", "A"}, {"TAG1", "B"}, {"TAG2", "C"}});
    setDefaultPrinter("TAG1");
    expectDefault("B");
    setDefaultPrinter("TAG3");
    EXPECT_EQ(logged, "D lpadmin -d 'B'\n");
    replaceTool("lpadmin", "exit 1");
    setDefaultPrinter("TAG2");
    EXPECT_THAT(logged, EndsWith("\nF Failed to set default printer 'TAG2'\n"));
    EXPECT_EQ(lastDefaultQueueName(), "B");
}

TEST_F(Cups, DeletesQueuesByNameAndById) {
    addQueues({{"TAG1", "A"}, {"TAG1", "B_B"}, {"TAG10", "C"}});
    deletePrinterById("TAG1");
    EXPECT_EQ(queues(), "C\n");
    addQueue("B_B", "TAG1");
    forget();
    deletePrinter("", "TAG1");
    deletePrinter("B B", "TAG7");
    replaceTool("lpadmin", "exit 1");
    deletePrinter("B B", "TAG1");
    EXPECT_EQ(logged,
              "F deletePrinter: name= id=TAG1\nF deletePrinter: name=B B id=TAG7\n"
              "W Queue 'B_B' is left alone: CUPS does not bind it to 'TAG7'\n"
              "F deletePrinter: name=B B id=TAG1\n"
              "D Deleting printer with cmd [lpadmin -x 'B_B']\n"
              "F Failed to delete printer 'TAG1', rc=256\n");
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
        {"some warning\n" + line + usb + "TAG1", true, true},
        {line + usb + "TAG1\n" + line + "ipp://x\n", true, false},
        {line + "ipp://x\n" + line + usb + "TAG1\n", false, false},
        {line + usb + filler + "=TAG1\n", true, true},
        {line + usb + filler.substr(0, 1023 - line.size() - usb.size()) + line + usb + "TAG10\n",
         false, false},
        {line + "ipp://x?serial=TAG1\n", false, false},
        {line + "usb:TAG1\n", false, false},
        {"device for n: " + usb + "TAG1\n", false, false},
        {" " + line + usb + "TAG1\n", false, false}};
    replaceTool("lpstat", "cat $folder/lines");
    for (const auto& [lines, ofOne, ofAll] : rows)
        for (const std::string name : {"N", "all", "-N", "N,N"}) {
            std::string named = lines;
            for (std::size_t at = 0; (at = named.find(" N", at)) != std::string::npos; ++at)
                named.replace(at + 1, 1, name);
            std::ofstream(folder / "lines") << named;
            EXPECT_EQ(confirmBinding({"TAG1", name}), name == "N" ? ofOne : ofAll) << named;
        }
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
        EXPECT_THAT(logged,
                    StartsWith("F addPrinter: id=" + id + " name=" + given +
                               "\nD Adding printer: [lpadmin -p '" + queue + "' -u allow:all -m '" +
                               kFallbackModel + "' -v '" + kUri + id));
    }
    EXPECT_TRUE(g_sleeps.empty());
    guest().cups->stop();  // which writes the queues down
    for (const auto& [given, id, queue, description] : rows)
        EXPECT_THAT(contents(guest().folder / "cups/printers.conf"),
                    ContainsRegex("Printer " + queue + ">[^<]*\nInfo " + description +
                                  "\nLocation Host OS\nMakeModel HP Color LaserJet 8500 [^<]*\n"
                                  "DeviceURI usb://HP/Color%20LaserJet%208500[?]serial=" +
                                  id +
                                  "\nState Idle\n[^<]*\nAccepting Yes\nShared No\n[^<]*\n"
                                  "ErrorPolicy retry-job\n"));
    guest().cups->start();
}

TEST_F(Cups, WaitsForTheDeviceOfAPrinterWithoutANameAndReplacesItsQueues) {
    addQueues({{"TAG1", "Office_Laser"}, {"TAG1", "Old"}, {"TAG10", "Other"}});
    std::string name = "New";
    addPrinter(name, "");
    EXPECT_EQ(logged, "F addPrinter: id= name=New\nF Cannot get name for printer with id=\n");
    g_afterSleep = [] {
        if (g_sleeps.size() == 5)
            sim::plugUsbPrinter("TAG1", "Office Laser");
    };
    addPrinter(name, "TAG1");
    EXPECT_EQ(g_sleeps, std::vector<unsigned>(5, 1));
    EXPECT_EQ(queues(), "Office_Laser\nOther\n");
}

TEST_F(Cups, AsksForTheDriverOnceAndFallsBackToAFixedOne) {
    replaceTool("lpadmin", "printf '%s\\n' \"$@\" >$folder/arguments; exit 3");
    std::string calls;
    for (const auto& [answer, model] : std::vector<std::pair<std::string, std::string>>{
             {"echo 'a/b.ppd HP Color'; echo 'c.ppd HP'", "a/b.ppd"},
             {"printf %02500d 7", std::string(2499, '0') + "7"},
             {"exit 1", kFallbackModel}}) {
        replaceTool("lpinfo", "echo \"$LANG $*\" >>$folder/calls; " + answer);
        selectPpdModel();
        for (std::string name : {"Q", "Q"})  // the second asks no more
            addPrinter(name, "TAG1");
        EXPECT_THAT(contents(folder / "arguments"),
                    HasSubstr("\nallow:all\n-m\n" + model + "\n-v\n"));
        EXPECT_THAT(logged, EndsWith("\nF Failed add printer 'TAG1', rc=768\n"));
        calls += "C --make-and-model HP Color LaserJet 8500 Postscript -m\n";
        EXPECT_EQ(contents(folder / "calls"), calls);
    }
}

}  // namespace
}  // namespace qnt
