#include "support/arena.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

TEST(Arena, holds_nothing_before_its_first_use)
{
    Arena arena;
    EXPECT_EQ(arena.capacity(), 0U);
    arena.reset();
    EXPECT_EQ(arena.capacity(), 0U);
}

TEST(Arena, aligns_what_allocate_returns)
{
    Arena arena;
    for (size_t size = 0; size < 100; ++size) {
        ASSERT_NE(arena.copy("x"), nullptr); // leaves the cursor at an odd place
        void* const memory = arena.allocate(size);
        ASSERT_NE(memory, nullptr);
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(memory) % alignof(std::max_align_t), 0U);
        std::memset(memory, 0x5A, size);
    }
}

TEST(Arena, copies_text_with_a_nul_behind_it)
{
    Arena arena;
    const char* const copy = arena.copy(std::string_view("abcdef").substr(1, 3));
    EXPECT_STREQ(copy, "bcd");
    EXPECT_STREQ(arena.copy(std::string_view()), "");
    EXPECT_EQ(std::memcmp(arena.copy(std::string_view("a\0b", 3)), "a\0b", 4), 0);
}

TEST(Arena, leaves_earlier_allocations_in_place_while_it_grows)
{
    Arena arena;
    std::vector<const char*> copies;
    for (int i = 0; i < 5000; ++i) {
        copies.push_back(arena.copy("text " + std::to_string(i)));
        ASSERT_NE(copies.back(), nullptr);
    }
    for (int i = 0; i < 5000; ++i) {
        ASSERT_EQ(copies[static_cast<size_t>(i)], "text " + std::to_string(i));
    }
}

TEST(Arena, takes_a_single_allocation_larger_than_any_block)
{
    Arena arena;
    const std::string large(5 * Arena::MAX_KEPT, 'x');
    const char* const before = arena.copy("before");
    EXPECT_EQ(arena.copy(large), large);
    EXPECT_STREQ(arena.copy("after"), "after");
    EXPECT_STREQ(before, "before");
}

TEST(Arena, keeps_no_more_than_max_kept_at_a_reset)
{
    Arena arena;
    for (int i = 0; i < 100; ++i) {
        ASSERT_NE(arena.allocate(1000), nullptr);
    }
    ASSERT_NE(arena.allocate(2 * Arena::MAX_KEPT), nullptr);
    arena.reset();
    EXPECT_LE(arena.capacity(), size_t{Arena::MAX_KEPT});
    EXPECT_GT(arena.capacity(), 0U);

    Arena one_large;
    ASSERT_NE(one_large.allocate(2 * Arena::MAX_KEPT), nullptr);
    one_large.reset();
    EXPECT_EQ(one_large.capacity(), 0U);
    EXPECT_STREQ(one_large.copy("usable"), "usable");
}

TEST(Arena, settles_on_one_block_when_messages_are_alike)
{
    for (const size_t piece : {10U, 700U, 3000U, 8000U}) {
        SCOPED_TRACE(testing::Message() << "pieces of " << piece);
        Arena arena;
        const auto message = [&arena, piece] {
            const char* first = nullptr;
            for (size_t used = 0; used + piece < Arena::MAX_KEPT; used += piece) {
                char* const text = arena.allocate_text(piece);
                first = first == nullptr ? text : first;
            }
            return first;
        };
        for (int warm_up = 0; warm_up < 8; ++warm_up) {
            message();
            arena.reset();
        }
        const size_t capacity = arena.capacity();
        const char* const first = message();
        EXPECT_EQ(arena.capacity(), capacity) << "a warm arena took a block";
        arena.reset();
        EXPECT_EQ(message(), first) << "a warm arena moved";
        EXPECT_EQ(arena.capacity(), capacity);
    }
}

TEST(Arena, leaves_its_memory_to_the_next_arena_of_the_thread)
{
    Arena first;
    const char* const text = first.copy("text");
    first.give_back();
    EXPECT_EQ(first.capacity(), 0U);
    Arena second;
    EXPECT_EQ(second.copy("other"), text);
    EXPECT_STREQ(first.copy("again"), "again");
    EXPECT_STREQ(second.copy("more"), "more");
}

TEST(Arena, keeps_nothing_large_when_it_gives_its_memory_back)
{
    Arena arena;
    const void* const large = arena.allocate(2 * Arena::MAX_KEPT);
    ASSERT_NE(large, nullptr);
    arena.give_back();
    EXPECT_EQ(arena.capacity(), 0U);
    ASSERT_NE(arena.copy("text"), nullptr);
    EXPECT_LE(arena.capacity(), size_t{Arena::MAX_KEPT});
}

TEST(Arena, takes_no_block_from_the_thread_that_is_too_small)
{
    Arena small;
    ASSERT_NE(small.copy("text"), nullptr);
    small.give_back();
    Arena arena;
    const std::string large(2 * Arena::MAX_KEPT, 'x');
    EXPECT_EQ(arena.copy(large), large);
}

TEST(Arena, gives_what_was_reserved_from_one_block)
{
    Arena arena;
    ASSERT_NE(arena.copy("some text"), nullptr);
    for (const size_t size : {1U, 400U, 5000U, 100000U}) {
        ASSERT_TRUE(arena.reserve(size));
        const char* const first = arena.allocate_text(1);
        const char* const rest = arena.allocate_text(size - 1);
        EXPECT_EQ(rest, first + 1);
    }
    errno = 0;
    EXPECT_FALSE(arena.reserve(std::numeric_limits<size_t>::max()));
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_STREQ(arena.copy("usable"), "usable");
}

TEST(Arena, reserves_no_more_than_it_is_asked_for_where_the_thread_has_a_larger_block)
{
    Arena first;
    const char* const large = first.allocate_text(900);
    first.give_back();
    Arena waiting;
    ASSERT_TRUE(waiting.reserve(100));
    ASSERT_NE(waiting.allocate_text(100), nullptr);
    Arena next;
    EXPECT_EQ(next.allocate_text(10), large) << "it was left to a message that is soon gone";
}

TEST(Arena, is_usable_after_a_larger_block_has_taken_the_place_of_an_empty_one)
{
    Arena arena;
    ASSERT_NE(arena.copy("first message"), nullptr);
    arena.reset();
    ASSERT_TRUE(arena.reserve(5000));
    const char* const text = arena.copy(std::string(4000, 'x'));
    ASSERT_NE(text, nullptr);
    EXPECT_EQ(std::strlen(text), 4000U);
    arena.reset();
    errno = 0;
    EXPECT_FALSE(arena.reserve(std::numeric_limits<size_t>::max()));
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_STREQ(arena.copy("usable"), "usable");
}

TEST(Arena, gives_nothing_back_when_it_holds_nothing)
{
    Arena arena;
    arena.give_back();
    EXPECT_STREQ(arena.copy("text"), "text");
}

TEST(Arena, reports_enomem_for_sizes_that_cannot_be)
{
    Arena arena;
    for (const bool used : {false, true}) {
        if (used) {
            ASSERT_NE(arena.copy("x"), nullptr);
        }
        errno = 0;
        EXPECT_EQ(arena.allocate(std::numeric_limits<size_t>::max()), nullptr);
        EXPECT_EQ(errno, ENOMEM);
        errno = 0;
        EXPECT_EQ(arena.allocate_text(std::numeric_limits<size_t>::max() - 7), nullptr);
        EXPECT_EQ(errno, ENOMEM);
    }
    EXPECT_STREQ(arena.copy("still usable"), "still usable");
}
