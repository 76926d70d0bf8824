// The growable byte array behind the buffers of the printing protocol.

#pragma once

#include <cstddef>
#include <cstdint>

namespace qnt {

// Bytes whose number changes on request, to exactly the size asked for; new bytes are zero. The
// host may ask for sizes up to 4 GiB; new memory comes zeroed from the system, so that one costs
// nothing before it is used. One owner, one thread; throws nothing.
class ByteArray {
public:
    ByteArray() = default;
    ~ByteArray();
    ByteArray(const ByteArray&) = delete;
    ByteArray& operator=(const ByteArray&) = delete;

    // Makes the array `size` bytes long. False when memory runs out; the array is then unchanged.
    // Cutting keeps the storage, so a pointer to it stays valid and growing back can't fail.
    bool resize(std::size_t size);

    std::uint8_t* data() { return m_bytes; }
    const std::uint8_t* data() const { return m_bytes; }
    std::size_t size() const { return m_size; }
    // The bytes that may be read and written at data(), at least size().
    std::size_t storage() const { return m_storage; }

private:
    std::uint8_t* m_bytes = nullptr;
    std::size_t m_size = 0;
    std::size_t m_storage = 0;
};

}  // namespace qnt
