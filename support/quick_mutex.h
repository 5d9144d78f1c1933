#pragma once

#include <atomic>

/**
 * A mutex for a few instructions' worth of work, as the standard's Lockable. Free, it is taken and
 * let go by one atomic operation each and no call; a thread that finds it taken sleeps in the
 * kernel. Not recursive, not fair.
 */
class Quick_Mutex {
public:
    Quick_Mutex() = default;
    Quick_Mutex(const Quick_Mutex&) = delete;
    Quick_Mutex& operator=(const Quick_Mutex&) = delete;

    void lock()
    {
        if (!this->try_lock()) {
            // Whoever has slept takes it as waited for: others may still sleep.
            while (state_.exchange(WAITED_FOR, std::memory_order_acquire) != FREE) {
                state_.wait(WAITED_FOR, std::memory_order_relaxed);
            }
        }
    }

    bool try_lock()
    {
        int expected = FREE;
        return state_.compare_exchange_strong(expected, TAKEN, std::memory_order_acquire,
                                              std::memory_order_relaxed);
    }

    void unlock()
    {
        if (state_.exchange(FREE, std::memory_order_release) == WAITED_FOR) {
            state_.notify_one();
        }
    }

private:
    enum State : int { FREE, TAKEN, WAITED_FOR };

    std::atomic<int> state_{FREE};
};
