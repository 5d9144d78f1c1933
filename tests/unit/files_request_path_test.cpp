#include "plugins/files/request_path.h"

#include <gtest/gtest.h>

#include <string>

namespace {

struct Good_Row {
    const char* path;
    size_t offset;
    const char* name;
    bool slash;
};

const Good_Row GOOD_ROWS[] = {
    {"/", 1, "", true},
    {"/a", 1, "a", false},
    {"/a/b.html", 1, "a/b.html", false},
    {"/a/", 1, "a", true},
    {"/static", 7, "", false},
    {"/static/", 7, "", true},
    {"/static/", 8, "", true},
    {"/static/a", 7, "a", false},
    {"/static/a", 8, "a", false},
    {"/static/a/b/", 7, "a/b", true},
    {"/a%20b", 1, "a b", false},
    {"/%61", 1, "a", false},
    {"/caf%C3%A9", 1, "caf\xC3\xA9", false},
    {"/caf%c3%a9", 1, "caf\xC3\xA9", false},
    {"/100%25", 1, "100%", false},
    {"/a..b", 1, "a..b", false},
    {"/a.", 1, "a.", false},
    {"/a../b", 1, "a../b", false},
    {"/.well-known/x", 1, ".well-known/x", false},
    {"/%2Ewell-known/x", 1, ".well-known/x", false},
    {"/a/.well-known", 1, "a/.well-known", false},
    {"/~user;v=1,2", 1, "~user;v=1,2", false},
    {"/a:b@c", 1, "a:b@c", false},
    // Decoded once: these are names like any other, and lead nowhere.
    {"/%252e%252e/x", 1, "%2e%2e/x", false},
    {"/%252fetc", 1, "%2fetc", false},
    // Overlong UTF-8 is not UTF-8: bytes of a name, never a slash or a dot.
    {"/a%c0%afb", 1,
     "a\xC0\xAF"
     "b",
     false},
    {"/%c0%ae%c0%ae/x", 1, "\xC0\xAE\xC0\xAE/x", false},
    {"/%e0%80%af", 1, "\xE0\x80\xAF", false},
    {"/\xEF\xBC\x8E\xEF\xBC\x8E/x", 1, "\xEF\xBC\x8E\xEF\xBC\x8E/x", false},
};

TEST(Request_Path, names_a_file_below_the_root)
{
    for (const Good_Row& row : GOOD_ROWS) {
        SCOPED_TRACE(testing::Message() << row.path << " from " << row.offset);
        Request_Path path;
        ASSERT_TRUE(path.decode(row.path, row.offset));
        EXPECT_STREQ(path.c_str(), row.name);
        EXPECT_EQ(path.ends_with_slash(), row.slash);
    }
}

struct Bad_Row {
    const char* path;
    size_t offset;
};

const Bad_Row BAD_ROWS[] = {
    {"", 0},
    {"*", 0},
    {"*", 1},
    {"host:80", 0},
    {"a/b", 0},
    {"/a", 3},
    {"/staticfile", 7},
    // climbing
    {"/..", 1},
    {"/../", 1},
    {"/../etc/passwd", 1},
    {"/a/../../etc/passwd", 1},
    {"/a/..", 1},
    {"/a/../b", 1},
    {"/.", 1},
    {"/./a", 1},
    {"/a/.", 1},
    {"/a/./b", 1},
    {"/%2e%2e/etc/passwd", 1},
    {"/%2E%2E/etc/passwd", 1},
    {"/.%2e/etc/passwd", 1},
    {"/%2e./etc/passwd", 1},
    {"/%2e%2e%2fetc%2fpasswd", 1},
    {"/..%2fetc", 1},
    {"/..%5cetc", 1},
    {"/%2e", 1},
    {"/...", 1},
    {"/..a", 1},
    {"/static/..", 7},
    {"/static/../x", 7},
    {"/static../x", 7},
    // absolute and empty names
    {"//", 1},
    {"//etc/passwd", 1},
    {"/a//b", 1},
    {"/a//", 1},
    {"/static//etc/passwd", 7},
    {"/static//etc/passwd", 8},
    {"/static//", 7},
    {"/%2fetc/passwd", 1},
    {"/%2Fetc/passwd", 1},
    {"/a%2fb", 1},
    // backslashes
    {"/a\\b", 1},
    {"/\\", 1},
    {"/..\\..\\x", 1},
    {"/\\..\\x", 1},
    {"/a%5cb", 1},
    {"/%5C..%5Cx", 1},
    // NUL and other controls
    {"/a%00", 1},
    {"/a%00.html", 1},
    {"/%00", 1},
    {"/a%0a", 1},
    {"/a%0d%0aX:y", 1},
    {"/a%1f", 1},
    {"/a%7f", 1},
    {"/a\x01", 1},
    {"/a\x7F", 1},
    // malformed encodings
    {"/%", 1},
    {"/a%", 1},
    {"/a%2", 1},
    {"/a%2/", 1},
    {"/a%zz", 1},
    {"/a%2g", 1},
    {"/a%g2", 1},
    {"/a%/1", 1},
    {"/a%u002e", 1},
    {"/a%-1", 1},
    {"/a%+1", 1},
    {"/a% 1", 1},
    // hidden names
    {"/.htaccess", 1},
    {"/.git/config", 1},
    {"/a/.env", 1},
    {"/%2ehtpasswd", 1},
    {"/.well-known2", 1},
    {"/.Well-Known", 1},
    {"/.well-known/.x", 1},
    {"/.a/", 1},
    // no part of a path
    {"/a#b", 1},
};

TEST(Request_Path, refuses_what_might_mean_another_place)
{
    for (const Bad_Row& row : BAD_ROWS) {
        Request_Path path;
        EXPECT_FALSE(path.decode(row.path, row.offset)) << row.path << " from " << row.offset;
    }
}

TEST(Request_Path, refuses_an_encoded_form_of_every_byte_that_no_name_may_hold)
{
    for (int byte = 0; byte < 256; ++byte) {
        char text[16];
        std::snprintf(text, sizeof(text), "/a%%%02xb", static_cast<unsigned>(byte));
        const bool good = byte >= 0x20 && byte != 0x7F && byte != '/' && byte != '\\';
        Request_Path path;
        ASSERT_EQ(path.decode(text, 1), good) << text;
        if (good) {
            EXPECT_EQ(static_cast<unsigned char>(path.c_str()[1]), byte);
        }
    }
}

TEST(Request_Path, refuses_a_name_that_is_cut_at_any_place_of_an_encoding)
{
    const std::string whole = "/ab%41/c%42";
    for (size_t cut = 1; cut <= whole.size(); ++cut) {
        const std::string part = whole.substr(0, cut);
        const size_t percent = part.rfind('%');
        const bool good = percent == std::string::npos || part.size() - percent > 2;
        Request_Path path;
        EXPECT_EQ(path.decode(part, 1), good) << part;
    }
}

TEST(Request_Path, has_one_canonical_spelling_of_every_byte)
{
    for (int byte = 0x20; byte < 256; ++byte) {
        if (byte == '/' || byte == '\\' || byte == '#' || byte == 0x7F) {
            continue;
        }
        char upper[16];
        char lower[16];
        std::snprintf(upper, sizeof(upper), "/a%%%02X", static_cast<unsigned>(byte));
        std::snprintf(lower, sizeof(lower), "/a%%%02x", static_cast<unsigned>(byte));
        const std::string raw = std::string("/a") + static_cast<char>(byte);
        char encoded[MAX_ENCODED_SIZE];
        char* const end = encode_path_byte(static_cast<char>(byte), encoded);
        const std::string canonical = "/a" + std::string(encoded, end);
        int spellings = 0;
        for (const std::string& text : {std::string(upper), std::string(lower), raw}) {
            Request_Path path;
            if (path.decode(text, 1) && path.is_canonical()) {
                EXPECT_EQ(text, canonical);
                ++spellings;
            }
        }
        // Without letters among its digits both encodings are the same.
        EXPECT_EQ(spellings, std::string(upper) == lower && canonical != raw ? 2 : 1) << byte;
    }
}

TEST(Request_Path, refuses_what_is_too_long)
{
    Request_Path path;
    std::string text(PATH_MAX - 1, 'a');
    EXPECT_TRUE(path.decode("/" + text, 1));
    EXPECT_FALSE(path.append("b"));
    EXPECT_FALSE(path.enter("b"));
    EXPECT_EQ(path.c_str(), text);
    EXPECT_FALSE(path.decode("/" + text + "a", 1));
    EXPECT_FALSE(path.decode("/" + std::string(100'000, 'a'), 1));
}

TEST(Request_Path, goes_down_to_a_name)
{
    Request_Path path;
    ASSERT_TRUE(path.decode("/", 1));
    ASSERT_TRUE(path.enter("index.html"));
    EXPECT_STREQ(path.c_str(), "index.html");
    ASSERT_TRUE(path.decode("/a/b/", 1));
    ASSERT_TRUE(path.enter("index.html"));
    EXPECT_STREQ(path.c_str(), "a/b/index.html");
    ASSERT_TRUE(path.append(".gz"));
    EXPECT_STREQ(path.c_str(), "a/b/index.html.gz");
}

TEST(Request_Path, tells_the_extension_of_the_last_name)
{
    const std::pair<const char*, const char*> rows[] = {
        {"/a.html", "html"}, {"/a.tar.gz", "gz"},   {"/a", ""}, {"/a.b/c", ""}, {"/a.b/c.d", "d"},
        {"/a.", ""},         {"/x/a%2Ecss", "css"},
    };
    for (const auto& [text, extension] : rows) {
        Request_Path path;
        ASSERT_TRUE(path.decode(text, 1));
        EXPECT_STREQ(path.extension(), extension) << text;
    }
}

} // namespace
