// The item stream: the typed, nestable encoding of every payload and of the status messages.
//
//   stream header, 12 bytes at the base offset: bodyLength, magic 0x1000, reserved 0
//   items without gaps, each: length, type, index (0, 1, 2, ...), then `length` data bytes
//
// Integers are encoded as in little_endian.h. The data of an item may be a nested stream, base 0.

#pragma once

#include <cstdint>
#include <string_view>

#include "protocol/little_endian.h"

namespace qnt {

inline constexpr std::uint32_t kStreamMagic = 0x1000;
inline constexpr std::uint32_t kStreamMagicOther = 0xACDCBABA;  // accepted by a reader as well

inline constexpr std::uint32_t kStreamBodyLengthOffset = 0;
inline constexpr std::uint32_t kStreamMagicOffset = 4;
inline constexpr std::uint32_t kStreamReservedOffset = 8;
inline constexpr std::uint32_t kStreamHeaderSize = 12;

inline constexpr std::uint32_t kItemLengthOffset = 0;
inline constexpr std::uint32_t kItemTypeOffset = 4;
inline constexpr std::uint32_t kItemIndexOffset = 8;
inline constexpr std::uint32_t kItemHeaderSize = 12;

enum StreamResult : std::int32_t {
    kStreamOk = 0,
    kStreamNoMemory = -2,
    kStreamBadHeader = -3,  // too short for a stream header, or a magic that is not accepted
    kStreamTooShort = -4,   // the stream runs past the buffer, or the item past the stream
    kStreamBadIndex = -5,
    kStreamEnded = -7,
    kStreamOverrun = -8,  // the position is beyond the stream's end
};

// Reads or writes one stream over one buffer. create() makes a stream that owns its buffer; open()
// makes one that reads the caller's buffer, which must outlive it. Never reads outside the bytes
// passed to open(). Takes no lock; throws nothing.
class ItemStream {
public:
    ItemStream() = default;
    ~ItemStream() { release(); }
    ItemStream(const ItemStream&) = delete;
    ItemStream& operator=(const ItemStream&) = delete;

    // Writing. create() releases the current buffer and allocates one with an empty stream at the
    // base offset; the bytes before it are uninitialised. appendItem() and appendText() append a
    // copy of one item to a stream that create() has made. They return kStreamOk, or
    // kStreamNoMemory: create() then leaves no stream, the append functions leave it unchanged.
    [[nodiscard]] StreamResult create(std::uint32_t base);
    [[nodiscard]] StreamResult appendItem(std::uint32_t type, const void* data,
                                          std::uint32_t length);
    [[nodiscard]] StreamResult appendText(std::uint32_t type, std::string_view text);

    // Reading. open() succeeds if the header and the first item are valid, so a stream without
    // items does not open. next() moves to the following item and may be called only while the last
    // result was kStreamOk. Any other result ends the reading: callers treat the end of the stream
    // and a malformed item alike.
    [[nodiscard]] StreamResult open(const std::uint8_t* buffer, std::uint32_t bufferLength,
                                    std::uint32_t base);
    [[nodiscard]] StreamResult next();

    // The current item; valid while the last open() or next() returned kStreamOk.
    std::uint32_t itemType() const;
    std::uint32_t itemLength() const;
    const std::uint8_t* itemData() const;
    std::string_view itemText() const;

    // The length of the buffer's used part: base, header and items.
    std::uint32_t streamEnd() const;
    // The start of the buffer, writable only in a stream that owns it.
    std::uint8_t* data() const { return m_buffer; }

    // Frees an owned buffer.
    void release();

private:
    StreamResult validateItem() const;
    [[nodiscard]] bool growTo(std::uint64_t size);
    std::uint8_t* header() const { return m_buffer + m_base; }

    std::uint32_t m_counter = 0;   // index of the current item, or of the next one to write
    std::uint32_t m_base = 0;      // offset of the stream header
    std::uint32_t m_position = 0;  // offset of the current item's header, or of the next to write
    std::uint8_t* m_buffer = nullptr;
    std::uint32_t m_capacity = 0;
    std::uint32_t m_borrowed = 0;  // 0 when the stream owns its buffer
};

// Inline for speed: a printer list has three items and one nested stream per printer.

inline StreamResult ItemStream::next() {
    m_position += itemLength() + kItemHeaderSize;
    ++m_counter;
    return validateItem();
}

inline std::uint32_t ItemStream::itemType() const {
    return readU32(m_buffer + m_position + kItemTypeOffset);
}

inline std::uint32_t ItemStream::itemLength() const {
    return readU32(m_buffer + m_position + kItemLengthOffset);
}

inline const std::uint8_t* ItemStream::itemData() const {
    return m_buffer + m_position + kItemHeaderSize;
}

inline std::string_view ItemStream::itemText() const {
    return {reinterpret_cast<const char*>(itemData()), itemLength()};
}

// May wrap at 32 bits; open() and validateItem() reject what results from that.
inline std::uint32_t ItemStream::streamEnd() const {
    return m_base + kStreamHeaderSize + readU32(header() + kStreamBodyLengthOffset);
}

inline StreamResult ItemStream::validateItem() const {
    const std::uint32_t end = streamEnd();
    if (m_position == end)
        return kStreamEnded;
    if (end < m_position)
        return kStreamOverrun;
    if (end - m_position < kItemHeaderSize)
        return kStreamTooShort;
    if (readU32(m_buffer + m_position + kItemIndexOffset) != m_counter)
        return kStreamBadIndex;
    if (std::uint64_t{m_position} + kItemHeaderSize + itemLength() > end)
        return kStreamTooShort;
    return kStreamOk;
}

}  // namespace qnt
