#include "support/scoped_deleter.h"

#include <gtest/gtest.h>

#include <string>

namespace {

TEST(Scoped_Deleter, runs_its_action_once_when_the_scope_is_left)
{
    int runs = 0;
    {
        const auto deleter = make_deleter([&runs] { ++runs; });
        EXPECT_EQ(runs, 0);
    }
    EXPECT_EQ(runs, 1);
}

TEST(Scoped_Deleter, runs_its_action_on_an_early_return)
{
    int runs = 0;
    const auto leave = [&runs] {
        const auto deleter = make_deleter([&runs] { ++runs; });
        return 7;
    };
    EXPECT_EQ(leave(), 7);
    EXPECT_EQ(runs, 1);
}

TEST(Scoped_Deleter, does_nothing_when_dismissed)
{
    int runs = 0;
    {
        auto deleter = make_deleter([&runs] { ++runs; });
        deleter.dismiss();
    }
    EXPECT_EQ(runs, 0);
}

TEST(Scoped_Deleter, takes_a_callable_that_is_kept_by_its_caller)
{
    int runs = 0;
    const auto action = [&runs] { ++runs; };
    {
        const auto deleter = make_deleter(action);
    }
    EXPECT_EQ(runs, 1);
}

TEST(Scoped_Deleter, undoes_in_the_reverse_order_of_the_steps)
{
    std::string order;
    {
        const auto first = make_deleter([&order] { order += '1'; });
        const auto second = make_deleter([&order] { order += '2'; });
    }
    EXPECT_EQ(order, "21");
}

} // namespace
