// The bare loop that the service's exchanges are measured against.

#pragma once

#include <cstdint>

namespace bench {

inline constexpr char kSubmitLoop[] = "submit-loop";
// What its requests bear and the service's never do.
inline constexpr std::uint32_t kLoopSequence = 0xFFFFFFFF;

// Submits one and the same request to the request device for ever, without a look at its answers.
// Returns 1 when there is no device.
int submitLoop();

}  // namespace bench
