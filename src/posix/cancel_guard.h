// Scope guards for errno and the cancellation state of the calling thread.

#pragma once

#include <pthread.h>

#include <cerrno>

namespace qnt {

// Restores errno at the end of the scope, also when an exception passes.
class ErrnoGuard {
public:
    ErrnoGuard() : m_saved(errno) {}
    ~ErrnoGuard() { errno = m_saved; }
    ErrnoGuard(const ErrnoGuard&) = delete;
    ErrnoGuard& operator=(const ErrnoGuard&) = delete;

private:
    const int m_saved;
};

// Defers pthread_cancel for the calling thread until after the scope. glibc implements cancellation
// as a forced unwinding that starts inside write, close, waitpid and the like. It must not start in
// a destructor, which is noexcept (the process would end), nor in the middle of a change of shared
// state.
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
