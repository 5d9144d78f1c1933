#include "support/check_message.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <ostream>
#include <stdexcept>

namespace {

/// A value that cannot be printed.
struct Unprintable {};

std::ostream& operator<<(std::ostream&, const Unprintable&)
{
    throw std::runtime_error("no text");
}

TEST(check_message, renders_the_value_in_parentheses)
{
    const size_t size = 0;
    EXPECT_EQ(check_message(size), "(0)");
    EXPECT_EQ(check_message(0), "(0)");
    EXPECT_EQ(check_message(-12L), "(-12)");
    EXPECT_EQ(check_message(static_cast<size_t>(-1)), "(18446744073709551615)");
    EXPECT_EQ(check_message("text"), "(text)");
}

TEST(check_message, is_empty_for_what_has_no_text)
{
    EXPECT_EQ(check_message(Unprintable()), "");
}

} // namespace
