#include "plugins/files/entity_tag.h"

#include <gtest/gtest.h>

namespace {

struct stat file_status()
{
    struct stat status {};
    status.st_ino = 7;
    status.st_size = 100;
    status.st_mtim.tv_sec = 1'000'000;
    status.st_mtim.tv_nsec = 5;
    return status;
}

std::string tag_of(const struct stat& status, bool encoded = false)
{
    return Entity_Tag(status, encoded).c_str();
}

TEST(Entity_Tag, is_quoted_and_strong)
{
    const std::string tag = tag_of(file_status());
    EXPECT_EQ(tag.front(), '"');
    EXPECT_EQ(tag.back(), '"');
    EXPECT_EQ(Entity_Tag(file_status(), false).view(), tag);
}

TEST(Entity_Tag, differs_with_inode_size_time_and_coding)
{
    const std::string tag = tag_of(file_status());
    struct stat other = file_status();
    other.st_ino = 8;
    EXPECT_NE(tag_of(other), tag);
    other = file_status();
    other.st_size = 101;
    EXPECT_NE(tag_of(other), tag);
    other = file_status();
    other.st_mtim.tv_sec += 1;
    EXPECT_NE(tag_of(other), tag);
    other = file_status();
    other.st_mtim.tv_nsec += 1;
    EXPECT_NE(tag_of(other), tag);
    EXPECT_NE(tag_of(file_status(), true), tag);
    EXPECT_EQ(tag_of(file_status()), tag);
}

TEST(Entity_Tag, of_the_largest_numbers_is_complete)
{
    struct stat status {};
    status.st_ino = ~ino_t{0};
    status.st_size = ~off_t{0};
    status.st_mtim.tv_sec = -1;
    status.st_mtim.tv_nsec = 999'999'999;
    const std::string tag = tag_of(status, true);
    EXPECT_EQ(tag, "\"ffffffffffffffff-ffffffffffffffff-ffffffffffffffff.3b9ac9ff-gz\"");
}

struct Row {
    const char* list;
    bool weak;   ///< found by weak comparison
    bool strong; ///< found by strong comparison
};

const Row ROWS[] = {
    {"*", true, true},
    {" *", true, true},
    {"\"abc\"", true, true},
    {"W/\"abc\"", true, false},
    {"\"x\", \"abc\"", true, true},
    {"\"x\",\"abc\"", true, true},
    {"\"x\",\t W/\"y\" , \"abc\"", true, true},
    {"W/\"abc\", \"abc\"", true, true},
    {", ,\"abc\",", true, true},
    {"\"abc\" , \"x\"", true, true},
    {"\"a,b\", \"abc\"", true, true},
    {"\"\", \"abc\"", true, true},
    {"\"abcd\"", false, false},
    {"\"ABC\"", false, false},
    {"abc", false, false},
    {"\"abc", false, false},
    {"abc\"", false, false},
    {"w/\"abc\"", false, false},
    {"W /\"abc\"", false, false},
    {"\"x\" \"abc\"", false, false},
    {"\"x y\", \"abc\"", false, false},
    {"x, \"abc\"", false, false},
    {"*, \"abc\"", false, false},
    {"\"x\", *", false, false},
    {"W/", false, false},
    {"\"", false, false},
    {",", false, false},
    {"", false, false},
};

TEST(Entity_Tag, is_found_in_a_list_as_the_table_says)
{
    for (const Row& row : ROWS) {
        SCOPED_TRACE(row.list);
        EXPECT_EQ(entity_tag_in_list(row.list, "\"abc\"", Tag_Comparison::WEAK), row.weak);
        EXPECT_EQ(entity_tag_in_list(row.list, "\"abc\"", Tag_Comparison::STRONG), row.strong);
    }
}

} // namespace
