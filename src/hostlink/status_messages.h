// The status messages "initialized" and "stopped", sent over the link.
//
//   offset  size  field
//        0    16  prefix: the words 14, 0, 1, 0
//       16    12  stream header (protocol/item_stream.h)
//       28        items: StatusItemProtocol; those of AppName, Version, State and Extra that the
//                 caller supplies, in this order; StatusItemAppId
//
// Texts have no NUL terminator. All integers are little-endian, 32-bit. The service sends no extra
// data and no values of its own in the version; both belong to the fixed interface.

#pragma once

#include <cstddef>
#include <cstdint>

#include "hostlink/kavelink.h"

namespace qnt {

enum StatusItemType : std::uint32_t {
    StatusItemProtocol = 0x2001,  // the words 1 and 3
    StatusItemAppName = 0x20CA,
    StatusItemVersion = 0x20CB,  // a ToolVersionRecord
    StatusItemState = 0x20CC,
    StatusItemExtra = 0x20CD,
    StatusItemAppId = 0x2191,
};

// The first words of every status message.
inline constexpr std::uint32_t StatusMessagePrefix[] = {14, 0, 1, 0};
inline constexpr std::uint32_t kStatusPrefixSize = sizeof StatusMessagePrefix;

// Appended to the message as it is in memory: little-endian, as the service runs on x86-64 only.
struct ToolVersionRecord {
    std::uint32_t majorVersion;
    std::uint32_t zero;
    std::uint32_t buildNumber;
    std::uint32_t mark;  // 0x80000000
    std::uint32_t callerValues[2];
    std::uint32_t packedVersion;  // major version << 26 | build number
    std::uint32_t nine;
    std::uint32_t zeros[2];
};
static_assert(sizeof(ToolVersionRecord) == 40);
static_assert(offsetof(ToolVersionRecord, callerValues) == 16);
static_assert(offsetof(ToolVersionRecord, packedVersion) == 24);

enum StatusResult : std::int32_t {
    kStatusSent = 0,
    kStatusBadArgument = -1,
    kStatusNoMemory = -2,
    kStatusNoItem = -3,      // an item could not be appended
    kStatusCallFailed = -4,  // the link call failed
};

// The content of a status message. Null fields are omitted; the pointers are borrowed. The service
// itself sends no extra bytes.
struct ToolStatus {
    const char* applicationId = nullptr;  // required
    const char* applicationName = nullptr;
    const ToolVersionRecord* version = nullptr;
    const char* state = nullptr;
    const void* extra = nullptr;
    std::uint32_t extraSize = 0;  // bytes
};

// Fills the record with the product's version, fixed at build time, and two values from the caller.
void fillVersionRecord(ToolVersionRecord& record, std::uint32_t first, std::uint32_t second);

// Sends a status message over an open link. Logs nothing.
StatusResult sendToolStatus(KavelinkLink* link, const ToolStatus& status);

}  // namespace qnt
