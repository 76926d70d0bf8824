// The Open Kavelink link: short messages to the host, through the request device or, where the
// device exists but refuses link calls, through the hypervisor's backdoor.
//
// The service opens it in one mode and only sends; the rest completes a fixed interface.
//
// Allocates and logs nothing and takes no lock: a link belongs to the thread that uses it, and
// callers handle the results.

#pragma once

#include <chrono>
#include <cstdint>

namespace qnt {

enum LinkResult : std::int32_t {
    kLinkOk = 0,
    kLinkBadArgument = -1,   // null link or buffer, both sizes 0, maxTransfer 0, unknown mode
    kLinkNotAvailable = -5,  // no device, its driver failed the probe's write, or no backdoor
    kLinkRefused = -6,       // the host refused the probe or the request; wrong backdoor version
    kLinkAnswerTooLarge = -7,
    kLinkHostFailed = -8,  // negative host status, too many bytes, or transfers that move nothing
    kLinkUnknownKind = -9,
    kLinkNotOpen = -10,
    kLinkWriteFailed = static_cast<std::int32_t>(0x80004005),
    kLinkWriteInterrupted = static_cast<std::int32_t>(0x800703E3),
};

inline constexpr std::int32_t kLinkStateClosed = -11;  // KavelinkLink::state
inline constexpr std::int32_t kLinkStateOpen = 0;      // open and idle

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
    std::int32_t state = kLinkStateClosed;  // during and after an exchange: the exchange's status
    std::uint32_t kind = 0;                 // KavelinkKind, while open
    // Device: its descriptor; backdoor: maxTransfer; 0: none. No owner, as the struct is plain
    // data.
    std::uint64_t handle = 0;
};

// Opens the link and selects its transport. A device that is missing, or whose driver fails the
// probe's write, is final (kLinkNotAvailable): the backdoor is tried only when the device refuses
// the probe or its write is interrupted (EINTR). The state is kLinkStateOpen on success, else
// kLinkStateClosed.
[[nodiscard]] LinkResult kavelinkOpen(KavelinkLink* link, std::int32_t mode);

// Closes the link. Returns kLinkOk, or kLinkBadArgument for a null link.
LinkResult kavelinkClose(KavelinkLink* link);

// Sends the first `inputSize` bytes of the buffer. The host's answer, at most `outputSize` bytes,
// replaces them; the buffer must hold the larger of the two. `answerLength` may be null. Returns a
// LinkResult.
[[nodiscard]] LinkResult kavelinkCall(KavelinkLink* link, void* buffer, std::uint32_t inputSize,
                                      std::uint32_t outputSize, std::uint32_t* answerLength);

// Bounds a loop whose length the host decides and that would otherwise block start or stop for
// ever: the device's probe, and transfers that move nothing. The first hundred repetitions follow
// without a pause, later ones after one; a minute is longer than a host's service takes to start.
class HostLoopLimit {
public:
    static constexpr std::chrono::seconds kTimeLimit{60};  // on the monotonic clock
    static constexpr int kRepeatsAtOnce = 100;
    static constexpr std::chrono::milliseconds kPause{10};

    // Whether to repeat once more; may sleep for kPause.
    bool mayRepeat();

private:
    const std::chrono::steady_clock::time_point m_end =
        std::chrono::steady_clock::now() + kTimeLimit;
    int m_repeats = 0;
};

}  // namespace qnt
