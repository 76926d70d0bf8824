#include "hostlink/status_messages.h"

#include <iterator>

#include "protocol/item_stream.h"
#include "protocol/little_endian.h"
#include "version.h"

namespace qnt {
namespace {

constexpr std::uint32_t kProtocolWords[] = {1, 3};

bool appendProtocol(ItemStream& message) {
    std::uint8_t bytes[sizeof kProtocolWords];
    for (std::size_t i = 0; i < std::size(kProtocolWords); ++i)
        writeU32(bytes + 4 * i, kProtocolWords[i]);
    return message.appendItem(StatusItemProtocol, bytes, sizeof bytes) == kStreamOk;
}

bool appendText(ItemStream& message, std::uint32_t type, const char* text) {
    return text == nullptr || message.appendText(type, text) == kStreamOk;
}

bool appendBytes(ItemStream& message, std::uint32_t type, const void* bytes, std::uint32_t size) {
    return bytes == nullptr || message.appendItem(type, bytes, size) == kStreamOk;
}

bool appendItems(ItemStream& message, const ToolStatus& status) {
    return appendProtocol(message) &&
           appendText(message, StatusItemAppName, status.applicationName) &&
           appendBytes(message, StatusItemVersion, status.version, sizeof(ToolVersionRecord)) &&
           appendText(message, StatusItemState, status.state) &&
           appendBytes(message, StatusItemExtra, status.extra, status.extraSize) &&
           appendText(message, StatusItemAppId, status.applicationId);
}

}  // namespace

void fillVersionRecord(ToolVersionRecord& record, std::uint32_t first, std::uint32_t second) {
    record = {};
    record.majorVersion = kProductMajorVersion;
    record.buildNumber = kProductBuildNumber;
    record.mark = 0x80000000;
    record.callerValues[0] = first;
    record.callerValues[1] = second;
    record.packedVersion = kProductMajorVersion << 26 | kProductBuildNumber;
    record.nine = 9;
}

StatusResult sendToolStatus(KavelinkLink* link, const ToolStatus& status) {
    if (link == nullptr || status.applicationId == nullptr ||
        (status.extra == nullptr && status.extraSize != 0))
        return kStatusBadArgument;
    ItemStream message;
    if (message.create(kStatusPrefixSize) != kStreamOk)
        return kStatusNoMemory;
    for (std::size_t i = 0; i < std::size(StatusMessagePrefix); ++i)
        writeU32(message.data() + 4 * i, StatusMessagePrefix[i]);
    if (!appendItems(message, status))
        return kStatusNoItem;
    const LinkResult result = kavelinkCall(link, message.data(), message.streamEnd(), 0, nullptr);
    return result == kLinkOk ? kStatusSent : kStatusCallFailed;
}

}  // namespace qnt
