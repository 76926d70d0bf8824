// Result codes of the Open Kavelink link.

#pragma once

#include <cstdint>

namespace qnt {

enum LinkResult : std::int32_t {
    kLinkOk = 0,
    kLinkBadArgument = -1,   // null link or buffer, nothing to move, maxTransfer 0, unknown mode
    kLinkNotAvailable = -5,  // no device, or no backdoor
    kLinkRefused = -6,       // the host refused the probe or the request; wrong backdoor version
    kLinkAnswerTooLarge = -7,
    kLinkHostFailed = -8,  // the host reported a negative status
    kLinkUnknownKind = -9,
    kLinkNotOpen = -10,
    kLinkWriteFailed = static_cast<std::int32_t>(0x80004005),
    kLinkWriteInterrupted = static_cast<std::int32_t>(0x800703E3),
};

}  // namespace qnt
