// What is done in the guest, with a real CUPS and a private USB device tree. A script replaces a
// tool only where the tool must fail, find another driver or show its arguments.

#include <gmock/gmock.h>

#include "cups/cups_check.h"
#include "cups/printer_names.h"
#include "cups/queue_creation.h"
#include "cups/queue_listing.h"
#include "cups/queue_operations.h"
#include "cups/trusted_queues.h"
#include "cups/usb_discovery.h"
#include "tests/support/captured_log.h"
#include "tests/support/fixture.h"

using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

namespace qnt {
namespace {

class Cups : public GuestTest {
protected:
    Cups() {
        setenv("HOME", folder.c_str(), 1);
        captureLog();
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

TEST_F(Cups, HasSevenTriesToAnswer) {
    for (const std::size_t answered : {4U, 7U, 8U}) {
        captureLog();
        g_sleeps.clear();
        replaceTool("lpstat", "echo >>$folder/tries; [ $# = 0 ] && [ $(wc -l <$folder/tries) -ge " +
                                  std::to_string(answered) + " ]");
        EXPECT_EQ(checkCups(), answered <= 7);
        EXPECT_EQ(g_sleeps, std::vector<unsigned>(std::min<std::size_t>(answered, 7) - 1, 10));
        EXPECT_EQ(g_logged, answered <= 7 ? "" : "F cups is not responding\n");
        fs::remove(folder / "tries");
    }
}

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
}

TEST_F(Cups, FindsAUsbProductBySerial) {
    const auto device = [](const char* name, const char* serial, const char* product) {
        const fs::path path = fs::path(sim::kUsbDevicesFolder) / name;
        fs::create_directory(path);
        std::ofstream(path / (serial == nullptr ? "other" : "serial")) << serial;
        std::ofstream(path / (product == nullptr ? "other" : "product")) << product;
    };
    device("1-1", "TAG1001\n", "Office Laser \nsecond line\n");
    device("1-1:1.0", nullptr, nullptr);
    device("1-9", "TAG2\n", "Nine\n");
    device("1-10", "TAG2\n", "Ten\n");
    device("2-1", "TAG3 \n", "Blank\n");
    device("2-2", "TAG3\n", nullptr);
    device("2-3", "TAG3\n", "\n");
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

TEST_F(Cups, MakesTheLastQueueOfAnIdTheDefaultAndDeletesAllOfThem) {
    addQueues({{"TAG1", "A"}, {"TAG1", "B_B"}, {"TAG10", "C"}});
    setDefaultPrinter("TAG1");
    EXPECT_TRUE(isDefault("B_B"));
    setDefaultPrinter("TAG3");
    EXPECT_EQ(g_logged, "D lpadmin -d 'B_B'\n");
    deletePrinterById("TAG1");
    EXPECT_EQ(queues(), "C\n");
    addQueue("B_B", "TAG1");
    captureLog();
    replaceTool("lpoptions", "echo a printer-is-temporary=true");  // made by somebody else
    setDefaultPrinter("TAG1");
    fs::remove(folder / "bin/lpoptions");
    deletePrinter("", "TAG1");
    deletePrinter("B B", "TAG7");
    replaceTool("lpadmin", "exit 1");
    deletePrinter("B B", "TAG1");
    setDefaultPrinter("TAG10");
    EXPECT_EQ(g_logged,
              "F deletePrinter: name= id=TAG1\nF deletePrinter: name=B B id=TAG7\n"
              "W Queue 'B_B' is left alone: CUPS does not bind it to 'TAG7'\n"
              "F deletePrinter: name=B B id=TAG1\n"
              "D Deleting printer with cmd [lpadmin -x 'B_B']\n"
              "F Failed to delete printer 'TAG1', rc=256\n"
              "D lpadmin -d 'C'\nF Failed to set default printer 'TAG10'\n");
    EXPECT_EQ(lastDefaultQueueName(), "B_B");
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

TEST_F(Cups, AddsAQueueInPlaceOfThoseOfItsId) {
    addQueues({{"TAG1001", "Office_Laser"}, {"TAG1001", "Old"}, {"TAG10011", "Other"}});
    sim::plugUsbPrinter("TAG1001", "Office Laser");
    using Row = std::array<std::string, 4>;  // the name given, the id, the queue, its description
    for (const auto& [given, id, queue, description] :
         {Row{"", "TAG1001", "Office_Laser", "Office_Laser"},
          {"Lab  2", "TAG2", "Lab__2", "Lab  2"}}) {
        captureLog();
        std::string name = given;
        addPrinter(name, id);
        EXPECT_EQ(name, queue);
        EXPECT_TRUE(hasQueue(queue, id));
        EXPECT_THAT(g_logged, StartsWith("F addPrinter: id=" + id + " name=" + given + '\n'));
        EXPECT_THAT(g_logged,
                    EndsWith("\nD Adding printer: [lpadmin -p '" + queue + "' -u allow:all -m '" +
                             kFallbackModel + "' -v '" + kUri + id +
                             "' -o printer-error-policy=retry-job -E -D '" + description +
                             "' -L 'Host OS' -o printer-is-shared=false]\n"));
    }
    EXPECT_EQ(queues(), "Lab__2\nOffice_Laser\nOther\n");
    captureLog();
    std::string name = "New";
    addPrinter(name, "");
    EXPECT_EQ(name, "");
    EXPECT_EQ(g_logged, "F addPrinter: id= name=New\nF Cannot get name for printer with id=\n");
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
        EXPECT_THAT(g_logged, EndsWith("\nF Failed add printer 'TAG1', rc=768\n"));
        calls += "C --make-and-model HP Color LaserJet 8500 Postscript -m\n";
        EXPECT_EQ(contents(folder / "calls"), calls);
    }
}

// Names and ids with shell, sed, path and option syntax. Each line of the corpus is one text, with
// C escapes; where it is a command, it would create the file "pwned".

std::string umlauts() {  // two bytes each, after one
    std::string text = "u";
    while (text.size() < 200)
        text += "\u00fc";
    return text;
}

std::vector<std::string> corpus() {
    std::vector<std::string> texts{std::string(127, 'x'),    std::string(150, 'y'),
                                   std::string(40'000, 'z'), std::string(131'000, 'x'),
                                   std::string("x\0y", 3),   umlauts()};
    std::istringstream lines(sim::commandOutput(
        "bash -c 'while IFS= read -r line; do printf %b\\\\0 \"$line\"; done' <'" +
        std::string(QNT_SOURCE_DIR) + "/tests/system/hostile_texts.txt'"));
    for (std::string text; std::getline(lines, text, '\0');)
        texts.push_back(text);
    EXPECT_GT(texts.size(), 40U);
    return texts;
}

class Hostile : public Cups {
protected:
    Hostile() {
        replaceTool("lpinfo", "echo raw");  // a queue without a driver, which is quicker
        selectPpdModel();
        fs::create_directory(folder / "work");
        fs::current_path(folder / "work");
        for (const std::string id : {"TAG1", "TAG", "TAG77", "TAGx", "TAG.", "TAG7x"})
            addQueue("Q" + std::to_string(id.size()) + id.substr(3) + "_", id);
        addQueue("Lab", "TAG3");
        addQueue("Guests_Own", "1001");
        sim::commandOutput("lpadmin -p Net -v ipp://printer.example/ipp -E; lpadmin -d Lab");
        neighbours = others();
    }
    ~Hostile() override { fs::current_path("/"); }

    // Every queue but that of TAG7, and the default.
    static std::string others() {
        return sim::commandOutput("lpstat -v -d | LC_ALL=C grep -av 'serial=TAG7$'");
    }
    static std::string queueOf(const std::string& id) {
        QueueBindingList queues;
        (void)listPrinterQueues(queues, id);
        return queues.size() == 1 ? queues.front().queueName : std::to_string(queues.size());
    }
    void expectNothingElseTouched() const {
        sim::commandOutput("lpadmin -d Lab");  // as before
        EXPECT_EQ(others(), neighbours);
        EXPECT_TRUE(fs::is_empty(folder / "work"));
        EXPECT_FALSE(fs::exists("/tmp/pwned"));
    }

    std::string neighbours;
};

// The text as a queue name, or the form that CUPS accepts.
auto isNameFor(const std::string& text) {
    return testing::AnyOf(queueNameFor(text), acceptedQueueName(queueNameFor(text)));
}

TEST_F(Hostile, NamesReachCupsToTheByteOrInTheFormThatItAccepts) {
    int exact = 0;
    for (const std::string& text : corpus()) {
        const bool isRefused = text.find('\0') != std::string::npos || text.size() > 130'000;
        captureLog();
        SCOPED_TRACE(testing::PrintToString(text));
        sim::plugUsbPrinter("TAG7", text);
        std::string name;
        if (const std::string product = text.substr(0, text.find('\n')); !product.empty()) {
            addPrinter(name, "TAG7");
            EXPECT_EQ(queueOf("TAG7"), isRefused ? "0" : name);
            EXPECT_THAT(name, isNameFor(isRefused ? "" : product));
        }
        addPrinter(name = "Own", "TAG7");
        for (int times = 0; times < 2; ++times) {
            captureLog();
            EXPECT_EQ(renamePrinter(queueOf("TAG7"), name = text), !isRefused);
            EXPECT_THAT(queueOf("TAG7"), isNameFor(isRefused ? "Own" : text));
        }
        EXPECT_EQ(g_logged.find("deletePrinter"), std::string::npos) << "the second rename deletes";
        EXPECT_EQ(g_logged.find("Refused") != std::string::npos, isRefused);
        exact += queueOf("TAG7") == queueNameFor(text);
        setDefaultPrinter("TAG7");
        EXPECT_EQ(isPrinterOnline("TAG7"), text[0] != '\n');
        deletePrinterById("TAG7");
        expectNothingElseTouched();
        sim::unplugUsbPrinter("TAG7");
    }
    EXPECT_GT(exact, 10);
}

TEST_F(Hostile, IdsBindOneQueueOrAreRefused) {
    const auto isValid = [](const std::string& id) {
        return id.starts_with("TAG") && id.size() <= 894 &&
               id.find_first_of(std::string("\0\t\n =", 5)) == std::string::npos;
    };
    std::vector<std::string> ids{"TAG" + std::string(891, 'x'), "TAG" + std::string(892, 'x')};
    for (const std::string& text : corpus()) {
        ids.push_back("TAG" + text + "7");
        for (const std::string& id : {"TAG7" + text, text, "1001" + text})
            EXPECT_EQ(isValidPrinterId(id), isValid(id)) << testing::PrintToString(id);
    }
    int bound = 0;
    for (const std::string& id : ids) {
        SCOPED_TRACE(testing::PrintToString(id));
        captureLog();
        std::string name = "Own";
        addPrinter(name, id);
        const bool isBound = queueOf(id) == "Own";
        bound += isBound;
        setDefaultPrinter(id);
        deletePrinterById(id);
        const char* record = isValid(id) ? "Failed add printer '" : "Refused printer id '";
        EXPECT_TRUE(isBound || g_logged.find(record) != std::string::npos) << g_logged;
        expectNothingElseTouched();
    }
    EXPECT_GT(bound, 15);
}

TEST_F(Hostile, TheAcceptedFormOfANameIsFixed) {
    const std::pair<std::string, std::string> rows[] = {
        {"Bob's Printer", "Bob_s_Printer"},
        {R"(a/b\c?d'e"f#g)", "a_b_c_d_e_f_g"},
        {std::string("\x01\t\n\x1f \x7f\x80!~", 9), "______\x80!~"},
        {std::string(128, 'y'), std::string(127, 'y')},
        {umlauts(), umlauts().substr(0, 127)},
        {"u" + umlauts(), "u" + umlauts().substr(0, 125)},
        {"A" + std::string(150, '\x80'), "A" + std::string(126, '\x80')},
    };
    for (const auto& [name, accepted] : rows)
        EXPECT_EQ(acceptedQueueName(name), accepted);
    EXPECT_EQ(acceptedDescription("a\r\nb'c\td"), "a  b'c\td");
    EXPECT_EQ(acceptedDescription(std::string(32766, 'x') + "\u00fc"), std::string(32766, 'x'));
}

}  // namespace
}  // namespace qnt
