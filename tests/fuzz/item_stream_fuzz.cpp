// Any bytes as an item stream: the reader finds what the plain reader finds, in the same places,
// and writing it again gives the same bytes.

#include <cstring>

#include "fuzz_input.h"

using fuzz::require;

static void walk(const fuzz::Bytes& bytes, std::uint32_t base) {
    const fuzz::Items expected = fuzz::readItems(bytes, base);
    qnt::ItemStream reader;
    qnt::ItemStream writer;
    require(writer.create(base) == qnt::kStreamOk, "a stream is created");
    std::int32_t result = reader.open(bytes.data(), static_cast<std::uint32_t>(bytes.size()), base);
    for (const fuzz::Item& item : expected.items) {
        require(result == qnt::kStreamOk, "no fewer items than there are");
        require(reader.itemType() == item.type && reader.itemText() == item.text(), "the item");
        require(reader.itemData() == bytes.data() + writer.streamEnd() + 12, "its place");
        require(writer.appendText(item.type, item.text()) == qnt::kStreamOk, "an item is written");
        walk(item.data, 0);
        result = reader.next();
    }
    require(result != qnt::kStreamOk, "no more items than there are");
    require((result == qnt::kStreamEnded) == expected.whole, "the end is told as it is");
    const std::size_t items = std::size_t{base} + 12;
    require(expected.items.empty() || std::memcmp(writer.data() + items, bytes.data() + items,
                                                  writer.streamEnd() - items) == 0,
            "written again, the items are the same bytes");
    require(!expected.whole || writer.streamEnd() == reader.streamEnd(), "and end where they did");
}

// The first four bytes are the base offset, which may lie behind the end.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size >= 4 && qnt::readU32(data) <= 0xFFFF)
        walk(fuzz::Bytes(data + 4, data + size), qnt::readU32(data));
    return 0;
}
