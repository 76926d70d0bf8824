#include "protocol/printing_messages.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

#include "log/log_record.h"
#include "protocol/printing_format.h"
#include "tests/support/stream_bytes.h"

namespace qnt {
namespace {

std::string g_log;

// Keeps the level mark, the prefix and the message of each record.
int keepRecord(const char* record, std::int32_t length) {
    const std::string text(record, static_cast<std::size_t>(length));
    g_log += text[19] + text.substr(text.find("/ ") + 1);
    return 0;
}

struct PrintingMessages : testing::Test {
    PrintingMessages() {
        g_log.clear();
        logSetSink(keepRecord);
    }
};

// A buffer with an answer's leavings in it.
struct Buffer : ByteArray {
    explicit Buffer(std::size_t size) {
        if (resize(size) && size != 0)
            std::memset(data(), 0xEE, size);
    }
    Bytes bytes() const { return Bytes(data(), data() + size()); }
};

struct Item {
    std::uint32_t type;
    Bytes data;
};

Bytes stream(const std::vector<Item>& items) {
    Bytes body;
    std::uint32_t index = 0;
    for (const auto& [type, data] : items)
        body = body + words({static_cast<std::uint32_t>(data.size()), type, index++}) + data;
    return words({static_cast<std::uint32_t>(body.size()), 0x1000, 0}) + body;
}

const auto code = [](std::uint32_t value) { return Item{CmdCode, words({value})}; };
const auto id = [](std::string_view text) { return Item{PrinterId, Bytes() + text}; };
const auto name = [](std::string_view text) { return Item{PrinterName, Bytes() + text}; };
const auto entry = [](const std::vector<Item>& items) { return Item{PrinterEntry, stream(items)}; };
const auto list = [](const std::vector<Item>& items) { return Item{PrinterList, stream(items)}; };

// What parsing gives, in words: the code or "unusable", the id, and each printer. The bytes lie in
// a buffer without a spare byte behind it.
std::string parsed(const Bytes& payload) {
    const Bytes exact(payload.begin(), payload.end());
    PrintingCmd command;
    const bool usable =
        parsePrintingCmd(command, exact.data(), static_cast<std::uint32_t>(exact.size()));
    std::string outcome = usable ? std::to_string(command.code) : "unusable";
    if (!command.printerId.empty())
        outcome += ' ' + command.printerId;
    for (const QueueBinding& printer : command.printers)
        outcome += ' ' + printer.id + '=' + printer.queueName;
    return outcome;
}

TEST_F(PrintingMessages, FillsTheResultAndGrowsTheBufferNoFurtherThanNeeded) {
    const Bytes request = words({1, 4, 7}) + Bytes(68) + words({16, 0x1000, 0, 4, 0x200E, 0, 2});
    for (const std::size_t before : {80u, 107u, 108u, 200u}) {
        Buffer buffer(before);
        std::uint32_t size = 0;
        ASSERT_TRUE(fillPrintingCmdAnsRequest(buffer, 2, 7, size));
        EXPECT_EQ(size, 108u);
        EXPECT_EQ(buffer.bytes(), request + Bytes(std::max<std::size_t>(before, 108) - 108, 0xEE));
    }
}

// The payload of a list of one printer.
const Bytes kListAnswer = words({95, 0x1000, 0}) + words({4, 0x200D, 0, 4}) +
                          words({67, 0x200F, 1, 55, 0x1000, 0}) +
                          words({43, 0x200C, 0, 31, 0x1000, 0}) + words({4, 0x200A, 0}) + "TAG1" +
                          words({3, 0x200B, 1}) + "Lab";

TEST_F(PrintingMessages, ParsesAnAnswerByteByByteAndNoTruncationOfIt) {
    EXPECT_EQ(parsed(kListAnswer), "4 TAG1=Lab");
    for (Bytes cut = kListAnswer; !cut.empty();) {
        cut.pop_back();
        EXPECT_EQ(parsed(cut), "unusable") << cut.size();
        if (cut.size() < 12)
            continue;
        Bytes honest = cut;
        writeU32(honest.data(), static_cast<std::uint32_t>(cut.size()) - 12);
        EXPECT_EQ(parsed(honest), "unusable") << cut.size();
    }
}

TEST_F(PrintingMessages, ReadsNothingFalseWhereALengthLies) {
    for (const std::size_t offset : {0u, 12u, 28u, 40u, 52u, 64u, 76u, 92u})
        for (const std::uint32_t value : edgeValues()) {
            Bytes payload = kListAnswer;
            const std::uint32_t truth = readU32(&payload[offset]);
            writeU32(&payload[offset], value);
            std::string outcome = "unusable";
            if (value == truth || (offset == 92 && value < truth))
                outcome = "4 TAG1=" + std::string("Lab").substr(0, value);
            else if (offset == 40 || (offset == 28 && value < truth) ||
                     (offset == 52 && value > truth))
                outcome = "4";  // the list does not open, like an empty one
            EXPECT_EQ(parsed(payload), outcome) << offset << ' ' << value;
        }
}

TEST_F(PrintingMessages, ParsesWhatIsAUsableCommandOnly) {
    const Item lab = entry({id("TAG1"), name("Lab")});
    const Item hall = entry({name("Hall"), id("TAG2")});
    const Item twice = entry({id("x"), name("y"), name("Den"), id("TAG3")});
    const Item nameless = entry({id("TAG4")});
    const Item raw = entry({id("T\xFF"), name({"Lab \0", 5})});
    const std::vector<std::pair<std::vector<Item>, std::string>> cases = {
        {{code(3)}, "3"},
        {{code(0)}, "0"},
        {{id("TAG1")}, "unusable TAG1"},
        {{{CmdCode, Bytes(3)}}, "unusable"},
        {{{CmdCode, words({5}) + "x"}}, "5"},
        {{code(5), {CmdCode, Bytes(3)}}, "5"},
        {{code(1)}, "unusable"},
        {{code(2), list({lab})}, "unusable TAG1=Lab"},
        {{id(""), code(1)}, "1"},
        {{code(1), id("A"), id("B"), code(2)}, "2 B"},
        {{code(4), lab, id("TAG1")}, "unusable TAG1"},
        {{code(4), list({})}, "4"},
        {{code(4), {PrinterList, {}}}, "4"},
        {{list({lab, hall, twice}), code(4)}, "4 TAG1=Lab TAG2=Hall TAG3=Den"},
        {{code(4), list({lab, nameless, hall})}, "unusable TAG1=Lab"},
        {{code(4), list({entry({name("Den")})})}, "unusable"},
        {{code(4), list({lab, {PrinterList, hall.data}})}, "unusable TAG1=Lab"},
        {{code(4), list({hall, entry({})})}, "unusable TAG2=Hall"},
        {{code(4), list({lab}), list({hall, nameless})}, "4 TAG2=Hall"},
        {{code(3), list({nameless})}, "3"},
        {{code(4), list({raw})}, "4 T\xFF=Lab " + std::string(1, 0)},
    };
    for (const auto& [items, outcome] : cases)
        EXPECT_EQ(parsed(stream(items)), outcome);
}

TEST_F(PrintingMessages, TellsOfSkippedItemsFromLevelTwo) {
    const Item other = {7, Bytes() + "twelve bytes"};
    const Bytes answer =
        stream({other, list({entry({other, id("TAG1"), name("Lab")})}), name("x"), code(4)});
    logSetLevel(1);
    EXPECT_EQ(parsed(answer), "4 TAG1=Lab");
    ASSERT_EQ(g_log, "");
    logSetLevel(2);
    EXPECT_EQ(parsed(answer), "4 TAG1=Lab");
    const std::string skipped = "I [PRINTING_TOOL] Unsupported data skipped, type = ";
    const std::string twelve = skipped + "7, size = 12\n";
    EXPECT_EQ(g_log, twelve + twelve + skipped + "8203, size = 1\n");
}

}  // namespace
}  // namespace qnt
