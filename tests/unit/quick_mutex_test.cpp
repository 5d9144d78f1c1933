#include "support/quick_mutex.h"

#include <gtest/gtest.h>

#include <mutex>
#include <thread>
#include <vector>

TEST(Quick_Mutex, is_taken_by_one_at_a_time)
{
    Quick_Mutex mutex;
    EXPECT_TRUE(mutex.try_lock());
    EXPECT_FALSE(mutex.try_lock());
    mutex.unlock();
    EXPECT_TRUE(mutex.try_lock());
    mutex.unlock();
}

TEST(Quick_Mutex, loses_no_step_between_many_threads)
{
    constexpr int THREADS = 6;
    constexpr int STEPS = 20'000;
    Quick_Mutex mutex;
    long steps = 0;
    std::vector<std::thread> threads;
    for (int i = 0; i < THREADS; ++i) {
        threads.emplace_back([&] {
            for (int step = 0; step < STEPS; ++step) {
                const std::lock_guard guard(mutex);
                ++steps;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(steps, static_cast<long>(THREADS) * STEPS);
}

TEST(Quick_Mutex, wakes_every_thread_that_sleeps_for_it)
{
    constexpr int THREADS = 4;
    Quick_Mutex mutex;
    int served = 0;
    std::vector<std::thread> threads;
    mutex.lock();
    for (int i = 0; i < THREADS; ++i) {
        threads.emplace_back([&] {
            const std::lock_guard guard(mutex);
            ++served;
        });
    }
    mutex.unlock();
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(served, THREADS);
}
