#include "protocol/item_stream.h"

#include <gtest/gtest.h>

#include "tests/support/stream_bytes.h"

namespace qnt {
namespace {

// Walks the stream in a copy that ends where its bytes end, so that the address sanitizer sees a
// read behind them. The items' texts, and the result that ended the walk.
struct Walk {
    explicit Walk(const Bytes& bytes, std::uint32_t base = 0) {
        const Bytes exact(bytes.begin(), bytes.end());
        ItemStream stream;
        for (result = stream.open(exact.data(), static_cast<std::uint32_t>(exact.size()), base);
             result == kStreamOk; result = stream.next())
            texts.emplace_back(stream.itemText());
    }
    std::vector<std::string> texts;
    std::int32_t result;
};

const Bytes kTwoItems = words({31, 0x1000, 0, 4, 7, 0}) + "abcd" + words({3, 8, 1}) + "xyz";

TEST(ItemStream, WritesHeaderAndItemsWithoutGaps) {
    ItemStream stream;
    ASSERT_EQ(stream.create(5), kStreamOk);
    stream.appendItem(7, "abcd", 4);
    stream.appendItem(9, nullptr, 0);
    stream.appendText(0xFFFFFFFF, "xyz");
    const Bytes written(stream.data() + 5, stream.data() + stream.streamEnd());
    EXPECT_EQ(written, words({43, 0x1000, 0, 4, 7, 0}) + "abcd" + words({0, 9, 1}) +
                           words({3, 0xFFFFFFFF, 2}) + "xyz");
}

TEST(ItemStream, ReadsBackWhatItHasGrownToHold) {
    ItemStream stream;
    ASSERT_EQ(stream.create(80), kStreamOk);
    std::vector<std::string> texts;
    for (std::size_t i = 0; i < 700; ++i) {
        texts.emplace_back(i, static_cast<char>('a' + i % 26));
        ASSERT_EQ(stream.appendText(static_cast<std::uint32_t>(i), texts.back()), kStreamOk);
    }
    EXPECT_EQ(stream.appendItem(1, "", 0xFFFFFFFF), kStreamNoMemory);  // and stays as it was
    const Walk walk(Bytes(stream.data(), stream.data() + stream.streamEnd()), 80);
    EXPECT_EQ(walk.texts, texts);
    EXPECT_EQ(walk.result, kStreamEnded);
    EXPECT_EQ(ItemStream().create(0xFFFFFFF0), kStreamNoMemory);
}

TEST(ItemStream, OpensWithEitherMagicOnly) {
    for (const auto& [magic, result] :
         std::vector<std::pair<std::uint32_t, std::int32_t>>{{0x1000, kStreamEnded},
                                                             {0xACDCBABA, kStreamEnded},
                                                             {0, kStreamBadHeader},
                                                             {0x1001, kStreamBadHeader},
                                                             {0xBABADCAC, kStreamBadHeader},
                                                             {16, kStreamBadHeader}}) {
        Bytes bytes = kTwoItems;
        writeU32(&bytes[kStreamMagicOffset], magic);
        writeU32(&bytes[kStreamReservedOffset], 0xFFFFFFFF);
        EXPECT_EQ(Walk(bytes).result, result) << magic;
    }
}

TEST(ItemStream, RefusesEachLengthThatLies) {
    for (const std::uint32_t base : {0u, 80u})
        for (const std::uint32_t value : edgeValues()) {
            Bytes bytes = Bytes(base) + kTwoItems;
            writeU32(&bytes[base], value);
            const bool wraps = value >= -(base + 12);
            const bool ends = value == 0 || value == 16 || value == 31;
            EXPECT_EQ(Walk(bytes, base).result, wraps  ? kStreamOverrun
                                                : ends ? kStreamEnded
                                                       : kStreamTooShort)
                << base << " bodyLength " << value;
            writeU32(&bytes[base], 31);
            writeU32(&bytes[base + 12 + 16], value);  // of the second item
            EXPECT_EQ(Walk(bytes, base).texts.size(), value <= 3 ? 2u : 1u) << value;
            writeU32(&bytes[base + 12], value);  // of the first
            EXPECT_EQ(Walk(bytes, base).texts.size(), value <= 19 ? 1u : 0u) << value;
        }
}

TEST(ItemStream, StopsAtAnIndexOutOfOrder) {
    for (const auto& [offset, index, items] :
         std::vector<std::tuple<std::size_t, std::uint32_t, std::size_t>>{
             {20, 1, 0}, {20, 0xFFFFFFFF, 0}, {36, 0, 1}, {36, 2, 1}, {36, 5, 1}}) {
        Bytes bytes = kTwoItems;
        writeU32(&bytes[offset], index);
        const Walk walk(bytes);
        EXPECT_EQ(walk.texts.size(), items);
        EXPECT_EQ(walk.result, kStreamBadIndex);
    }
}

}  // namespace
}  // namespace qnt
