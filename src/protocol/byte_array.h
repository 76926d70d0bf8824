// The growable byte array that holds a request and its answer.

#pragma once

#include <cstddef>
#include <cstdint>

namespace qnt {

// Bytes with an exact resize(); new bytes are zero. The host may ask for any sequence of sizes up
// to 4 GiB, and fill none of them. So the array consists of whole pages of anonymous memory, which
// cost nothing until they are written, are moved without being copied when the array grows, and go
// back to the system when it shrinks. One owner, one thread; throws nothing.
class ByteArray {
public:
    ByteArray() = default;
    ~ByteArray();
    ByteArray(const ByteArray&) = delete;
    ByteArray& operator=(const ByteArray&) = delete;

    // Makes the array `size` bytes long. False if there is not enough memory; the array is then
    // unchanged.
    [[nodiscard]] bool resize(std::size_t size);

    std::uint8_t* data() { return m_bytes; }
    const std::uint8_t* data() const { return m_bytes; }
    std::size_t size() const { return m_size; }
    // The bytes that may be read and written at data(): at least size(), and at least one page once
    // the array has been resized.
    std::size_t storage() const { return m_storage; }

private:
    [[nodiscard]] bool resizeStorage(std::size_t storage);

    std::uint8_t* m_bytes = nullptr;
    std::size_t m_size = 0;
    std::size_t m_storage = 0;  // whole pages
};

}  // namespace qnt
