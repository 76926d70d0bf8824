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

// While one of these lives, records of the calling thread touch nothing that the instruction
// under the signal may hold: no time-zone lock (libc's localtime_r takes it, and a handler that
// asks for it again never returns), no heap, no opening of files. Such a record takes the zone
// offset of the record before it, and is lost when no log file is open.
class SignalLogScope {
public:
    SignalLogScope();
    ~SignalLogScope();
    SignalLogScope(const SignalLogScope&) = delete;
    SignalLogScope& operator=(const SignalLogScope&) = delete;

    // Whether the calling thread is inside such a scope.
    static bool active();

private:
    const bool m_outer;
};

}  // namespace qnt
