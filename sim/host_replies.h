// Reading a request from the sender's memory, and the replies to it.

#pragma once

#include <chrono>
#include <cstdint>
#include <optional>

#include "hostlink/device_request.h"
#include "sim/device_file.h"

namespace sim {

inline constexpr std::uint32_t kRequestRefused = 0xF0000001;

// One exchange: the request and its answer.
struct Exchange {
    std::chrono::system_clock::time_point when;
    pid_t thread = 0;
    std::uint32_t code = 0;         // of the device request
    std::uint32_t requestType = 0;  // of the printing header, 0 for link calls
    std::uint32_t inSize = 0;
    std::uint32_t outSize = 0;
    int transfers = 0;                    // over the backdoor; 0: over the device
    Bytes request;                        // the inSize bytes
    std::optional<std::uint32_t> status;  // none while it is held, and if the write failed
    Bytes answer;                         // what was written into the answer buffer
    int error = 0;                        // the errno if the write failed
    std::optional<std::chrono::system_clock::time_point> answered;
};

// The reply to a request: the answer is written and the status stored, or the write fails.
struct Reply {
    std::uint32_t status = qnt::kRequestDone;
    Bytes answer = {};
    int error = 0;           // the errno with which the write fails
    bool isSilence = false;  // none, the request is held for ever
};
inline Reply status(std::uint32_t value) {
    return {value};
}
inline Reply cancel() {
    return {qnt::kRequestCanceled};
}
inline Reply raw(Bytes answer) {
    return {qnt::kRequestDone, std::move(answer)};
}
inline Reply writeError(int error) {
    return {qnt::kRequestDone, {}, error};
}
inline Reply silence() {
    return {qnt::kRequestDone, {}, 0, true};
}

// Fills in the request's part of the exchange. Returns a reply only if the request is malformed: a
// refusal, or EFAULT if its memory can't be read.
std::optional<Reply> readRequest(const Submission& submission, Exchange& exchange);

// The host's own reply to a link call.
Reply linkReply(const Exchange& exchange);

// Two steps, so that the exchange can be recorded between them: deliver() writes the answer into
// the sender's memory and into the exchange, finish() ends the sender's write.
void deliver(Submission& submission, Exchange& exchange, const Reply& reply);
void finish(Submission& submission, const Exchange& exchange);

}  // namespace sim
