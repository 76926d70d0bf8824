// Local time for records.

#pragma once

#include <cstddef>
#include <ctime>

namespace qnt {

inline constexpr std::size_t kLocalSecondSize = 15;  // "11-16 18:12:11" and its zero

// Writes the local time of a second as "%m-%d %H:%M:%S". Remembers the last second of each thread,
// so libc's time-zone lock is taken at most once a second. Inside a SignalLogScope libc is not
// asked: the zone offset of the last conversion of any thread serves.
void formatLocalSecond(std::time_t second, char (&text)[kLocalSecondSize]);

}  // namespace qnt
