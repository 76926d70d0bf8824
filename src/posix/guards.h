// What a library call may disturb in the thread that makes it, put back at the end of a scope.

#pragma once

#include <pthread.h>

#include <cerrno>

namespace qnt {

// Puts errno back to what it was when the guard was made, also when an exception passes.
class ErrnoGuard {
public:
    ErrnoGuard() : m_saved(errno) {}
    ~ErrnoGuard() { errno = m_saved; }
    ErrnoGuard(const ErrnoGuard&) = delete;
    ErrnoGuard& operator=(const ErrnoGuard&) = delete;

private:
    const int m_saved;
};

// Defers pthread_cancel for the calling thread. glibc carries a cancellation out as a forced
// unwinding from inside write, close, waitpid and the like; that must not start in a destructor
// (which is noexcept, so the process would end) nor halfway through a change of shared state.
// A request that arrives meanwhile takes effect at the thread's next cancellation point.
class CancelGuard {
public:
    CancelGuard() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &m_previous); }
    ~CancelGuard() { pthread_setcancelstate(m_previous, nullptr); }
    CancelGuard(const CancelGuard&) = delete;
    CancelGuard& operator=(const CancelGuard&) = delete;

private:
    int m_previous = PTHREAD_CANCEL_ENABLE;
};

}  // namespace qnt
