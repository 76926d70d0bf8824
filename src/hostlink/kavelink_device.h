// The link over the request device, through another descriptor than the printing traffic. The
// service receives nothing over it; the room for an answer completes a fixed interface.

#pragma once

#include <cstddef>
#include <cstdint>

#include "hostlink/kavelink.h"

namespace qnt {

// The first buffer of every link request; the host writes into it. In memory order, as the driver
// takes the sender's memory (see device_request.h).
struct KavelinkCallHeader {
    std::uint32_t headerSize = 32;
    std::uint32_t reserved = 0;
    std::uint32_t inputSize = 0;
    std::uint32_t outputSize = 0;  // room for the answer; afterwards the answer's length
    std::uint32_t answerSize = 0;  // afterwards: bytes that the host wants to return
    std::int32_t hostStatus = 0;   // afterwards: negative for a failure
    std::uint64_t reservedEnd = 0;
};
static_assert(sizeof(KavelinkCallHeader) == 32);
static_assert(offsetof(KavelinkCallHeader, inputSize) == 8);
static_assert(offsetof(KavelinkCallHeader, answerSize) == 16);
static_assert(offsetof(KavelinkCallHeader, hostStatus) == 20);

// Opens the device and probes whether it takes link calls. The handle is the descriptor, or 0 if
// the result is not kLinkOk.
[[nodiscard]] LinkResult linkDeviceOpen(std::uint64_t& handle);
// Closes the handle, if there is one, and sets it to 0.
void linkDeviceClose(std::uint64_t& handle);

[[nodiscard]] LinkResult linkDeviceCall(KavelinkLink& link, void* buffer, std::uint32_t inputSize,
                                        std::uint32_t outputSize, std::uint32_t* answerLength);

}  // namespace qnt
