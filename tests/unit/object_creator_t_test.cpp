#include "httpd/object_creator_t.h"

#include <gtest/gtest.h>

#include <string>
#include <type_traits>
#include <vector>

namespace {

struct Thing {
    int number;
};

/// Counts what it hands out; writes down each call.
class Thing_Creator : public Object_Creator_T<Thing> {
public:
    Thing* create() override
    {
        calls_.push_back("create");
        return yields_ ? new Thing{++made_} : nullptr;
    }

    void destroy(Thing* thing) override
    {
        calls_.push_back(thing != nullptr ? "destroy " + std::to_string(thing->number)
                                          : "destroy null");
        delete thing;
    }

    bool yields_ = true;
    int made_ = 0;
    std::vector<std::string> calls_;
};

using Thing_var = Object_var<Thing_Creator, Thing>;
using Calls = std::vector<std::string>;

TEST(Object_Creator_T, names_its_object_type)
{
    EXPECT_TRUE((std::is_same_v<Thing_Creator::object_type, Thing>));
}

TEST(Object_Creator_T, keeps_private_copies_of_its_arguments)
{
    Thing_Creator creator;
    std::string first = "one";
    std::string second = "two";
    char* argv[] = {first.data(), second.data()};
    EXPECT_EQ(creator.init(2, argv), 0);
    first = "xxx";
    argv[1] = nullptr;
    ASSERT_EQ(creator.argc_, 2);
    EXPECT_STREQ(creator.argv_[0], "one");
    EXPECT_STREQ(creator.argv_[1], "two");
}

TEST(Object_Creator_T, without_an_array_only_the_count_is_kept)
{
    Thing_Creator creator;
    EXPECT_EQ(creator.init(2, nullptr), 0);
    EXPECT_EQ(creator.argc_, 2);
    EXPECT_EQ(creator.argv_, nullptr);
    creator.clear();
    EXPECT_EQ(creator.argc_, 0);
}

TEST(Object_Creator_T, takes_an_empty_array)
{
    Thing_Creator creator;
    char* argv[] = {nullptr};
    EXPECT_EQ(creator.init(0, argv), 0);
    EXPECT_EQ(creator.argc_, 0);
}

TEST(Object_Creator_T, init_replaces_earlier_arguments)
{
    Thing_Creator creator;
    char first[] = "one";
    char second[] = "two";
    char* argv[] = {first, second};
    creator.init(2, argv);
    EXPECT_EQ(creator.init(1, argv + 1), 0);
    ASSERT_EQ(creator.argc_, 1);
    EXPECT_STREQ(creator.argv_[0], "two");
}

TEST(Object_Creator_T, clear_forgets_the_arguments_and_may_be_repeated)
{
    Thing_Creator creator;
    char word[] = "one";
    char* argv[] = {word};
    creator.init(1, argv);
    creator.clear();
    creator.clear();
    EXPECT_EQ(creator.argc_, 0);
    EXPECT_EQ(creator.argv_, nullptr);
}

TEST(Object_Creator_T, fini_of_the_base_class_returns_0)
{
    Thing_Creator creator;
    EXPECT_EQ(creator.fini(), 0);
}

TEST(Object_var, is_empty_without_a_creator)
{
    const Thing_var empty;
    EXPECT_FALSE(empty);
    EXPECT_EQ(empty.get(), nullptr);
    EXPECT_EQ(empty.creator(), nullptr);
}

TEST(Object_var, holds_a_fresh_object_and_gives_it_back_at_its_end)
{
    Thing_Creator creator;
    {
        const Thing_var thing(&creator);
        ASSERT_TRUE(thing);
        EXPECT_EQ(thing->number, 1);
        EXPECT_EQ(thing.get()->number, 1);
        EXPECT_EQ(thing.creator(), &creator);
        EXPECT_EQ(creator.calls_, (Calls{"create"}));
    }
    EXPECT_EQ(creator.calls_, (Calls{"create", "destroy 1"}));
}

TEST(Object_var, reset_with_the_same_creator_destroys_the_old_object_before_it_makes_a_new_one)
{
    Thing_Creator creator;
    Thing_var thing(&creator);
    thing.reset(&creator);
    EXPECT_EQ(thing->number, 2);
    EXPECT_EQ(creator.calls_, (Calls{"create", "destroy 1", "create"}));
}

TEST(Object_var, reset_with_another_creator_gives_the_object_back_to_the_first)
{
    Thing_Creator first;
    Thing_Creator second;
    Thing_var thing(&first);
    thing.reset(&second);
    EXPECT_EQ(first.calls_, (Calls{"create", "destroy 1"}));
    EXPECT_EQ(second.calls_, (Calls{"create"}));
    EXPECT_EQ(thing.creator(), &second);
}

TEST(Object_var, reset_with_null_leaves_it_empty)
{
    Thing_Creator creator;
    Thing_var thing(&creator);
    thing.reset(nullptr);
    EXPECT_FALSE(thing);
    EXPECT_EQ(thing.creator(), nullptr);
    thing.reset(nullptr);
    EXPECT_EQ(creator.calls_, (Calls{"create", "destroy 1"}));
}

TEST(Object_var, a_creator_that_yields_nothing_is_held_and_asked_to_destroy_null)
{
    Thing_Creator creator;
    creator.yields_ = false;
    {
        const Thing_var thing(&creator);
        EXPECT_FALSE(thing);
        EXPECT_EQ(thing.creator(), &creator);
    }
    EXPECT_EQ(creator.calls_, (Calls{"create", "destroy null"}));
}

} // namespace
