#include "support/http_headers.h"

#include "tests/support/log_capture.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <vector>

namespace {

/// Every field as "Name: value", in order.
std::vector<std::string> lines(const HTTP_Headers& headers)
{
    std::vector<std::string> result;
    for (const HTTP_Headers::Field& field : headers) {
        result.push_back(std::string(field.name) + ": " + std::string(field.value));
    }
    return result;
}

using Lines = std::vector<std::string>;

class HTTP_Headers_Test : public testing::Test {
protected:
    Arena arena_;
    HTTP_Headers headers_{arena_};
};

} // namespace

TEST_F(HTTP_Headers_Test, has_nothing_at_first)
{
    for (int id = -2; id < NUM_HTTP_HEADS + 2; ++id) {
        EXPECT_EQ(headers_.get(id), nullptr);
    }
    EXPECT_EQ(headers_.get("X-Other"), nullptr);
    EXPECT_EQ(headers_.size(), 0U);
}

TEST_F(HTTP_Headers_Test, finds_every_known_field_by_number_and_by_name)
{
    for (int id = 0; id < NUM_HTTP_HEADS; ++id) {
        const std::string value = "value " + std::to_string(id);
        ASSERT_EQ(headers_.put(id, value.c_str(), true), 0);
    }
    for (int id = 0; id < NUM_HTTP_HEADS; ++id) {
        const std::string value = "value " + std::to_string(id);
        EXPECT_EQ(headers_.get(id, true), value);
        EXPECT_EQ(headers_.get(http_header_name(id)), value);
    }
    EXPECT_EQ(headers_.size(), size_t{NUM_HTTP_HEADS});
}

TEST_F(HTTP_Headers_Test, ignores_the_flag)
{
    EXPECT_EQ(headers_.put(HTTP_HEAD_HOST, "a", false), 0);
    EXPECT_STREQ(headers_.get(HTTP_HEAD_HOST, true), "a");
    EXPECT_STREQ(headers_.get(HTTP_HEAD_HOST, false), "a");
}

TEST_F(HTTP_Headers_Test, keeps_names_that_are_not_in_the_table)
{
    EXPECT_EQ(headers_.put("X-Tenant", "17"), 0);
    EXPECT_EQ(headers_.put("x-other", std::string_view("18")), 0);
    EXPECT_STREQ(headers_.get("x-TENANT"), "17");
    EXPECT_STREQ(headers_.get("X-Other"), "18");
    EXPECT_EQ(headers_.get("X-Tenan"), nullptr);
    EXPECT_EQ(lines(headers_), (Lines{"X-Tenant: 17", "x-other: 18"}));
    EXPECT_EQ(headers_.begin()->id, HTTP_HEAD_UNKNOWN);
}

TEST_F(HTTP_Headers_Test, a_known_name_is_the_same_field_as_its_number)
{
    EXPECT_EQ(headers_.put("content-TYPE", "text/plain"), 0);
    EXPECT_STREQ(headers_.get(HTTP_HEAD_CONTENT_TYPE), "text/plain");
    EXPECT_EQ(headers_.put(HTTP_HEAD_CONTENT_TYPE, "text/html"), 0);
    EXPECT_EQ(lines(headers_), (Lines{"Content-Type: text/html"}));
    EXPECT_EQ(headers_.begin()->id, HTTP_HEAD_CONTENT_TYPE);
}

TEST_F(HTTP_Headers_Test, copies_names_and_values)
{
    std::string name = "X-Name";
    std::string value = "value";
    ASSERT_EQ(headers_.put(name, value), 0);
    name.assign(6, '#');
    value.assign(5, '#');
    EXPECT_STREQ(headers_.get("X-Name"), "value");
}

TEST_F(HTTP_Headers_Test, put_replaces_where_the_field_stands)
{
    headers_.put(HTTP_HEAD_SERVER, "a");
    headers_.put("X-A", "longer value");
    headers_.put(HTTP_HEAD_VARY, "c");
    headers_.put(HTTP_HEAD_SERVER, "a longer value than before");
    headers_.put("x-a", "b");
    EXPECT_EQ(lines(headers_), (Lines{"Server: a longer value than before", "X-A: b", "Vary: c"}));
    headers_.put("X-A", "");
    EXPECT_STREQ(headers_.get("X-A"), "");
}

TEST_F(HTTP_Headers_Test, may_be_given_a_value_of_its_own)
{
    headers_.put(HTTP_HEAD_SERVER, "one two");
    EXPECT_EQ(headers_.put(HTTP_HEAD_SERVER, headers_.get(HTTP_HEAD_SERVER) + 4), 0);
    EXPECT_STREQ(headers_.get(HTTP_HEAD_SERVER), "two");
    EXPECT_EQ(headers_.put(HTTP_HEAD_VIA, headers_.get(HTTP_HEAD_SERVER)), 0);
    EXPECT_STREQ(headers_.get(HTTP_HEAD_VIA), "two");
}

TEST_F(HTTP_Headers_Test, values_stay_where_they_are_when_other_fields_are_put)
{
    headers_.put(HTTP_HEAD_HOST, "example.com");
    const char* const host = headers_.get(HTTP_HEAD_HOST);
    for (int i = 0; i < 1000; ++i) {
        ASSERT_EQ(headers_.put("X-" + std::to_string(i), std::string(100, 'v')), 0);
    }
    EXPECT_EQ(headers_.get(HTTP_HEAD_HOST), host);
    EXPECT_STREQ(host, "example.com");
}

TEST_F(HTTP_Headers_Test, null_removes_the_field)
{
    headers_.put(HTTP_HEAD_SERVER, "a");
    headers_.put("X-A", "b");
    headers_.put(HTTP_HEAD_VARY, "c");
    const char* const null = nullptr;
    EXPECT_EQ(headers_.put(HTTP_HEAD_SERVER, null), 0);
    EXPECT_EQ(headers_.get(HTTP_HEAD_SERVER), nullptr);
    EXPECT_STREQ(headers_.get(HTTP_HEAD_VARY), "c");
    EXPECT_EQ(headers_.put("x-A", null), 0);
    EXPECT_EQ(headers_.get("X-A"), nullptr);
    EXPECT_EQ(headers_.put("VARY", null), 0);
    EXPECT_EQ(headers_.size(), 0U);
}

TEST_F(HTTP_Headers_Test, removing_what_is_absent_is_no_error)
{
    const Log_Capture log;
    const char* const null = nullptr;
    EXPECT_EQ(headers_.put(HTTP_HEAD_SERVER, null), 0);
    EXPECT_EQ(headers_.put("X-A", null), 0);
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(HTTP_Headers_Test, set_cookie_repeats)
{
    headers_.put(HTTP_HEAD_SET_COOKIE, "a=1");
    headers_.put(HTTP_HEAD_SERVER, "s");
    headers_.put("Set-Cookie", "b=2");
    EXPECT_EQ(lines(headers_), (Lines{"Set-Cookie: a=1", "Server: s", "Set-Cookie: b=2"}));
    EXPECT_STREQ(headers_.get(HTTP_HEAD_SET_COOKIE), "a=1");
    headers_.put(HTTP_HEAD_SERVER, static_cast<const char*>(nullptr));
    EXPECT_STREQ(headers_.get(HTTP_HEAD_SET_COOKIE), "a=1") << "not the first any more";
}

TEST_F(HTTP_Headers_Test, null_removes_every_set_cookie)
{
    headers_.put(HTTP_HEAD_SET_COOKIE, "a=1");
    headers_.put(HTTP_HEAD_SERVER, "s");
    headers_.put(HTTP_HEAD_SET_COOKIE, "b=2");
    headers_.put(HTTP_HEAD_SET_COOKIE, static_cast<const char*>(nullptr));
    EXPECT_EQ(lines(headers_), (Lines{"Server: s"}));
    EXPECT_STREQ(headers_.get(HTTP_HEAD_SERVER), "s");
    EXPECT_EQ(headers_.get(HTTP_HEAD_SET_COOKIE), nullptr);
}

TEST_F(HTTP_Headers_Test, refuses_what_would_break_the_line)
{
    using namespace std::string_literals;
    for (const std::string& value :
         {"\r"s, "\n"s, "\0"s, "a\r\nX: b"s, "a\nb"s, "a\rb"s, "a\0b"s, "0123456789abcdef\n"s,
          "0123456789abcdef0123456789abcdef\r"s}) {
        const Log_Capture log;
        errno = 0;
        EXPECT_EQ(headers_.put(HTTP_HEAD_LOCATION, std::string_view(value)), -1);
        EXPECT_EQ(errno, EINVAL);
        EXPECT_EQ(log.count(LM_ERROR, "The value of HTTP header 'Location' holds a line end or a "
                                      "NUL.\n"),
                  1U);
        errno = 0;
        EXPECT_EQ(headers_.put("X-Name", std::string_view(value)), -1);
        EXPECT_EQ(errno, EINVAL);
        EXPECT_EQ(log.count(LM_ERROR, "'X-Name'"), 1U);
        EXPECT_EQ(log.lines().size(), 2U);
    }
    EXPECT_EQ(headers_.size(), 0U);
}

TEST_F(HTTP_Headers_Test, a_refused_value_leaves_the_earlier_one)
{
    const Log_Capture log;
    headers_.put(HTTP_HEAD_LOCATION, "/a");
    EXPECT_EQ(headers_.put(HTTP_HEAD_LOCATION, "/b\r\nX: y"), -1);
    EXPECT_STREQ(headers_.get(HTTP_HEAD_LOCATION), "/a");
}

TEST_F(HTTP_Headers_Test, takes_every_other_byte_in_a_value)
{
    std::string value;
    for (int byte = 1; byte < 256; ++byte) {
        if (byte != '\r' && byte != '\n') {
            value += static_cast<char>(byte);
        }
    }
    EXPECT_EQ(headers_.put("X-Bytes", value), 0);
    EXPECT_EQ(headers_.get("X-Bytes"), value);
}

TEST_F(HTTP_Headers_Test, refuses_numbers_outside_the_table)
{
    for (const int id : {-1, -100, int{NUM_HTTP_HEADS}, 100000}) {
        const Log_Capture log;
        errno = 0;
        EXPECT_EQ(headers_.put(id, "a"), -1);
        EXPECT_EQ(errno, EINVAL);
        EXPECT_EQ(log.count(LM_ERROR, "HTTP header number " + std::to_string(id) + " is unknown."),
                  1U);
        EXPECT_EQ(headers_.put(id, std::string_view("a")), -1);
        EXPECT_EQ(headers_.put(id, static_cast<const char*>(nullptr)), -1);
        EXPECT_EQ(log.lines().size(), 3U);
    }
    EXPECT_EQ(headers_.size(), 0U);
}

TEST_F(HTTP_Headers_Test, refuses_names_that_are_no_tokens)
{
    using namespace std::string_literals;
    for (const std::string& name :
         {""s, "a b"s, "a:"s, "a\r\nb"s, "Host "s, " Host"s, "a\0"s, "a\tb"s, "a(b"s, "\x80"s,
          "a\"b"s, "a,b"s, "a/b"s, "a[b"s, "a{b"s, "a@b"s, "\x7F"s}) {
        const Log_Capture log;
        errno = 0;
        EXPECT_EQ(headers_.put(name, "a"), -1) << name;
        EXPECT_EQ(errno, EINVAL);
        EXPECT_EQ(headers_.put(name, static_cast<const char*>(nullptr)), -1) << name;
        EXPECT_EQ(log.count(LM_ERROR, "HTTP header name is not a token."), 2U);
        EXPECT_EQ(log.lines().size(), 2U);
    }
    EXPECT_EQ(headers_.put("!#$%&'*+-.^_`|~09azAZ", "a"), 0);
    EXPECT_EQ(headers_.size(), 1U);
}

TEST_F(HTTP_Headers_Test, add_joins_a_repeated_field)
{
    const auto add = [this](std::string_view name, std::string_view value) {
        return headers_.add(http_header_id(name), name, value);
    };
    EXPECT_EQ(add("Accept", "a"), 0);
    EXPECT_EQ(add("X-List", "1"), 0);
    EXPECT_EQ(add("accept", "b"), 0);
    EXPECT_EQ(add("x-LIST", "2"), 0);
    EXPECT_EQ(add("ACCEPT", ""), 0);
    EXPECT_EQ(lines(headers_), (Lines{"Accept: a, b, ", "X-List: 1, 2"}));
}

TEST_F(HTTP_Headers_Test, add_joins_cookies_with_a_semicolon)
{
    headers_.add(HTTP_HEAD_COOKIE, "Cookie", "a=1");
    headers_.add(HTTP_HEAD_COOKIE, "Cookie", "b=2; c=3");
    EXPECT_STREQ(headers_.get(HTTP_HEAD_COOKIE), "a=1; b=2; c=3");
}

TEST_F(HTTP_Headers_Test, add_does_not_join_set_cookie)
{
    headers_.add(HTTP_HEAD_SET_COOKIE, "Set-Cookie", "a=1");
    headers_.add(HTTP_HEAD_SET_COOKIE, "Set-Cookie", "b=2");
    EXPECT_EQ(lines(headers_), (Lines{"Set-Cookie: a=1", "Set-Cookie: b=2"}));
}

TEST_F(HTTP_Headers_Test, joining_many_values_takes_memory_in_proportion_to_them)
{
    const std::string value(1000, 'v');
    std::string expected = value;
    headers_.add(HTTP_HEAD_ACCEPT, "Accept", value);
    for (int i = 1; i < 128; ++i) {
        ASSERT_EQ(headers_.add(HTTP_HEAD_ACCEPT, "Accept", value), 0);
        expected += ", " + value;
    }
    EXPECT_EQ(headers_.get(HTTP_HEAD_ACCEPT), expected);
    EXPECT_LT(arena_.capacity(), 6 * expected.size());
}

TEST_F(HTTP_Headers_Test, put_after_a_join_does_not_spoil_the_neighbours)
{
    headers_.add(HTTP_HEAD_ACCEPT, "Accept", "a");
    headers_.add(HTTP_HEAD_ACCEPT, "Accept", "b");
    headers_.add(HTTP_HEAD_HOST, "Host", "h");
    headers_.put(HTTP_HEAD_ACCEPT, std::string_view("a value too long for where a, b stands"));
    headers_.add(HTTP_HEAD_ACCEPT, "Accept", "c");
    headers_.put(HTTP_HEAD_ACCEPT, "d");
    headers_.add(HTTP_HEAD_ACCEPT, "Accept", "e");
    EXPECT_EQ(lines(headers_), (Lines{"Accept: d, e", "Host: h"}));
}

TEST_F(HTTP_Headers_Test, takes_more_fields_than_a_byte_can_count)
{
    for (int i = 0; i < 1000; ++i) {
        ASSERT_EQ(headers_.put(HTTP_HEAD_SET_COOKIE, "c=" + std::to_string(i)), 0);
    }
    headers_.put(HTTP_HEAD_SERVER, "s");
    headers_.put("X-A", "a");
    EXPECT_EQ(headers_.size(), 1002U);
    EXPECT_STREQ(headers_.get(HTTP_HEAD_SERVER), "s");
    EXPECT_STREQ(headers_.get(HTTP_HEAD_SET_COOKIE), "c=0");
    headers_.put(HTTP_HEAD_SERVER, "t");
    EXPECT_EQ(headers_.size(), 1002U);
    headers_.put(HTTP_HEAD_SET_COOKIE, static_cast<const char*>(nullptr));
    EXPECT_EQ(lines(headers_), (Lines{"Server: t", "X-A: a"}));
    EXPECT_STREQ(headers_.get(HTTP_HEAD_SERVER), "t");
}

TEST_F(HTTP_Headers_Test, refuses_more_fields_than_its_index_can_count)
{
    for (int i = 0; i < 65535; ++i) {
        ASSERT_EQ(headers_.put(HTTP_HEAD_SET_COOKIE, ""), 0);
    }
    errno = 0;
    EXPECT_EQ(headers_.put(HTTP_HEAD_SERVER, "s"), -1);
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_EQ(headers_.get(HTTP_HEAD_SERVER), nullptr);
    headers_.reset();
    EXPECT_EQ(headers_.put(HTTP_HEAD_SERVER, "s"), 0);
}

TEST_F(HTTP_Headers_Test, finds_fields_at_any_position)
{
    for (const int before : {253, 254, 255, 256, 257, 1000}) {
        SCOPED_TRACE(testing::Message() << before << " fields before");
        headers_.reset();
        arena_.reset();
        for (int i = 0; i < before; ++i) {
            ASSERT_EQ(headers_.put("X-" + std::to_string(i), "x"), 0);
        }
        headers_.put(HTTP_HEAD_SERVER, "s");
        headers_.put(HTTP_HEAD_VIA, "v");
        EXPECT_STREQ(headers_.get(HTTP_HEAD_SERVER), "s");
        EXPECT_STREQ(headers_.get(HTTP_HEAD_VIA), "v");
        EXPECT_EQ(headers_.add(HTTP_HEAD_VIA, "Via", "w"), 0);
        headers_.put(HTTP_HEAD_SERVER, "a longer one");
        EXPECT_STREQ(headers_.get(HTTP_HEAD_SERVER), "a longer one");
        EXPECT_STREQ(headers_.get(HTTP_HEAD_VIA), "v, w");
        headers_.put("X-0", static_cast<const char*>(nullptr));
        EXPECT_STREQ(headers_.get(HTTP_HEAD_VIA), "v, w");
        headers_.put(HTTP_HEAD_SERVER, static_cast<const char*>(nullptr));
        EXPECT_EQ(headers_.get(HTTP_HEAD_SERVER), nullptr);
        EXPECT_STREQ(headers_.get(HTTP_HEAD_VIA), "v, w");
    }
}

TEST_F(HTTP_Headers_Test, a_value_fits_where_a_longer_one_stood_before)
{
    headers_.put(HTTP_HEAD_SERVER, "0123456789");
    const char* const text = headers_.get(HTTP_HEAD_SERVER);
    headers_.put(HTTP_HEAD_VIA, "v");
    headers_.put(HTTP_HEAD_SERVER, "short");
    headers_.put(HTTP_HEAD_SERVER, "abcdefghij");
    EXPECT_EQ(headers_.get(HTTP_HEAD_SERVER), text);
    EXPECT_STREQ(text, "abcdefghij");
    EXPECT_STREQ(headers_.get(HTTP_HEAD_VIA), "v");
}

TEST_F(HTTP_Headers_Test, value_has_the_length_too)
{
    EXPECT_EQ(headers_.value(HTTP_HEAD_SERVER).data(), nullptr);
    EXPECT_EQ(headers_.value(-1).data(), nullptr);
    EXPECT_EQ(headers_.value(NUM_HTTP_HEADS).data(), nullptr);
    headers_.put(HTTP_HEAD_SERVER, "");
    EXPECT_NE(headers_.value(HTTP_HEAD_SERVER).data(), nullptr);
    headers_.put(HTTP_HEAD_SERVER, "abc");
    EXPECT_EQ(headers_.value(HTTP_HEAD_SERVER), "abc");
}

TEST_F(HTTP_Headers_Test, reset_removes_everything)
{
    for (int id = 0; id < NUM_HTTP_HEADS; ++id) {
        headers_.put(id, "a");
    }
    headers_.put("X-A", "a");
    headers_.reset();
    EXPECT_EQ(headers_.size(), 0U);
    EXPECT_EQ(headers_.get("X-A"), nullptr);
    for (int id = 0; id < NUM_HTTP_HEADS; ++id) {
        EXPECT_EQ(headers_.get(id), nullptr);
    }
}
