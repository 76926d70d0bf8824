// Logging from a signal handler.

#pragma once

namespace qnt {

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
