// Local time for records, also inside signal handlers.

#pragma once

#include <csignal>
#include <cstddef>
#include <ctime>

namespace qnt {

inline constexpr std::size_t kLocalSecondSize = 15;  // "11-16 18:12:11" and the NUL terminator

// Writes the local time of a second as "%m-%d %H:%M:%S". Each thread caches its last second, so
// that libc's time zone lock is taken at most once a second. Inside a SignalLogScope, uses the last
// known UTC offset instead of libc.
void formatLocalSecond(std::time_t second, char (&text)[kLocalSecondSize]);

// Reads the time zone again if /etc/localtime has changed, and takes the current UTC offset from
// libc for records inside a SignalLogScope. To be called about once a second: a handler's record
// then has the right hour although nothing else has been logged since a change of daylight saving
// time. Any thread; not in a signal handler.
void refreshUtcOffset();

// While an object of this class lives, records of the calling thread use nothing that the code
// interrupted by a signal may hold: no time zone lock (a handler that called localtime_r while the
// interrupted code is inside it would never return), no heap, no lock of the log file.
class SignalLogScope {
public:
    SignalLogScope();
    ~SignalLogScope();
    SignalLogScope(const SignalLogScope&) = delete;
    SignalLogScope& operator=(const SignalLogScope&) = delete;

    // Whether the calling thread is inside such a scope.
    static bool active();

private:
    const std::sig_atomic_t m_outer;
};

}  // namespace qnt
