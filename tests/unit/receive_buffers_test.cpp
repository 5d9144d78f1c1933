#include "httpd/detail/receive_buffers.h"

#include <ace/Message_Block.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <set>
#include <thread>
#include <vector>

namespace {

constexpr size_t SIZE = 8192;

/// Runs in a thread of its own, which begins without free buffers.
template <typename Function>
void in_fresh_thread(Function function)
{
    std::thread(function).join();
}

} // namespace

TEST(Receive_Buffers, gives_a_buffer_of_the_size_asked_for)
{
    in_fresh_thread([] {
        for (const size_t size : {size_t{1}, size_t{256}, SIZE, size_t{256 * 1024}}) {
            ACE_Message_Block* const buffer = Receive_Buffers::take(size);
            ASSERT_NE(buffer, nullptr);
            EXPECT_EQ(buffer->space(), size);
            EXPECT_EQ(buffer->length(), 0U);
            Receive_Buffers::give(buffer);
        }
    });
}

TEST(Receive_Buffers, hands_out_again_what_was_given_back_emptied)
{
    in_fresh_thread([] {
        ACE_Message_Block* const first = Receive_Buffers::take(SIZE);
        ASSERT_NE(first, nullptr);
        first->wr_ptr(100);
        first->rd_ptr(40);
        Receive_Buffers::give(first);
        ACE_Message_Block* const second = Receive_Buffers::take(SIZE);
        EXPECT_EQ(second, first);
        EXPECT_EQ(second->length(), 0U);
        EXPECT_EQ(second->space(), SIZE);
        Receive_Buffers::give(second);
    });
}

TEST(Receive_Buffers, never_has_two_holders_of_one_buffer)
{
    in_fresh_thread([] {
        std::set<ACE_Message_Block*> held;
        for (size_t i = 0; i < 3 * Receive_Buffers::KEPT_BUFFERS; ++i) {
            ACE_Message_Block* const buffer = Receive_Buffers::take(SIZE);
            ASSERT_NE(buffer, nullptr);
            EXPECT_TRUE(held.insert(buffer).second);
            EXPECT_EQ(buffer->next(), nullptr);
        }
        for (ACE_Message_Block* const buffer : held) {
            Receive_Buffers::give(buffer);
        }
    });
}

TEST(Receive_Buffers, gives_the_present_size_after_it_has_changed)
{
    in_fresh_thread([] {
        Receive_Buffers::give(Receive_Buffers::take(SIZE));
        ACE_Message_Block* const larger = Receive_Buffers::take(2 * SIZE);
        ASSERT_NE(larger, nullptr);
        EXPECT_EQ(larger->space(), 2 * SIZE);
        Receive_Buffers::give(larger);
    });
}

TEST(Receive_Buffers, aligns_the_memory_to_a_cache_line)
{
    in_fresh_thread([] {
        for (const size_t size : {size_t{100}, SIZE, size_t{300 * 1024}}) {
            ACE_Message_Block* const buffer = Receive_Buffers::take(size);
            ASSERT_NE(buffer, nullptr);
            EXPECT_EQ(reinterpret_cast<std::uintptr_t>(buffer->base()) % 64, 0U);
            Receive_Buffers::give(buffer);
        }
    });
}

TEST(Receive_Buffers, takes_a_buffer_back_in_another_thread)
{
    ACE_Message_Block* buffer = nullptr;
    in_fresh_thread([&buffer] { buffer = Receive_Buffers::take(SIZE); });
    ASSERT_NE(buffer, nullptr);
    in_fresh_thread([buffer] {
        Receive_Buffers::give(buffer);
        EXPECT_EQ(Receive_Buffers::take(SIZE), buffer);
        Receive_Buffers::give(buffer);
    });
}

TEST(Receive_Buffers, reports_enomem_for_a_size_that_cannot_be)
{
    in_fresh_thread([] {
        errno = 0;
        EXPECT_EQ(Receive_Buffers::take(SIZE_MAX - 8), nullptr);
        EXPECT_EQ(errno, ENOMEM);
    });
}
