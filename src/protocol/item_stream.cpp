#include "protocol/item_stream.h"

#include <bit>
#include <cstdlib>
#include <cstring>
#include <limits>

#include "protocol/little_endian.h"

namespace qnt {

StreamResult ItemStream::create(std::uint32_t base) {
    release();
    const std::uint64_t needed = std::uint64_t{base} + kStreamHeaderSize;
    if (!growTo(needed))
        return kStreamNoMemory;
    m_counter = 0;
    m_base = base;
    m_position = base + kStreamHeaderSize;
    writeU32(header() + kStreamBodyLengthOffset, 0);
    writeU32(header() + kStreamMagicOffset, kStreamMagic);
    writeU32(header() + kStreamReservedOffset, 0);
    return kStreamOk;
}

StreamResult ItemStream::appendItem(std::uint32_t type, const void* data, std::uint32_t length) {
    if (m_borrowed != 0)
        return kStreamNoMemory;  // a borrowed buffer can't grow
    const std::uint64_t end = std::uint64_t{m_position} + kItemHeaderSize + length;
    if (end > m_capacity && !growTo(end))
        return kStreamNoMemory;
    std::uint8_t* item = m_buffer + m_position;
    writeU32(item + kItemLengthOffset, length);
    writeU32(item + kItemTypeOffset, type);
    writeU32(item + kItemIndexOffset, m_counter);
    if (length != 0)
        std::memcpy(item + kItemHeaderSize, data, length);
    ++m_counter;
    m_position = static_cast<std::uint32_t>(end);
    writeU32(header() + kStreamBodyLengthOffset, m_position - m_base - kStreamHeaderSize);
    return kStreamOk;
}

StreamResult ItemStream::appendText(std::uint32_t type, std::string_view text) {
    if (text.size() > std::numeric_limits<std::uint32_t>::max())
        return kStreamNoMemory;
    return appendItem(type, text.data(), static_cast<std::uint32_t>(text.size()));
}

StreamResult ItemStream::open(const std::uint8_t* buffer, std::uint32_t bufferLength,
                              std::uint32_t base) {
    release();
    if (bufferLength < std::uint64_t{base} + kStreamHeaderSize)
        return kStreamBadHeader;
    m_buffer = const_cast<std::uint8_t*>(buffer);  // the reading functions never write to it
    m_borrowed = 1;
    m_capacity = bufferLength;
    m_base = base;
    const std::uint32_t magic = readU32(header() + kStreamMagicOffset);
    if (magic != kStreamMagic && magic != kStreamMagicOther)
        return kStreamBadHeader;
    if (bufferLength < streamEnd())
        return kStreamTooShort;
    m_position = base + kStreamHeaderSize;
    m_counter = 0;
    return validateItem();
}

void ItemStream::release() {
    if (m_borrowed == 0)
        std::free(m_buffer);
    m_buffer = nullptr;
    m_capacity = 0;
    m_borrowed = 0;
}

bool ItemStream::growTo(std::uint64_t size) {
    const std::uint64_t capacity = std::bit_ceil(size);
    if (capacity > std::numeric_limits<std::uint32_t>::max())
        return false;
    auto* grown = static_cast<std::uint8_t*>(std::realloc(m_buffer, capacity));
    if (grown == nullptr)
        return false;
    m_buffer = grown;
    m_capacity = static_cast<std::uint32_t>(capacity);
    return true;
}

}  // namespace qnt
