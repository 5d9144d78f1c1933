#include "support/http_header_id.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <set>
#include <string>

namespace {

std::string upper(std::string_view text)
{
    std::string result(text);
    std::transform(result.begin(), result.end(), result.begin(),
                   [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    return result;
}

std::string lower(std::string_view text)
{
    std::string result(text);
    std::transform(result.begin(), result.end(), result.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return result;
}

} // namespace

TEST(HTTP_Header_Id, has_the_numbers_that_plugins_rely_on)
{
    EXPECT_EQ(HTTP_HEAD_CONNECTION, 8);
    EXPECT_EQ(HTTP_HEAD_CONTENT_LENGTH, 12);
    EXPECT_EQ(HTTP_HEAD_CONTENT_TYPE, 16);
    EXPECT_EQ(HTTP_HEAD_HOST, 23);
    EXPECT_EQ(HTTP_HEAD_RANGE, 32);
    EXPECT_EQ(HTTP_HEAD_REFERER, 33);
    EXPECT_EQ(HTTP_HEAD_TRANSFER_ENCODING, 40);
    EXPECT_EQ(HTTP_HEAD_UPGRADE, 41);
    EXPECT_EQ(HTTP_HEAD_X_FORWARDED_FOR, 53);
}

TEST(HTTP_Header_Id, names_stand_in_the_order_of_the_alphabet)
{
    for (int id = 1; id < NUM_HTTP_HEADS; ++id) {
        EXPECT_LT(lower(http_header_name(id - 1)), lower(http_header_name(id)));
    }
}

TEST(HTTP_Header_Id, gives_the_names_as_they_are_written_on_the_wire)
{
    EXPECT_EQ(http_header_name(HTTP_HEAD_ACCEPT), "Accept");
    EXPECT_EQ(http_header_name(HTTP_HEAD_CONTENT_LENGTH), "Content-Length");
    EXPECT_EQ(http_header_name(HTTP_HEAD_CONTENT_MD5), "Content-MD5");
    EXPECT_EQ(http_header_name(HTTP_HEAD_ETAG), "ETag");
    EXPECT_EQ(http_header_name(HTTP_HEAD_SEC_WEBSOCKET_ACCEPT), "Sec-WebSocket-Accept");
    EXPECT_EQ(http_header_name(HTTP_HEAD_WWW_AUTHENTICATE), "WWW-Authenticate");
    EXPECT_EQ(http_header_name(HTTP_HEAD_X_REQUESTED_WITH), "X-Requested-With");
    for (int id = 0; id < NUM_HTTP_HEADS; ++id) { // a C string too
        EXPECT_EQ(http_header_name(id).data()[http_header_name(id).size()], '\0');
    }
}

TEST(HTTP_Header_Id, has_no_name_outside_the_table)
{
    EXPECT_TRUE(http_header_name(HTTP_HEAD_UNKNOWN).empty());
    EXPECT_TRUE(http_header_name(NUM_HTTP_HEADS).empty());
    EXPECT_TRUE(http_header_name(1000000).empty());
}

TEST(HTTP_Header_Id, finds_every_name_in_any_case)
{
    for (int id = 0; id < NUM_HTTP_HEADS; ++id) {
        const std::string_view name = http_header_name(id);
        EXPECT_EQ(http_header_id(name), id) << name;
        EXPECT_EQ(http_header_id(upper(name)), id) << name;
        EXPECT_EQ(http_header_id(lower(name)), id) << name;
    }
}

TEST(HTTP_Header_Id, takes_no_other_byte_for_a_character_of_a_name)
{
    for (int id = 0; id < NUM_HTTP_HEADS; ++id) {
        const std::string name(http_header_name(id));
        for (size_t i = 0; i < name.size(); ++i) {
            for (int byte = 0; byte < 256; ++byte) {
                std::string other = name;
                other[i] = static_cast<char>(byte);
                if (lower(other) != lower(name)) {
                    ASSERT_NE(http_header_id(other), id) << name << " with " << byte << " at " << i;
                }
            }
        }
    }
}

TEST(HTTP_Header_Id, knows_no_name_that_is_longer_or_shorter)
{
    std::set<std::string> names;
    for (int id = 0; id < NUM_HTTP_HEADS; ++id) {
        names.emplace(http_header_name(id));
    }
    for (const std::string& name : names) {
        const std::string shorter = name.substr(0, name.size() - 1);
        if (names.count(shorter) == 0) {
            EXPECT_EQ(http_header_id(shorter), HTTP_HEAD_UNKNOWN) << shorter;
        }
        EXPECT_EQ(http_header_id(name + "x"), HTTP_HEAD_UNKNOWN) << name;
        EXPECT_EQ(http_header_id(name + " "), HTTP_HEAD_UNKNOWN) << name;
    }
    EXPECT_EQ(http_header_id(""), HTTP_HEAD_UNKNOWN);
    EXPECT_EQ(http_header_id("TE"), HTTP_HEAD_UNKNOWN);
    EXPECT_EQ(http_header_id(std::string(1000, 'x')), HTTP_HEAD_UNKNOWN);
}
