// Names and ids that try to be something else, in every operation on a real CUPS. Each line of the
// corpus is one text, with C escapes; where it is a command, it would make the file "pwned".

#include <gmock/gmock.h>

#include "cups/printer_names.h"
#include "cups/queue_creation.h"
#include "cups/queue_listing.h"
#include "cups/queue_operations.h"
#include "log/log_record.h"
#include "tests/support/fixture.h"

namespace qnt {
namespace {

std::string said;

std::string unescaped(const std::string& line) {
    std::string text;
    for (std::size_t i = 0; i < line.size(); ++i) {
        if (line[i] != '\\') {
            text += line[i];
        } else if (const char kind = line[++i]; kind == 'x') {
            text += static_cast<char>(std::stoi(line.substr(i + 1, 2), nullptr, 16));
            i += 2;
        } else {
            text += kind == 'n' ? '\n' : kind == 't' ? '\t' : kind;
        }
    }
    return text;
}

std::vector<std::string> corpus() {
    std::vector<std::string> texts{std::string(3000, 'x'), std::string(127, 'y')};
    std::ifstream file(QNT_HOSTILE_TEXTS);
    for (std::string line; std::getline(file, line);)
        texts.push_back(unescaped(line));
    EXPECT_GT(texts.size(), 40U);
    return texts;
}

class Hostile : public GuestTest {
protected:
    Hostile() {
        setenv("LC_ALL", "C", 1);
        logSetSink([](const char* record, std::int32_t length) {
            return static_cast<int>(said.append(record, record + length).size());
        });
        // A queue without the driver, which carries no outside text and takes most of the time.
        standIn("lpadmin",
                "left=$#; while [ $left -gt 0 ]; do word=$1; shift; left=$((left - 1))\n"
                "if [ \"$word\" = -m ]; then shift; left=$((left - 1))\n"
                "else set -- \"$@\" \"$word\"; fi; done; exec \"$real\" \"$@\"");
        fs::create_directory(folder / "work");
        fs::current_path(folder / "work");
        for (const std::string id : {"TAG1", "TAG", "TAG77", "TAGx", "TAG.", "TAG7x"})
            addQueue("Q" + std::to_string(id.size()) + id.substr(3) + "_", id);
        addQueue("Office_Lasers", "TAG2");
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
        listPrinterQueues(queues, id);
        return queues.size() == 1 ? queues.front().queueName : std::to_string(queues.size());
    }
    void expectNothingElseTouched(const std::string& text) const {
        EXPECT_EQ(others(), neighbours) << testing::PrintToString(text);
        EXPECT_TRUE(fs::is_empty(folder / "work")) << testing::PrintToString(text);
        EXPECT_FALSE(fs::exists("/tmp/pwned"));
    }

    std::string neighbours;
};

// CUPS takes a name, and then it is the text to the byte, or a record says that it was refused.
void expectTakenOrRefused(const std::string& queue, const std::string& text) {
    if (queue != queueNameFor(text)) {
        EXPECT_THAT(said, testing::ContainsRegex("Failed add printer 'TAG7', rc=|Refused queue"))
            << testing::PrintToString(text);
    }
}

TEST_F(Hostile, NamesReachCupsToTheByteOrAreRefused) {
    int taken = 0;
    for (const std::string& text : corpus()) {
        said.clear();
        sim::plugUsbPrinter("TAG7", text);
        std::string name;
        if (const std::string product = text.substr(0, text.find('\n')); !product.empty()) {
            addPrinter(name, "TAG7");
            expectTakenOrRefused(queueOf("TAG7"), product);
        }
        expectNothingElseTouched(text);
        addPrinter(name = "Own", "TAG7");
        said.clear();
        std::string newName = text;
        renamePrinter("Own", newName);
        if (text.find('\0') != std::string::npos) {
            EXPECT_EQ(queueOf("TAG7"), "Own");
        }
        expectTakenOrRefused(queueOf("TAG7"), text);
        taken += queueOf("TAG7") == queueNameFor(text);
        setDefaultPrinter("TAG7");
        EXPECT_EQ(isPrinterOnline("TAG7"), queueOf("TAG7") != "0" && text[0] != '\n');
        sim::commandOutput("lpadmin -d Lab");
        expectNothingElseTouched(text);
        deletePrinterById("TAG7");
        EXPECT_EQ(queueOf("TAG7"), "0") << testing::PrintToString(text);
        sim::unplugUsbPrinter("TAG7");
    }
    EXPECT_GT(taken, 10);
}

TEST_F(Hostile, IdsBindOneQueueOrNone) {
    int bound = 0;
    for (const std::string& text : corpus()) {
        for (const std::string& id : {"TAG7" + text, "TAG" + text + "7", text, "1001" + text}) {
            said.clear();
            std::string name = "Own";
            addPrinter(name, id);
            const bool isBound = queueOf(id) == "Own";
            bound += isBound;
            setDefaultPrinter(id);
            EXPECT_FALSE(isPrinterOnline(id));
            deletePrinterById(id);
            EXPECT_TRUE(isBound || said.find("Refused printer id '") != std::string::npos ||
                        said.find("Failed add printer '") != std::string::npos)
                << said;
            sim::commandOutput("lpadmin -d Lab");
            expectNothingElseTouched(id);
        }
    }
    EXPECT_GT(bound, 30);
}

// CUPS knows one queue by both names, and what is asked for last holds.
TEST_F(Hostile, NamesThatDifferInCaseAloneAreOneQueue) {
    std::string name = "office_LASERS";
    addPrinter(name, "TAG7");
    EXPECT_EQ(queueOf("TAG7"), "Office_Lasers");
    EXPECT_EQ(queueOf("TAG2"), "0");
}

// What the tools are given, on stand-ins that take everything.
TEST_F(Hostile, EveryTextIsOneArgument) {
    standIn("lpadmin", "for word; do printf '%s\\0' \"$word\"; done >$folder/words");
    standIn("lpstat", "cat $folder/listing 2>&-; rm -f $folder/listing");
    for (const std::string& text : corpus()) {
        std::string name = text;
        addPrinter(name, "TAG7");
        if (text.find('\0') == std::string::npos) {
            const std::string words = contents(folder / "words");
            EXPECT_EQ(words.substr(0, name.size() + 4), std::string("-p\0", 3) + name + '\0');
            EXPECT_THAT(words, testing::HasSubstr(std::string("\0-D\0", 4) + text + '\0'));
            deletePrinter(text, "TAG7");
            EXPECT_EQ(contents(folder / "words"), std::string("-x\0", 3) + name + '\0');
        }
        if (const std::string id = "TAG7" + text; isValidPrinterId(id)) {
            addPrinter(name = "Own", id);
            EXPECT_THAT(contents(folder / "words"),
                        testing::HasSubstr(std::string("\0-v\0", 4) + kUri + id + '\0'));
            std::ofstream(folder / "listing") << "device for " << id << ": " << kUri << "TAG7\n";
            setDefaultPrinter("TAG7");
            EXPECT_TRUE(id.find('/') != std::string::npos ||
                        contents(folder / "words") == std::string("-d\0", 3) + id + '\0');
        }
    }
    EXPECT_TRUE(fs::is_empty(folder / "work"));
}

}  // namespace
}  // namespace qnt
