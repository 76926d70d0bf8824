// The record that the guest's kernel driver takes: a 16-byte header, inline data, then 16-byte
// buffer descriptors. The driver and the host read it from the sender's memory, so these are
// structs in memory order: little-endian, as the service runs on x86-64 only. Messages in the
// buffers are encoded byte by byte (protocol/little_endian.h).

#pragma once

#include <cstddef>
#include <cstdint>

namespace qnt {

inline constexpr char kRequestDevicePath[] = "/proc/driver/qnt_kl";

enum QntKlRequestCode : std::uint32_t {
    QntKlReqLinkCall = 0x8050,  // one exchange of the Open Kavelink link
    QntKlReqPrinting = 0x8900,  // one exchange of the printing protocol
};

// Values of DeviceRequestHeader::status after a submission; any other is a failure.
inline constexpr std::uint32_t kRequestDone = 0;
inline constexpr std::uint32_t kRequestCanceled = 0xF0000000;
inline constexpr std::uint32_t kRequestAgain = 0xF0000025;  // a link's probe: submit it again

inline constexpr std::uint32_t kBufferWritable = 1;  // bit 0 of BufferDescriptor::flags

struct DeviceRequestHeader {
    std::uint32_t code;
    std::uint32_t status;       // 0 at the first submission; then the result from the host
    std::uint16_t inlineSize;   // bytes of inline data after the header, a multiple of 8
    std::uint16_t bufferCount;  // descriptors after the inline data
    std::uint32_t reserved;
};
static_assert(sizeof(DeviceRequestHeader) == 16);
static_assert(offsetof(DeviceRequestHeader, status) == 4);
static_assert(offsetof(DeviceRequestHeader, inlineSize) == 8);
static_assert(offsetof(DeviceRequestHeader, bufferCount) == 10);

struct BufferDescriptor {
    std::uint64_t address;  // in the sender's memory
    std::uint32_t size;     // bytes
    std::uint32_t flags;    // kBufferWritable: the host writes its answer there
};
static_assert(sizeof(BufferDescriptor) == 16);
static_assert(offsetof(BufferDescriptor, size) == 8);

// The only request with buffers that the service sends: no inline data, two buffers.
struct DeviceRequest {
    DeviceRequestHeader header;
    BufferDescriptor buffers[2];
};
static_assert(sizeof(DeviceRequest) == 48);
static_assert(offsetof(DeviceRequest, buffers) == 16);

inline BufferDescriptor describeBuffer(const void* bytes, std::uint32_t size, std::uint32_t flags) {
    return {reinterpret_cast<std::uintptr_t>(bytes), size, flags};
}

}  // namespace qnt
