// What the fuzz targets share: the host's answers cut out of the input, and a second reader of
// item streams, written for plainness, against which the service's own is held.

#pragma once

#undef NDEBUG
#include <algorithm>
#include <cassert>
#include <string>
#include <vector>

#include "log/log_record.h"
#include "protocol/item_stream.h"
#include "protocol/little_endian.h"
#include "protocol/printing_format.h"

namespace fuzz {

using Bytes = std::vector<std::uint8_t>;

// Records are composed and then dropped.
inline const bool g_quiet = [] {
    qnt::logSetLevel(3);
    qnt::logSetSink([](const char*, std::int32_t) { return 0; });
    return true;
}();

struct Item {
    std::uint32_t type = 0;
    Bytes data;
    std::string text() const { return {data.begin(), data.end()}; }
};

struct Items {
    std::vector<Item> items;
    bool whole = false;  // no fault comes behind the last item
};

// The items of the stream that starts at `base`, up to its first fault.
inline Items readItems(const Bytes& bytes, std::uint64_t base = 0) {
    Items read;
    const auto field = [&](std::uint64_t at) { return qnt::readU32(&bytes[at]); };
    std::uint64_t at = base + 12;
    if (at > bytes.size() || field(base) > bytes.size() - at ||
        (field(base + 4) != 0x1000 && field(base + 4) != 0xACDCBABA))
        return read;
    for (const std::uint64_t end = at + field(base); !(read.whole = at == end);) {
        if (end - at < 12 || field(at) > end - at - 12 || field(at + 8) != read.items.size())
            return read;
        const std::uint8_t* data = bytes.data() + at + 12;
        read.items.push_back({field(at + 4), Bytes(data, data + field(at))});
        at += 12 + field(at);
    }
    return read;
}

// The input as the answers of a host: each two bytes of length, then so many bytes.
struct Answers {
    Bytes bytes;
    std::size_t at = 0;

    // Writes the next answer into the room that a request offers; false after the last. A size
    // asked for beyond 4 KiB is made smaller, so that a run stays short, but keeps its low bits.
    bool deliver(std::uint8_t* buffer, std::size_t outSize) {
        if (bytes.size() - at < 2)
            return false;
        const std::size_t announced = bytes[at] + std::size_t{256} * bytes[at + 1];
        const std::size_t length = std::min(announced, bytes.size() - at - 2);
        std::copy_n(bytes.data() + at + 2, std::min(length, outSize), buffer);
        at += 2 + length;
        if (const std::uint32_t asked = qnt::readU32(buffer + 16); asked > 4096)
            qnt::writeU32(buffer + 16, 4096 + asked % 4096);
        return true;
    }
};

}  // namespace fuzz
