#include "httpd/detail/request_check.h"

#include <gtest/gtest.h>

TEST(Request_Check, finds_a_dot_before_a_slash_or_a_backslash)
{
    for (const char* path : {"/a/../b", "/./a", "/a./b", "../", "/a/..\\b", "/.\\", "/a.b/c./"}) {
        EXPECT_TRUE(has_dot_segment(path)) << path;
    }
}

TEST(Request_Check, lets_other_dots_pass)
{
    for (const char* path :
         {"/", "", "/a.html", "/.hidden", "/a/..", "/..a/b", "*", "/a.", "/..."}) {
        EXPECT_FALSE(has_dot_segment(path)) << path;
    }
}
