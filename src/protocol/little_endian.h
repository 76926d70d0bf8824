// The integers inside messages: unsigned 32-bit, little-endian, at any alignment. Records that the
// driver takes from memory are structs instead (hostlink/device_request.h).

#pragma once

#include <cstdint>

namespace qnt {

inline std::uint32_t readU32(const std::uint8_t* bytes) {
    return std::uint32_t{bytes[0]} | std::uint32_t{bytes[1]} << 8 | std::uint32_t{bytes[2]} << 16 |
           std::uint32_t{bytes[3]} << 24;
}

inline void writeU32(std::uint8_t* bytes, std::uint32_t value) {
    bytes[0] = static_cast<std::uint8_t>(value);
    bytes[1] = static_cast<std::uint8_t>(value >> 8);
    bytes[2] = static_cast<std::uint8_t>(value >> 16);
    bytes[3] = static_cast<std::uint8_t>(value >> 24);
}

}  // namespace qnt
