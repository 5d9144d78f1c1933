#include "support/std_lock_t.h"

#include <ace/Guard_T.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <mutex>
#include <thread>

namespace {

/// What tryacquire() tells another thread.
template <typename Lock>
int try_in_another_thread(Lock& lock, int& error)
{
    int result = 0;
    std::thread([&] {
        result = lock.tryacquire();
        error = errno;
        if (result == 0) {
            lock.release();
        }
    }).join();
    return result;
}

} // namespace

TEST(Std_Lock_T, is_held_by_one_thread_at_a_time)
{
    Std_Lock_T<std::mutex> lock;
    int error = 0;
    EXPECT_EQ(lock.acquire(), 0);
    EXPECT_EQ(try_in_another_thread(lock, error), -1);
    EXPECT_EQ(error, EBUSY);
    EXPECT_EQ(lock.release(), 0);
    EXPECT_EQ(try_in_another_thread(lock, error), 0);
}

/// ACE's guards for readers and writers take it as a plain mutex.
TEST(Std_Lock_T, knows_no_readers_that_share_it)
{
    Std_Lock_T<std::recursive_mutex> lock;
    int error = 0;
    {
        const ACE_Read_Guard<Std_Lock_T<std::recursive_mutex>> guard(lock);
        EXPECT_TRUE(guard.locked());
        EXPECT_EQ(try_in_another_thread(lock, error), -1);
        EXPECT_EQ(lock.tryacquire_read(), 0); // once more by the same thread
        EXPECT_EQ(lock.tryacquire_write(), 0);
        EXPECT_EQ(lock.tryacquire_write_upgrade(), 0);
        EXPECT_EQ(lock.release() + lock.release(), 0);
        EXPECT_EQ(try_in_another_thread(lock, error), -1);
    }
    {
        const ACE_Write_Guard<Std_Lock_T<std::recursive_mutex>> guard(lock);
        EXPECT_EQ(try_in_another_thread(lock, error), -1);
    }
    EXPECT_EQ(try_in_another_thread(lock, error), 0);
    EXPECT_EQ(lock.remove(), 0);
}
