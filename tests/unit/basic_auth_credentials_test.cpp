#include "plugins/basic_auth/credentials.h"

#include <gtest/gtest.h>

#include <string>

namespace {

struct Row {
    const char* text;
    bool good;
    std::string bytes;
};

const Row ROWS[] = {
    {"", true, ""},
    {"Zg==", true, "f"},
    {"Zm8=", true, "fo"},
    {"Zm9v", true, "foo"},
    {"Zm9vYg==", true, "foob"},
    {"Zm9vYmE=", true, "fooba"},
    {"Zm9vYmFy", true, "foobar"},
    {"AAAA", true, std::string(3, '\0')},
    {"////", true, "\xFF\xFF\xFF"},
    {"+/+/", true, "\xFB\xFF\xBF"},
    {"Zg", false, ""},
    {"Zg=", false, ""},
    {"Zm8", false, ""},
    {"Z===", false, ""},
    {"====", false, ""},
    {"=", false, ""},
    {"Zg===", false, ""},
    {"Zh==", false, ""}, // the bits behind the last byte are not zero
    {"Zm9=", false, ""},
    {"Zg==Zg==", false, ""},
    {"Zm9v====", false, ""},
    {"Zm9 ", false, ""},
    {" Zm9v", false, ""},
    {"Zm\n9", false, ""},
    {"Zm9@", false, ""},
    {"Zm9[", false, ""},
    {"Zm9`", false, ""},
    {"Zm9{", false, ""},
    {"Zm9:", false, ""},
    {"Zm9-", false, ""},
    {"Zm9_", false, ""},
    {"Zm9.", false, ""},
    {"Zm9\xC3", false, ""},
};

TEST(Base64, is_decoded_as_the_table_says)
{
    for (const Row& row : ROWS) {
        SCOPED_TRACE(row.text);
        char bytes[64];
        size_t length = 0;
        EXPECT_EQ(base64_decode(row.text, bytes, sizeof(bytes), length), row.good);
        if (row.good) {
            EXPECT_EQ(std::string(bytes, length), row.bytes);
        }
    }
}

TEST(Base64, never_writes_beyond_its_room)
{
    for (size_t room = 0; room < 6; ++room) {
        char bytes[7] = {'#', '#', '#', '#', '#', '#', '#'};
        size_t length = 0;
        EXPECT_FALSE(base64_decode("Zm9vYmFy", bytes, room, length)) << room;
        EXPECT_EQ(bytes[room], '#') << room;
    }
    char bytes[6];
    size_t length = 0;
    EXPECT_TRUE(base64_decode("Zm9vYmFy", bytes, sizeof(bytes), length));
}

TEST(Credentials, are_split_at_the_first_colon)
{
    struct Good_Row {
        const char* value;
        const char* user;
        const char* password;
    };
    const Good_Row rows[] = {
        {"Basic QWxhZGRpbjpvcGVuIHNlc2FtZQ==", "Aladdin", "open sesame"},
        {"basic QWxhZGRpbjpvcGVuIHNlc2FtZQ==", "Aladdin", "open sesame"},
        {"BASIC   QWxhZGRpbjpvcGVuIHNlc2FtZQ==", "Aladdin", "open sesame"},
        {"Basic dGVzdDoxMjPCow==", "test", "123\xC2\xA3"},
        {"Basic YTpiOmM=", "a", "b:c"},
        {"Basic YTo=", "a", ""},
        {"Basic OmI=", "", "b"},
        {"Basic Og==", "", ""},
    };
    for (const Good_Row& row : rows) {
        Credentials credentials;
        ASSERT_TRUE(credentials.parse(row.value)) << row.value;
        EXPECT_EQ(credentials.user(), row.user);
        EXPECT_STREQ(credentials.password().data(), row.password);
        EXPECT_EQ(credentials.password(), row.password);
    }
}

TEST(Credentials, are_refused_when_they_are_malformed)
{
    for (const char* const value : {
             "",
             "Basic",
             "Basic ",
             "Basic  ",
             "Bearer YTpi",
             "Digest YTpi",
             "BasicYTpi",
             "Basi YTpi",
             "Basic\tYTpi",
             "Basic YTpi YTpi",
             "Basic YTpi,",
             "Basic YTp",
             "Basic YWI=",     // "ab": no colon
             "Basic YTpiAA==", // a:b and NUL
             "Basic YTpiAGM=", // NUL inside the password
             "Basic YQA6Yg==", // NUL inside the user
             "Basic YTpiCg==", // line feed
             "Basic YTpifw==", // DEL
             "Basic ====",
             "Basic YTpi\r\n",
         }) {
        Credentials credentials;
        EXPECT_FALSE(credentials.parse(value)) << value;
    }
}

TEST(Credentials, are_refused_when_they_are_too_long)
{
    // "AAAA" would be NULs, so: 3 bytes "aaa" for each "YWFh", after "a:a" for "YTph"
    std::string value = "Basic YTph";
    for (size_t bytes = 6; bytes <= Credentials::MAX_LENGTH; bytes += 3) {
        value += "YWFh";
    }
    Credentials credentials;
    EXPECT_TRUE(credentials.parse(value));
    EXPECT_EQ(credentials.password().size() + 2, Credentials::MAX_LENGTH / 3 * 3);
    value += "YWFh";
    Credentials longer;
    EXPECT_FALSE(longer.parse(value));
}

} // namespace
