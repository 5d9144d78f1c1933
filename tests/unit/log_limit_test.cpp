#include "support/log_limit.h"

#include <gtest/gtest.h>

using std::chrono::milliseconds;

TEST(Log_Limit, lets_ten_lines_of_a_second_through)
{
    const Log_Limit::Clock::time_point start{};
    Log_Limit limit;
    for (int i = 0; i < Log_Limit::MOST; ++i) {
        EXPECT_TRUE(limit.may_log(start + milliseconds(i)));
    }
    EXPECT_FALSE(limit.may_log(start + milliseconds(10)));
    EXPECT_FALSE(limit.may_log(start + milliseconds(999)));
}

TEST(Log_Limit, begins_anew_after_a_second)
{
    const Log_Limit::Clock::time_point start{};
    Log_Limit limit;
    for (int second = 0; second < 3; ++second) {
        int lines = 0;
        for (int i = 0; i < 100; ++i) {
            lines += limit.may_log(start + milliseconds(1000 * second + i)) ? 1 : 0;
        }
        EXPECT_EQ(Log_Limit::MOST, lines) << second;
    }
}
