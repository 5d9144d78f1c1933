#include "support/http_method.h"

#include <gtest/gtest.h>

#include <iterator>
#include <string>

namespace {

const struct {
    HTTP_Method method;
    int number;
    const char* name;
} METHODS[] = {
    {HTTP_METHOD_CONNECT, 0, "CONNECT"}, {HTTP_METHOD_COPY, 1, "COPY"},
    {HTTP_METHOD_DELETE, 2, "DELETE"},   {HTTP_METHOD_GET, 3, "GET"},
    {HTTP_METHOD_HEAD, 4, "HEAD"},       {HTTP_METHOD_MKCOL, 5, "MKCOL"},
    {HTTP_METHOD_MOVE, 6, "MOVE"},       {HTTP_METHOD_OPTIONS, 7, "OPTIONS"},
    {HTTP_METHOD_POST, 8, "POST"},       {HTTP_METHOD_PUT, 9, "PUT"},
    {HTTP_METHOD_TRACE, 10, "TRACE"},
};

} // namespace

TEST(HTTP_Method, has_the_laid_down_numbers_and_names)
{
    EXPECT_EQ(std::size(METHODS), size_t{NUM_HTTP_METHOD_STRINGS});
    for (const auto& row : METHODS) {
        EXPECT_EQ(row.method, row.number);
        EXPECT_STREQ(http_method_string(row.method), row.name);
        EXPECT_EQ(http_method_from_token(row.name), row.method);
    }
}

TEST(HTTP_Method, prints_a_dash_for_no_method)
{
    EXPECT_EQ(HTTP_NO_METHOD, -1);
    EXPECT_STREQ(http_method_string(HTTP_NO_METHOD), "-");
    EXPECT_STREQ(http_method_string(NUM_HTTP_METHOD_STRINGS), "-");
}

TEST(HTTP_Method, knows_no_other_token)
{
    for (const char* token :
         {"",       "-",       "G",       "GE",       "get",      "Get",   "GETS",
          "PATCH",  "PUTS",    "LOCK",    "HEAX",     "POSS",     "TRACF", "MKCOX",
          "DELETF", "CONNECX", "OPTIONX", "PROPFIND", "UNLOCKED", "CAT",   "Mkcol"}) {
        EXPECT_EQ(http_method_from_token(token), HTTP_NO_METHOD) << token;
    }
}

TEST(HTTP_Method, tells_names_apart_that_differ_in_one_character)
{
    for (const auto& row : METHODS) {
        for (size_t i = 0; i < std::string_view(row.name).size(); ++i) {
            std::string token(row.name);
            token[i] = static_cast<char>(token[i] ^ 0x20);
            EXPECT_EQ(http_method_from_token(token), HTTP_NO_METHOD) << token;
            token[i] = '\0';
            EXPECT_EQ(http_method_from_token(token), HTTP_NO_METHOD) << row.name << " at " << i;
        }
    }
}
