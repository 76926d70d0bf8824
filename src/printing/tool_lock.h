// Waiting for the tool's mutex.
//
// pthread_mutex_lock is no cancellation point, and the holder may be stuck in a CUPS tool. So the
// waits try the lock and sleep: that can be cancelled, depends on no clock that somebody sets, and
// is known to the thread sanitizers, unlike the monotonic pthread_mutex_clocklock.

#pragma once

#include <chrono>
#include <mutex>
#include <thread>

namespace qnt {

inline constexpr std::chrono::milliseconds kLockPollInterval{10};

// Locks the mutex. The wait is a cancellation point.
inline std::unique_lock<std::mutex> lockCancellably(std::mutex& mutex) {
    std::unique_lock lock(mutex, std::defer_lock);
    while (!lock.try_lock())
        std::this_thread::sleep_for(kLockPollInterval);
    return lock;
}

}  // namespace qnt
