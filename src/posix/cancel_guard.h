// A scope in which the calling thread is not cancelled.

#pragma once

#include <pthread.h>

namespace qnt {

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
