// Holding the tool's mutex for a scope.

#pragma once

#include <pthread.h>

#include <ctime>

namespace qnt {

inline constexpr long kLockSliceNanoseconds = 100'000'000;

// Waits for the mutex and releases it at the end of the scope, also when the thread is cancelled.
// pthread_mutex_lock is no cancellation point, and a tool that hangs may keep the holder for ever,
// so the wait goes in slices; after each, `goOn` says whether to wait on. It may also end the
// thread by pthread_testcancel.
class ToolLock {
public:
    template <typename GoOn>
    ToolLock(pthread_mutex_t& mutex, GoOn goOn) : m_mutex(mutex) {
        m_held = pthread_mutex_trylock(&m_mutex) == 0;
        while (!m_held && goOn())
            m_held = lockForOneSlice();
    }
    ~ToolLock() {
        if (m_held)
            pthread_mutex_unlock(&m_mutex);
    }
    ToolLock(const ToolLock&) = delete;
    ToolLock& operator=(const ToolLock&) = delete;

    bool held() const { return m_held; }

private:
    bool lockForOneSlice() {
        timespec until{};
        clock_gettime(CLOCK_REALTIME, &until);
        until.tv_nsec += kLockSliceNanoseconds;
        if (until.tv_nsec >= kNanosecondsPerSecond) {
            until.tv_nsec -= kNanosecondsPerSecond;
            ++until.tv_sec;
        }
        return pthread_mutex_timedlock(&m_mutex, &until) == 0;
    }

    static constexpr long kNanosecondsPerSecond = 1'000'000'000;

    pthread_mutex_t& m_mutex;
    bool m_held = false;
};

}  // namespace qnt
