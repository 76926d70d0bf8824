// Reading a request from the sender's memory, and the replies to it.

#pragma once

#include <chrono>
#include <cstdint>
#include <optional>

#include "hostlink/device_request.h"
#include "sim/device_file.h"

namespace sim {

inline constexpr std::uint32_t kRequestRefused = 0xF0000001;

// Used in place of a request type: for a link call, and for any request of the run loop.
inline constexpr std::uint32_t kLinkCall = 0xFFFFFFFE;
inline constexpr std::uint32_t kRunLoopRequest = 0xFFFFFFFF;

// The reply to a request: the answer is written and the status stored, or the write fails.
struct Reply {
    std::uint32_t status = qnt::kRequestDone;
    Bytes answer = {};
    int error = 0;  // the errno with which the write fails, if it is not 0
};

// One exchange: the request and the reply.
struct Exchange {
    std::chrono::system_clock::time_point when;  // of the request
    std::uint32_t requestType = 0;               // of the printing header, or kLinkCall
    std::uint32_t outSize = 0;                   // of the answer buffer
    bool isOverBackdoor = false;
    Bytes request = {};                         // empty for a probe, and if it is malformed
    std::optional<Reply> reply = std::nullopt;  // none while the request is held
};

// Returns the request's part of the exchange, and a refusal as its reply if the request is
// malformed or can't be read.
Exchange readRequest(const Submission& submission);

// The host's own reply to a link call.
Reply linkReply(const Exchange& exchange);

// Writes the answer into the sender's memory. If that fails, the write is to fail with EFAULT.
void deliver(Submission& submission, Exchange& exchange);

}  // namespace sim
