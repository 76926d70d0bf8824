// The codec of what is exchanged with the host: item streams, requests and answers.

#include <gtest/gtest.h>

#include <cstring>

#include "protocol/item_stream.h"
#include "protocol/printing_format.h"
#include "protocol/printing_messages.h"
#include "sim/host_messages.h"
#include "tests/support/bytes.h"
#include "tests/support/captured_log.h"

namespace qnt {
namespace {

using sim::Item;
using Texts = std::vector<std::string>;

Bytes stream(const std::vector<Item>& items) {
    Bytes body;
    std::uint32_t index = 0;
    for (const auto& [type, data] : items)
        body = body + words({static_cast<std::uint32_t>(data.size()), type, index++}) + data;
    return words({static_cast<std::uint32_t>(body.size()), kStreamMagic, 0}) + body;
}

// The texts of the items, and the result that ended the walk. The bytes are copied to where none
// follows, so that the address sanitizer notices a read past them.
std::pair<Texts, std::int32_t> walk(const Bytes& bytes, std::uint32_t base) {
    const Bytes exact(bytes.begin(), bytes.end());
    Texts texts;
    ItemStream stream;
    auto result = stream.open(exact.data(), static_cast<std::uint32_t>(exact.size()), base);
    for (; result == kStreamOk; result = stream.next())
        texts.emplace_back(stream.itemText());
    return {texts, result};
}

TEST(ItemStream, ReadsBackWhatItHasGrownToHold) {
    ItemStream stream;
    ASSERT_EQ(stream.create(80), kStreamOk);
    Texts texts;
    for (std::size_t i = 0; i < 700; ++i) {
        texts.emplace_back(i, static_cast<char>('a' + i % 26));
        ASSERT_EQ(stream.appendText(static_cast<std::uint32_t>(i), texts.back()), kStreamOk);
    }
    EXPECT_EQ(stream.appendItem(1, "", 0xFFFFFFFF), kStreamNoMemory);  // and stays as it was
    const Bytes written(stream.data() + 80, stream.data() + stream.streamEnd());
    EXPECT_EQ(walk(Bytes(80) + written, 80), std::pair(texts, +kStreamEnded));
    EXPECT_EQ(ItemStream().create(0xFFFFFFF0), kStreamNoMemory);
}

TEST(ItemStream, StopsAtTheFirstFieldThatIsNotValid) {
    const Bytes two = words({31, 0x1000, 0, 4, 7, 0}) + "abcd" + words({3, 8, 1}) + "xyz";
    const struct {
        std::uint32_t offset, value;  // written over the two items' stream
        std::size_t items;
        std::int32_t result;
    } rows[] = {
        {kStreamMagicOffset, 0xACDCBABA, 2, kStreamEnded},
        {kStreamMagicOffset, 0x1001, 0, kStreamBadHeader},
        {kStreamBodyLengthOffset, 0, 0, kStreamEnded},
        {kStreamBodyLengthOffset, 11, 0, kStreamTooShort},  // not even an item's header
        {kStreamBodyLengthOffset, 16, 1, kStreamEnded},
        {kStreamBodyLengthOffset, 27, 1, kStreamTooShort},
        {kStreamBodyLengthOffset, 32, 0, kStreamTooShort},
        {kStreamBodyLengthOffset, 0x80000000, 0, kStreamTooShort},
        {kStreamBodyLengthOffset, 0xFFFFFFF8, 0, kStreamOverrun},
        {12 + kItemLengthOffset, 20, 0, kStreamTooShort},
        {12 + kItemLengthOffset, 0xFFFFFFF4, 0, kStreamTooShort},
        {12 + kItemIndexOffset, 1, 0, kStreamBadIndex},
        {28 + kItemLengthOffset, 4, 1, kStreamTooShort},
        {28 + kItemIndexOffset, 0, 1, kStreamBadIndex},
        {28 + kItemIndexOffset, 2, 1, kStreamBadIndex},
    };
    for (const std::uint32_t base : {0U, 80U})
        for (const auto& [offset, value, items, result] : rows) {
            Bytes bytes = Bytes(base) + two;
            writeU32(&bytes[base + offset], value);
            const auto [texts, ended] = walk(bytes, base);
            EXPECT_EQ(texts.size(), items) << offset << ' ' << value;
            EXPECT_EQ(ended, result) << offset << ' ' << value;
        }
    EXPECT_EQ(walk(words({11, 0x1000, 0}) + Bytes(11, 0xFF), 0).second, kStreamTooShort);
    EXPECT_EQ(walk(Bytes(11), 0).second, kStreamBadHeader);
    EXPECT_EQ(walk(two, 1000).second, kStreamBadHeader);
}

// A buffer with the remains of an answer in it.
struct Buffer : ByteArray {
    explicit Buffer(std::size_t size) {
        EXPECT_TRUE(resize(size));
        std::memset(data(), 0xEE, size);
    }
    Bytes bytes() const { return Bytes(data(), data() + size()); }
};

TEST(ByteArray, HasZeroInNewBytesAlsoWhenItGrowsBack) {
    Buffer buffer(100);
    for (const std::size_t size : {60U, 100U, 20000U, 40U, 20000U})
        ASSERT_TRUE(buffer.resize(size));
    EXPECT_EQ(buffer.bytes(), Bytes(40, 0xEE) + Bytes(19960));
}

TEST(ByteArray, FreesItsMemory) {
    const auto mappedPages = [] { return std::stol(contents("/proc/self/statm")); };
    const long before = mappedPages();
    for (int times = 0; times < 1000; ++times)
        Buffer(20000);
    EXPECT_LT(mappedPages(), before + 1000);
}

TEST(Requests, AreWrittenAsDocumentedAndTheBufferGrowsNoFurtherThanNeeded) {
    for (const std::size_t before : {80U, 107U, 108U, 200U}) {
        Buffer buffer(before);
        std::uint32_t size = 0;
        ASSERT_TRUE(fillPrintingCmdAnsRequest(buffer, CmdDone, 17, size));
        EXPECT_EQ(size, 108U);
        EXPECT_EQ(buffer.bytes(), documented("printing-cmd-answer") +
                                      Bytes(std::max<std::size_t>(before, 108) - 108, 0xEE));
    }
    Buffer buffer(80);
    std::uint32_t size = 0;
    fillPrintingCmdRequest(buffer, 17, size);
    EXPECT_EQ(buffer.bytes(), documented("get-printing-cmd"));
    fillPrintingCmdPendingRequest(buffer, size);
    EXPECT_EQ(buffer.bytes(), words({1, PrintingCmdPending}) + Bytes(72));
    ASSERT_TRUE(fillUserDeletedPrintersRequest(buffer, {{"TAGA", ""}, {"TAGBC", ""}}));
    EXPECT_EQ(buffer.bytes(), documented("user-deleted-printers"));
}

// A command in words, "not usable" where parsing fails; followed by what was read until then.
std::string parsed(const Bytes& payload) {
    const Bytes exact(payload.begin(), payload.end());
    PrintingCmd command;
    const bool usable =
        parsePrintingCmd(command, exact.data(), static_cast<std::uint32_t>(exact.size()));
    std::string outcome = usable ? "command " + std::to_string(command.code) : "not usable";
    if (!command.printerId.empty())
        outcome += ", id " + command.printerId;
    for (const QueueBinding& printer : command.printers)
        outcome += ", " + printer.id + " is " + printer.queueName;
    return outcome;
}

TEST(Answers, AreReadAsDocumented) {
    const auto answered = [](const std::string& example) {
        const Bytes answer = documented(example);
        Buffer buffer(answer.size());
        std::memcpy(buffer.data(), answer.data(), answer.size());
        EXPECT_EQ(processAnswerFromHost(buffer), AnswerCommand);
        EXPECT_EQ(answerPayloadLength(buffer), answer.size() - 80);
        return Bytes(answerPayload(buffer), answerPayload(buffer) + answerPayloadLength(buffer));
    };
    EXPECT_EQ(parsed(answered("add-printer")), "command 1, id TAG1");
    EXPECT_EQ(parsed(answered("printer-list")), "command 4, TAG1 is Lab");
    std::string id;
    const Bytes answer = answered("default-printer-answer");
    EXPECT_TRUE(
        parseDefaultPrinterAnswer(id, answer.data(), static_cast<std::uint32_t>(answer.size())));
    EXPECT_EQ(id, "TAG1");
}

const auto code = [](std::uint32_t value) { return Item{CmdCode, words({value})}; };
const auto id = [](std::string_view text) { return Item{PrinterId, Bytes() + text}; };
const auto name = [](std::string_view text) { return Item{PrinterName, Bytes() + text}; };
const auto entry = [](const std::vector<Item>& items) { return Item{PrinterEntry, stream(items)}; };
const auto list = [](const std::vector<Item>& items) { return Item{PrinterList, stream(items)}; };

TEST(Answers, AreCommandsIfComplete) {
    const Item lab = entry({id("TAG1"), name("Lab")});
    const Item hall = entry({name("Hall"), id("TAG2")});
    const Item twice = entry({id("x"), name("y"), name("Den"), id("TAG3")});
    const Item nameless = entry({id("TAG4")});
    const Item raw = entry({id("T\xFF"), name({"Lab \0", 5})});
    const std::vector<std::pair<std::vector<Item>, std::string>> rows = {
        {{code(0)}, "command 0"},
        {{id("TAG1")}, "not usable, id TAG1"},
        {{{CmdCode, Bytes(3)}}, "not usable"},
        {{{CmdCode, words({5}) + "x"}}, "command 5"},
        {{code(5), {CmdCode, Bytes(3)}}, "command 5"},
        {{code(1)}, "not usable"},
        {{code(2), list({lab})}, "not usable, TAG1 is Lab"},
        {{id(""), code(1)}, "command 1"},
        {{code(1), id("A"), id("B"), code(2)}, "command 2, id B"},
        {{code(4), lab, id("TAG1")}, "not usable, id TAG1"},
        {{code(4), list({})}, "command 4"},
        {{code(4), {PrinterList, {}}}, "command 4"},
        {{list({lab, hall, twice}), code(4)}, "command 4, TAG1 is Lab, TAG2 is Hall, TAG3 is Den"},
        {{code(4), list({lab, nameless, hall})}, "not usable, TAG1 is Lab"},
        {{code(4), list({entry({name("Den")})})}, "not usable"},
        {{code(4), list({lab, {PrinterList, hall.data}})}, "not usable, TAG1 is Lab"},
        {{code(4), list({hall, entry({})})}, "not usable, TAG2 is Hall"},
        {{code(4), list({lab}), list({hall, nameless})}, "command 4, TAG2 is Hall"},
        {{code(3), list({nameless})}, "command 3"},
        {{code(4), list({raw})}, "command 4, T\xFF is Lab " + std::string(1, 0)},
    };
    for (const auto& [items, outcome] : rows)
        EXPECT_EQ(parsed(stream(items)), outcome);
    Bytes truncated = documented("printer-list");
    truncated.erase(truncated.begin(), truncated.begin() + 80);
    while (truncated.pop_back(), !truncated.empty())
        EXPECT_EQ(parsed(truncated), "not usable") << truncated.size();
}

TEST(Answers, HaveWhatIsSkippedOrMissingLogged) {
    const Item other = {7, Bytes() + "twelve bytes"};
    const std::string skipped = "I [PRINTING_TOOL] Unsupported data skipped, type = ";
    const std::string twelve = skipped + "7, size = 12\n";
    const std::string unusable = "W [PRINTING_TOOL] Unusable command: no ";
    const Bytes whole = stream({id("TAG1")});
    // The default printer that a payload names in its first item, and what a command lacks in it.
    const std::tuple<Bytes, std::string, std::string> rows[] = {
        {{}, "", "item stream (-3), payload size = 0\n"},
        {stream({}), "", "item stream (-7), payload size = 12\n"},
        {Bytes(whole.begin(), whole.end() - 1), "", "item stream (-4), payload size = 27\n"},
        {stream({id("TAG1"), id("TAG2")}), "TAG1",
         "command code, code = 0, stream size = 44, payload size = 44\n"},
        {stream({code(2)}), "", "printer id, code = 2, stream size = 28, payload size = 28\n"},
        {stream({code(4), id("TAG1")}) + "rest", "",
         "complete printer list, code = 4, stream size = 44, payload size = 48\n"}};
    for (const auto& [payload, defaultId, missing] : rows) {
        captureLog();
        parsed(payload);
        EXPECT_EQ(g_logged, unusable + missing);
        captureLog();
        std::string printerId = "unchanged";
        const auto size = static_cast<std::uint32_t>(payload.size());
        const bool isNamed = parseDefaultPrinterAnswer(printerId, payload.data(), size);
        EXPECT_EQ(isNamed, !defaultId.empty());
        EXPECT_EQ(printerId, isNamed ? defaultId : "unchanged");
        const std::string unnamed =
            "I [PRINTING_TOOL] Unusable default printer answer, payload size";
        EXPECT_EQ(g_logged, isNamed ? "" : unnamed + " = " + std::to_string(size) + '\n');
    }
    captureLog();
    parsed(stream({other, list({entry({other, id("TAG1"), name("Lab")})}), name("x"), code(4)}));
    EXPECT_EQ(g_logged, twelve + twelve + skipped + "8203, size = 1\n");
}

}  // namespace
}  // namespace qnt
