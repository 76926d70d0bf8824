// The Open Kavelink link: short messages to the host, through the request device or, where the
// device is there but takes no link calls, through the hypervisor's backdoor.
//
// No locks, no allocation, no records: a link belongs to the thread that uses it, and callers
// report the results (LinkResult).

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

inline constexpr std::int32_t kLinkClosed = -11;  // KavelinkLink::state
inline constexpr std::int32_t kLinkOpen = 0;      // open and idle

enum KavelinkKind : std::uint32_t {
    LinkKindBackdoor = 0x3F2E8A04,
    LinkKindDevice = 0x3F2E8A05,
};

enum KavelinkMode : std::int32_t {
    kLinkDeviceThenBackdoor = 0,
    kLinkBackdoorOnly = 1,
    kLinkDeviceOnly = 2,
};

struct KavelinkLink {
    std::int32_t state = kLinkClosed;  // in an exchange and after it, the exchange's status
    std::uint32_t kind = 0;            // KavelinkKind, while open
    std::uint64_t handle =
        0;  // device: its descriptor, 0 for none; backdoor: maxTransfer, low half
};

// The driver and the hypervisor set no bound to these; without one a broken host would keep the
// service from ever starting or stopping, since it has no other chance to look up.
//
// How often the device's probe is repeated at the host's wish: at some 10 us each, a second or
// more, far beyond any start of a host's service. Then the link counts as refused.
inline constexpr int kMaxProbeRepeats = 100'000;
// How many transfers in a row may move nothing in either direction while the host says that the
// exchange goes on. Then the exchange is cancelled and counts as failed by the host.
inline constexpr int kMaxIdleTransfers = 100'000;

// Opens the link and chooses its transport. The device's absence is final (-5): the backdoor is
// tried only when the device refuses. State 0 on success, else -11.
std::int32_t kavelinkOpen(KavelinkLink* link, std::int32_t mode);

// 0, or -1 for a null link.
std::int32_t kavelinkClose(KavelinkLink* link);

// Sends `inputSize` bytes of the buffer. The host's answer, at most `outputSize` bytes, comes back
// from the buffer's start; the buffer holds the larger of both. The answer's length is stored when
// asked for.
std::int32_t kavelinkCall(KavelinkLink* link, void* buffer, std::uint32_t inputSize,
                          std::uint32_t outputSize, std::uint32_t* answerLength);

}  // namespace qnt
