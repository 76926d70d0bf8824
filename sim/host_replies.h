// How the played host takes a request out of the sender's memory, and what it says to it.

#pragma once

#include <chrono>
#include <cstdint>
#include <optional>

#include "sim/device_file.h"

namespace sim {

inline constexpr std::uint32_t kStatusRefused = 0xF0000001;

// One exchange as it came and as it was answered.
struct Exchange {
    std::chrono::system_clock::time_point when;
    pid_t thread = 0;
    std::uint32_t code = 0;         // of the device request
    std::uint32_t requestType = 0;  // of the printing header, 0 for link calls
    std::uint32_t inSize = 0;
    std::uint32_t outSize = 0;
    Bytes request;                        // the inSize bytes
    std::optional<std::uint32_t> status;  // none while it is held, and for a write that failed
    Bytes answer;                         // what was written into the answer buffer
    int error = 0;                        // the errno of a write that failed
    std::optional<std::chrono::system_clock::time_point> answered;
};

// What happens to a request instead of its answer. For a link call, kAskFor announces an answer of
// that size, kMalformed reports a failure in the call header, and kRaw replaces that header.
struct Fault {
    enum class Kind { kCancel, kStatus, kAskFor, kMalformed, kRaw, kSilence, kWriteError };
    Kind kind = Kind::kCancel;
    std::uint32_t value = 0;  // kStatus: the status; kAskFor: bytes; kWriteError: the errno
    Bytes answer;             // kRaw: the answer's bytes as they are
};

// What a request gets: a status and an answer, or else the errno of its write.
struct Reply {
    std::uint32_t status = 0;
    int error = 0;
    Bytes answer = {};
    bool takesCommand = false;  // the command that waited longest reaches the service with it
};

// Fills what is known of an exchange when it comes. The reply, when that is all there is to say:
// the request can't be understood.
std::optional<Reply> readRequest(const Submission& submission, Exchange& exchange);

Reply faultReply(const Exchange& exchange, const Fault& fault);
// The answer, or how much room it needs.
Reply fittedReply(const Exchange& exchange, const Bytes& answer);
Reply linkReply(const Exchange& exchange);

// A reply in two steps, with the exchange complete in between: deliver() writes the answer and
// records it, finish() ends the sender's write.
void deliver(Submission& submission, Exchange& exchange, const Reply& reply);
void finish(Submission& submission, const Exchange& exchange);

}  // namespace sim
