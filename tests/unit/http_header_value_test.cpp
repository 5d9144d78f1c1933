#include "support/http_header_value.h"

#include <gtest/gtest.h>

#include <string>

TEST(http_header_value_match, finds_an_element_of_a_list)
{
    const struct {
        const char* value;
        const char* token;
        char separator;
        bool expected;
    } rows[] = {
        {"close", "close", ',', true},
        {"Close", "close", ',', true},
        {"close", "CLOSE", ',', true},
        {"keep-alive, Upgrade", "Upgrade", ',', true},
        {"keep-alive, Upgrade", "keep-alive", ',', true},
        {"keep-alive,Upgrade", "upgrade", ',', true},
        {" \t close \t ", "close", ',', true},
        {"a,\tclose\t,b", "close", ',', true},
        {",,close,,", "close", ',', true},
        {"closed", "close", ',', false},
        {"clos", "close", ',', false},
        {"close d", "close", ',', false},
        {"close;x", "close", ',', false},
        {"close;x", "close", ';', true},
        {"a,b", "a,b", ',', false},
        {"a,b", "a", ';', false},
        {"", "close", ',', false},
        {",", "close", ',', false},
        {" ", "close", ',', false},
        {"a,,b", "", ',', false}, // empty elements count for nothing
        {"", "", ',', false},
        {"[", "{", ',', false}, // differ by the bit that tells letters' case
        {"@a", "`a", ',', false},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(http_header_value_match(row.value, row.token, row.separator), row.expected)
            << "'" << row.value << "' '" << row.token << "' '" << row.separator << "'";
    }
}

TEST(http_header_value_match, trims_nothing_but_blanks_and_tabs)
{
    for (const char c : std::string("\n\v\f\r\xA0")) {
        const std::string value = std::string("a,") + c + "close";
        EXPECT_FALSE(http_header_value_match(value, "close", ','));
    }
}

TEST(http_header_value_match, reads_only_the_value_it_was_given)
{
    const std::string_view list = "keep-alive, close";
    EXPECT_FALSE(http_header_value_match(list.substr(0, list.size() - 1), "close", ','));
    EXPECT_FALSE(http_header_value_match(std::string_view(), "close", ','));
}
