// Any bytes as an item stream: the reader finds what the plain reader finds, in the same places,
// and writing it again gives the same bytes.

#include "tests/fuzz/fuzz_input.h"

static void walk(const fuzz::Bytes& bytes, std::uint32_t base) {
    const fuzz::Items expected = fuzz::readItems(bytes, base);
    qnt::ItemStream reader;
    qnt::ItemStream writer;
    assert(writer.create(base) == qnt::kStreamOk);
    std::int32_t result = reader.open(bytes.data(), static_cast<std::uint32_t>(bytes.size()), base);
    for (const fuzz::Item& item : expected.items) {
        assert(result == qnt::kStreamOk);
        assert(reader.itemType() == item.type && reader.itemText() == item.text());
        assert(reader.itemData() == bytes.data() + writer.streamEnd() + 12);
        assert(writer.appendText(item.type, item.text()) == qnt::kStreamOk);
        walk(item.data, 0);
        result = reader.next();
    }
    assert(result != qnt::kStreamOk);
    assert((result == qnt::kStreamEnded) == expected.whole);
    assert(!expected.whole || writer.streamEnd() == reader.streamEnd());
    assert(expected.items.empty() ||
           std::equal(writer.data() + base + 12, writer.data() + writer.streamEnd(),
                      bytes.data() + base + 12));
}

// The first four bytes are the base offset, which may lie behind the end.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size >= 4 && qnt::readU32(data) <= 0xFFFF)
        walk(fuzz::Bytes(data + 4, data + size), qnt::readU32(data));
    return 0;
}
