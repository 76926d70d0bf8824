// The link over the hypervisor's backdoor.
//
// Four commands, each one RDPMC instruction with a magic number in EAX. Values are 32-bit and
// zero-extended unless the table states otherwise.
//
//   command   EAX        EBX         ECX      EDX     ESI    RDI
//   probe     0x5F9E652  0x5F9E652   0        0       0      0
//   begin     0x5F9E653  totalInput  hasRoom  length  chunk  start
//   continue  0x5F9E654  exchangeId  hasRoom  length  chunk  start
//   cancel    0x5F9E655  exchangeId  0        0       0      0
//
//   exchangeId is sign-extended to 64 bits; length, chunk and start (64 bits) are the transfer
//   area's; hasRoom is 1 if the area has a receive limit, else 0
//
//   returned: probe    EAX 0x0B36AF47, EDX = ESI = EDI = 0, EBX version, ECX maxTransfer
//             begin    EBX exchangeId, and as for continue
//             continue ESI answerSize, EDI hostStatus, EDX bytes that the host wrote into the area
//             cancel   EDI hostStatus
//
// The service receives nothing over the backdoor; the rest completes a fixed interface.

#pragma once

#include <algorithm>
#include <cstdint>

#include "hostlink/kavelink.h"

namespace qnt {

inline constexpr std::uint32_t kBackdoorProbe = 0x5F9E652;
inline constexpr std::uint32_t kBackdoorBegin = 0x5F9E653;
inline constexpr std::uint32_t kBackdoorContinue = 0x5F9E654;
inline constexpr std::uint32_t kBackdoorCancel = 0x5F9E655;
inline constexpr std::uint32_t kBackdoorSignature = 0x0B36AF47;
inline constexpr std::uint32_t kBackdoorVersion = 2;

inline constexpr std::int32_t kNoExchangeId = -1;
inline constexpr std::int32_t kNoHostStatus = -777;     // before the host's first answer
inline constexpr std::int32_t kHostStatusComplete = 0;  // negative: failed
inline constexpr std::int32_t kHostStatusMore = 2;      // more transfers expected

// One exchange, on the stack of the call that makes it.
struct BackdoorExchange {
    std::int32_t exchangeId = kNoExchangeId;
    std::uint32_t totalInput = 0;  // bytes that the whole exchange sends
    std::uint32_t answerSize = 0;  // set by the host: bytes that it wants to return
    std::int32_t hostStatus = kNoHostStatus;
};

// Guest memory that is passed to the host in one transfer. What the host may write into can overlap
// input that has not been sent yet: a host that answers before it has the whole input overwrites
// it.
struct TransferArea {
    std::uint8_t* start = nullptr;
    std::uint32_t chunk = 0;         // bytes that the host reads from it
    std::uint32_t receiveLimit = 0;  // bytes that the host may write into it

    std::uint32_t length() const { return std::max(chunk, receiveLimit); }
};

struct BackdoorInfo {
    std::uint32_t version = 0;
    std::uint32_t maxTransfer = 0;  // bytes that one transfer can move in each direction
};

// Probes for the backdoor: kLinkOk, kLinkNotAvailable or kLinkRefused. Faults where no hypervisor
// intercepts the instruction. On success, fills in *info if it is not null.
[[nodiscard]] LinkResult backdoorProbe(BackdoorInfo* info);

// Like backdoorProbe, but returns kLinkNotAvailable on a fault. Meanwhile, handles SIGILL and
// SIGSEGV and unblocks them in the calling thread, then restores both. Only one thread at a time
// may call it, and no other thread may rely on these signals meanwhile.
[[nodiscard]] LinkResult guardedBackdoorProbe(BackdoorInfo* info);

// One transfer. Returns kLinkOk, or kLinkHostFailed if the host's status is negative or it claims
// to have written more than the area holds. On success, `got` is the number of bytes that the host
// wrote.
[[nodiscard]] LinkResult backdoorBegin(BackdoorExchange& exchange, const TransferArea& area,
                                       std::uint32_t& got);
[[nodiscard]] LinkResult backdoorContinue(BackdoorExchange& exchange, const TransferArea& area,
                                          std::uint32_t& got);

// Abandons an exchange and returns the host's status.
std::int32_t backdoorCancel(BackdoorExchange& exchange);

// kavelinkCall over the backdoor, in transfers of at most maxTransfer bytes in each direction.
[[nodiscard]] LinkResult backdoorCall(KavelinkLink& link, void* buffer, std::uint32_t inputSize,
                                      std::uint32_t outputSize, std::uint32_t* answerLength);

}  // namespace qnt
