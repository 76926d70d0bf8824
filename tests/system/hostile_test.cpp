// Names and ids with shell, sed, path and option syntax, on a real CUPS. Each line of the corpus is
// one text, with C escapes; where it is a command, it would create the file "pwned".

#include <gmock/gmock.h>

#include "cups/printer_names.h"
#include "cups/queue_creation.h"
#include "cups/queue_listing.h"
#include "cups/queue_operations.h"
#include "tests/support/captured_log.h"
#include "tests/support/fixture.h"

namespace qnt {
namespace {

const std::string& logged = CapturedLog::text;

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

class Hostile : public GuestTest {
protected:
    Hostile() {
        setenv("LC_ALL", "C", 1);
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
        EXPECT_EQ(others(), neighbours);
        EXPECT_TRUE(fs::is_empty(folder / "work"));
        EXPECT_FALSE(fs::exists("/tmp/pwned"));
    }

    const CapturedLog log{1};
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
        log.clear();
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
            log.clear();
            EXPECT_EQ(renamePrinter(queueOf("TAG7"), name = text), !isRefused);
            EXPECT_THAT(queueOf("TAG7"), isNameFor(isRefused ? "Own" : text));
        }
        EXPECT_EQ(logged.find("deletePrinter"), std::string::npos) << "the second rename deletes";
        EXPECT_EQ(logged.find("Refused") != std::string::npos, isRefused);
        exact += queueOf("TAG7") == queueNameFor(text);
        setDefaultPrinter("TAG7");
        EXPECT_EQ(isPrinterOnline("TAG7"), text[0] != '\n');
        deletePrinterById("TAG7");
        sim::commandOutput("lpadmin -d Lab");
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
        log.clear();
        std::string name = "Own";
        addPrinter(name, id);
        const bool isBound = queueOf(id) == "Own";
        bound += isBound;
        setDefaultPrinter(id);
        EXPECT_FALSE(isPrinterOnline(id));
        deletePrinterById(id);
        EXPECT_TRUE(isBound ||
                    logged.find(isValid(id) ? "Failed add printer '" : "Refused printer id '") !=
                        std::string::npos)
            << logged;
        sim::commandOutput("lpadmin -d Lab");
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
        {std::string(150, '\x80'), std::string(127, '\x80')},
        {"A" + std::string(150, '\x80'), "A" + std::string(126, '\x80')},
    };
    for (const auto& [name, accepted] : rows)
        EXPECT_EQ(acceptedQueueName(name), accepted);
    EXPECT_EQ(acceptedDescription("a\r\nb'c\td"), "a  b'c\td");
    EXPECT_EQ(acceptedDescription(std::string(32766, 'x') + "\u00fc"), std::string(32766, 'x'));
}

}  // namespace
}  // namespace qnt
