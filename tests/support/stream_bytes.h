// Bytes as they lie in a payload, composed from words and texts.

#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

#include "protocol/little_endian.h"

namespace qnt {

using Bytes = std::vector<std::uint8_t>;

inline Bytes words(const std::vector<std::uint32_t>& values) {
    Bytes bytes(4 * values.size());
    for (std::size_t i = 0; i < values.size(); ++i)
        writeU32(&bytes[4 * i], values[i]);
    return bytes;
}

inline Bytes operator+(Bytes bytes, std::string_view text) {
    bytes.insert(bytes.end(), text.begin(), text.end());
    return bytes;
}

inline Bytes operator+(Bytes bytes, const Bytes& more) {
    bytes.insert(bytes.end(), more.begin(), more.end());
    return bytes;
}

// Lengths that lie: the powers of two and their neighbours, and what wraps behind a header.
inline std::vector<std::uint32_t> edgeValues() {
    std::vector<std::uint32_t> values;
    for (int bit = 0; bit < 32; ++bit)
        for (const std::uint32_t value : {(1U << bit) - 1, 1U << bit, (1U << bit) + 1})
            values.push_back(value);
    for (std::uint32_t back = 1; back <= 200; ++back)
        values.push_back(-back);
    return values;
}

}  // namespace qnt
