// Small tools for the bytes of messages, shared by the codec and the played host.

#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "sim/device_file.h"

namespace sim {

using ItemVisitor = std::function<void(std::uint32_t type, const Bytes& data)>;

// Shows the items of the stream at this offset, up to its end or the first that is malformed.
void forEachItem(const Bytes& message, std::uint32_t base, const ItemVisitor& visit);
std::string asText(const Bytes& data);
std::uint32_t asU32(const Bytes& data);  // 0 when there are fewer than 4 bytes

// Answers of the printing protocol without a payload, and one whose payload can't be read.
Bytes emptyAnswer(std::uint32_t sequence);
Bytes roomRequest(std::uint32_t requiredSize);
Bytes malformedAnswer();

}  // namespace sim
