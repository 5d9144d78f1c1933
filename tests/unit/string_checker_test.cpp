#include "support/string_checker.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using namespace std::literals;

struct Row {
    String_Checker::SC_Type type;
    std::string text;
    bool accepted;
};

const Row ROWS[] = {
    {String_Checker::SC_DIGITS, "0123456789", true},
    {String_Checker::SC_DIGITS, "12/", false},
    {String_Checker::SC_DIGITS, "12:", false},
    {String_Checker::SC_DIGITS, "1a", false},
    {String_Checker::SC_LETTERS, "azAZ", true},
    {String_Checker::SC_LETTERS, "a@", false},
    {String_Checker::SC_LETTERS, "a[", false},
    {String_Checker::SC_LETTERS, "a`", false},
    {String_Checker::SC_LETTERS, "a{", false},
    {String_Checker::SC_LETTERS, "a1", false},
    {String_Checker::SC_LETTERS, "\xC3\xA9", false},
    {String_Checker::SC_ALNUM, "aZ09", true},
    {String_Checker::SC_ALNUM, "a_1", false},
    {String_Checker::SC_HEX_DIGITS, "09afAF", true},
    {String_Checker::SC_HEX_DIGITS, "0g", false},
    {String_Checker::SC_HEX_DIGITS, "0G", false},
    {String_Checker::SC_TOKEN, "X-Name_1!#$%&'*+.^`|~", true},
    {String_Checker::SC_TOKEN, "a b", false},
    {String_Checker::SC_TOKEN, "a,b", false},
    {String_Checker::SC_TOKEN, "a:b", false},
    {String_Checker::SC_TOKEN, "a\0b"s, false},
    {String_Checker::SC_PRINTABLE, " ~text", true},
    {String_Checker::SC_PRINTABLE, "a\tb", false},
    {String_Checker::SC_PRINTABLE, "a\x7F", false},
    {String_Checker::SC_PRINTABLE, "a\x80", false},
};

TEST(String_Checker, tests_every_character_against_its_class)
{
    for (const Row& row : ROWS) {
        EXPECT_EQ(String_Checker::check(row.text, row.type), row.accepted)
            << row.type << " " << row.text;
    }
}

TEST(String_Checker, refuses_an_empty_text_whatever_the_type)
{
    for (int type = 0; type <= 6; ++type) {
        EXPECT_FALSE(String_Checker::check("", static_cast<String_Checker::SC_Type>(type))) << type;
    }
}

TEST(String_Checker, refuses_every_text_for_an_unknown_type)
{
    EXPECT_FALSE(String_Checker::check("1", static_cast<String_Checker::SC_Type>(7)));
}

TEST(String_Checker, kind_6_accepts_ip_address_literals)
{
    for (const char* text : {"192.0.2.7", "0.0.0.0", "255.255.255.255", "::", "::1", "2001:db8::7",
                             "2001:DB8:0:0:0:0:0:7", "::ffff:192.0.2.7"}) {
        EXPECT_TRUE(String_Checker::check(text, static_cast<String_Checker::SC_Type>(6))) << text;
    }
}

TEST(String_Checker, kind_6_accepts_nothing_else)
{
    for (const std::string& text : {"192.0.2"s,
                                    "192.0.2.256"s,
                                    "192.0.2.7:80"s,
                                    "192.0.2.07"s,
                                    "0xC0000207"s,
                                    "3221225991"s,
                                    " 192.0.2.7"s,
                                    "192.0.2.7 "s,
                                    "192.0.2.7, 10.0.0.1"s,
                                    "192.0.2.7\0"s,
                                    "[::1]"s,
                                    "::1%lo"s,
                                    "::1%1"s,
                                    "[::1]:80"s,
                                    "1:2:3"s,
                                    ":::"s,
                                    "localhost"s,
                                    "unknown"s,
                                    "_hidden"s,
                                    "-"s}) {
        EXPECT_FALSE(String_Checker::check(text, static_cast<String_Checker::SC_Type>(6))) << text;
    }
}

} // namespace
