// Waiting for the tool's mutex.
//
// pthread_mutex_lock is not a cancellation point, and the holder may be stuck in a CUPS tool. So
// the waits try the lock and sleep. Such a wait can be cancelled, does not depend on the wall
// clock, and is supported by the thread sanitizers, unlike the monotonic pthread_mutex_clocklock.

#pragma once

#include <atomic>
#include <chrono>
#include <mutex>
#include <thread>

namespace qnt {

inline constexpr std::chrono::milliseconds kLockPollInterval{10};

// Counts the calling thread among those that wait for the mutex, for a scope.
class WaiterCount {
public:
    explicit WaiterCount(std::atomic<int>& waiting) : m_waiting(waiting) { ++m_waiting; }
    ~WaiterCount() { --m_waiting; }
    WaiterCount(const WaiterCount&) = delete;
    WaiterCount& operator=(const WaiterCount&) = delete;

private:
    std::atomic<int>& m_waiting;
};

// Locks the mutex. The wait is a cancellation point.
inline std::unique_lock<std::mutex> lockCancellably(std::mutex& mutex, std::atomic<int>& waiting) {
    std::unique_lock lock(mutex, std::try_to_lock);
    if (lock.owns_lock())
        return lock;
    const WaiterCount waiter(waiting);
    do {
        std::this_thread::sleep_for(kLockPollInterval);
    } while (!lock.try_lock());
    return lock;
}

// Lets a thread that waits in lockCancellably have the mutex first. Otherwise a thread that locks
// it again soon after unlocking it would hardly ever leave it free when another one polls.
inline void yieldToWaiters(const std::atomic<int>& waiting) {
    if (waiting > 0)
        std::this_thread::sleep_for(2 * kLockPollInterval);
}

}  // namespace qnt
