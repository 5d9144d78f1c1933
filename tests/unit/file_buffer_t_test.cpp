#include "support/file_buffer_t.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace {

TEST(File_Buffer_T, has_no_memory_at_first)
{
    File_Buffer_T<char> buffer;
    EXPECT_EQ(buffer.data(), nullptr);
    EXPECT_EQ(buffer.capacity(), 0U);
    EXPECT_TRUE(buffer.reserve(0));
    EXPECT_EQ(buffer.data(), nullptr);
}

TEST(File_Buffer_T, begins_on_a_page_whatever_its_size)
{
    for (const size_t size : {1U, 16U, 4095U, 4096U, 4097U, 131072U, 262144U, 1048577U}) {
        File_Buffer_T<char> buffer;
        ASSERT_TRUE(buffer.reserve(size));
        EXPECT_GE(buffer.capacity(), size);
        EXPECT_EQ(reinterpret_cast<uintptr_t>(buffer.data()) % 4096, 0U) << size;
        std::memset(buffer.data(), 1, buffer.capacity());
    }
}

TEST(File_Buffer_T, keeps_its_memory_when_it_is_large_enough)
{
    File_Buffer_T<char> buffer;
    ASSERT_TRUE(buffer.reserve(8192));
    const auto address = reinterpret_cast<uintptr_t>(buffer.data());
    ASSERT_TRUE(buffer.reserve(1));
    EXPECT_EQ(reinterpret_cast<uintptr_t>(buffer.data()), address);
    ASSERT_TRUE(buffer.reserve(8193));
    EXPECT_GE(buffer.capacity(), 8193U);
}

TEST(File_Buffer_T, fails_for_more_than_there_is)
{
    File_Buffer_T<char> buffer;
    errno = 0;
    EXPECT_FALSE(buffer.reserve(static_cast<size_t>(-1)));
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_EQ(buffer.capacity(), 0U);
    EXPECT_EQ(buffer.data(), nullptr);
}

} // namespace
