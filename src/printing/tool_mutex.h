// The tool's mutex.
//
// pthread_mutex_lock(3p) is not a cancellation point, and the holder may be stuck in a CUPS tool.
// So a thread that has to wait does so in a condition variable, which can be cancelled, is woken
// without polling, and does not depend on the wall clock.

#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace qnt {

static_assert(_GLIBCXX_RELEASE >= 12,
              "before libstdc++ 12, cancelling a waiting thread ends the process");

class ToolMutex {
public:
    // The wait is a cancellation point.
    void lock() {
        std::unique_lock state(m_state);
        const Waiter waiter(m_waiting);
        m_unlocked.wait(state, [this] { return !m_locked && !(m_lastWaits && isTurnOfLast()); });
        m_locked = true;
        ++m_turnsOfOthers;
    }
    // Waits at most `time` until the mutex is free and no thread waits in lock(); but after two
    // turns of other threads, this one is next. False if that did not happen. Without the wait for
    // others, a thread that soon locks again would hardly ever leave the mutex to another; without
    // the limit of two turns, two others that overlap would never leave it to this one. (A thread
    // that is cancelled in lock() wakes nobody, so this call notices only when the time ends.) One
    // thread only.
    bool tryLockAfterOthers(std::chrono::milliseconds time) {
        std::unique_lock state(m_state);
        const auto isFree = [this] { return !m_locked && (m_waiting == 0 || isTurnOfLast()); };
        m_lastWaits = true;
        const bool free = m_unlocked.wait_for(state, time, isFree);
        m_lastWaits = false;
        if (!free)
            return false;
        m_locked = true;
        m_turnsOfOthers = 0;
        return true;
    }
    void unlock() {
        {
            const std::lock_guard state(m_state);
            m_locked = false;
        }
        m_unlocked.notify_all();
    }

private:
    // Counts a thread while it waits; cancellation ends the count too.
    class Waiter {
    public:
        explicit Waiter(int& waiting) : m_waiting(waiting) { ++m_waiting; }
        ~Waiter() { --m_waiting; }
        Waiter(const Waiter&) = delete;
        Waiter& operator=(const Waiter&) = delete;

    private:
        int& m_waiting;
    };

    bool isTurnOfLast() const { return m_turnsOfOthers >= 2; }

    std::mutex m_state;  // guards all below
    bool m_locked = false;
    int m_waiting = 0;                  // threads in lock()
    bool m_lastWaits = false;           // a thread is in tryLockAfterOthers()
    unsigned long m_turnsOfOthers = 0;  // lock() since tryLockAfterOthers() last succeeded
    std::condition_variable m_unlocked;
};

}  // namespace qnt
