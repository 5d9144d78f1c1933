#include "support/yajl_handler.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <new>
#include <stdexcept>
#include <string>
#include <string_view>

namespace {

using namespace std::literals;

/// Writes down what it is called with.
class Recorder : public YAJL_Handler {
public:
    std::string events_;
    std::string stop_at_; ///< a string whose call returns 0

    int handle_begin_i() override
    {
        events_.clear();
        return 1;
    }
    int handle_null_i() override { return note("null"); }
    int handle_boolean_i(bool value) override { return note(value ? "true" : "false"); }
    int handle_integer_i(long long value) override { return note("i" + std::to_string(value)); }
    int handle_double_i(double value) override { return note("d" + std::to_string(value)); }
    int handle_string_i(const char* text, size_t length) override
    {
        const std::string string(text, length);
        if (string == "throw") {
            throw std::runtime_error("x");
        }
        if (string == "no memory") {
            throw std::bad_alloc();
        }
        note("'" + string + "'");
        return string == stop_at_ ? 0 : 1;
    }
    int handle_map_key_i(const char* text, size_t length) override
    {
        return note(std::string(text, length) + ":");
    }
    int handle_start_map_i() override { return note("{"); }
    int handle_end_map_i() override { return note("}"); }
    int handle_start_array_i() override { return note("["); }
    int handle_end_array_i() override { return note("]"); }

private:
    int note(const std::string& event)
    {
        events_ += event + " ";
        return 1;
    }
};

/// The same, without an own idea of numbers.
class Number_Recorder : public Recorder {
public:
    int handle_number_i(const char* text, size_t length) override
    {
        events_ += "n" + std::string(text, length) + " ";
        return 1;
    }
};

/// Feeds `text` in two pieces, or in single bytes. 0, or -1.
int parse(YAJL_Handler& handler, std::string_view text, size_t cut)
{
    if (handler.begin("file") == -1 || handler.feed(text.substr(0, cut)) == -1) {
        return -1;
    }
    return handler.feed(text.substr(cut)) == -1 ? -1 : handler.finish();
}

int parse_bytes(YAJL_Handler& handler, std::string_view text)
{
    if (handler.begin("file") == -1) {
        return -1;
    }
    for (const char& c : text) {
        if (handler.feed(std::string_view(&c, 1)) == -1) {
            return -1;
        }
    }
    return handler.finish();
}

struct Good_Row {
    std::string_view text;
    const char* events;
};

const Good_Row GOOD_ROWS[] = {
    {"[]", "[ ] "},
    {"{}", "{ } "},
    {"null", "null "},
    {"[true,false,null]", "[ true false null ] "},
    {" {\"a\" : \"b\", \"c\": [1, -2]} \n", "{ a: 'b' c: [ i1 i-2 ] } "},
    {"[9223372036854775807, -9223372036854775808]",
     "[ i9223372036854775807 i-9223372036854775808 ] "},
    {"[9223372036854775808, 1.5, 2e3, -0.25]",
     "[ d9223372036854775808.000000 d1.500000 d2000.000000 d-0.250000 ] "},
    {"[\"\\u00e9\\n\\\"\\/\"]", "[ '\xC3\xA9\n\"/' ] "},
    {"[\"\\ud83d\\ude00\"]", "[ '\xF0\x9F\x98\x80' ] "},
    {"[\"\xF0\x9F\x98\x80\"]", "[ '\xF0\x9F\x98\x80' ] "},
    {"/* a */ [1, // b\n 2 /* c\n */] // d", "[ i1 i2 ] "},
    {"[1] /* unfinished", "[ i1 ] "},
    {"\xEF\xBB\xBF[1]", "[ i1 ] "},
};

TEST(YAJL_Handler, gives_the_same_calls_however_the_text_is_split)
{
    for (const Good_Row& row : GOOD_ROWS) {
        SCOPED_TRACE(row.text);
        Recorder recorder;
        for (size_t cut = 0; cut <= row.text.size(); ++cut) {
            EXPECT_EQ(parse(recorder, row.text, cut), 0);
            EXPECT_EQ(recorder.events_, row.events);
        }
        EXPECT_EQ(parse_bytes(recorder, row.text), 0);
        EXPECT_EQ(recorder.events_, row.events);
    }
}

struct Bad_Row {
    std::string_view text;
    unsigned long line;
    unsigned long column;
    const char* error;
};

const Bad_Row BAD_ROWS[] = {
    {"", 1, 1, "parse error: premature EOF"},
    {" \n", 2, 1, "parse error: premature EOF"},
    {"// nothing", 1, 10, "parse error: premature EOF"},
    {"[1, /* unfinished", 1, 17, "parse error: premature EOF"},
    {"[\n  {\"a\" 5}\n]", 2, 8,
     "parse error: object key and value must be separated by a colon (':')"},
    {"[\n x]", 2, 2, "lexical error: invalid char in json text"},
    {"[1,\n2,]", 2, 3, "parse error: unallowed token at this point in JSON text"},
    {"[1 2]", 1, 4, "parse error: after array element, I expect ',' or ']'"},
    {"{\"a\":1\n\"init\":2}", 1, 6,
     "parse error: after key and value, inside map, I expect ',' or '}'"},
    {"{\"a\": [\n]\n\"init\":2}", 2, 1,
     "parse error: after key and value, inside map, I expect ',' or '}'"},
    {"{\"a\":1,}", 1, 8, "parse error: invalid object key (must be a string)"},
    {"{1:2}", 1, 2, "parse error: invalid object key (must be a string)"},
    {"[}", 1, 2, "parse error: unallowed token at this point in JSON text"},
    {"[]\n  {}", 2, 3, "parse error: trailing garbage"},
    {"[] ]", 1, 4, "parse error: trailing garbage"},
    {"[] \0"sv, 1, 4, "parse error: trailing garbage"},
    {"[\"a\nb\"]", 1, 3, "lexical error: invalid character inside string"},
    {"[\"abc", 1, 5, "parse error: premature EOF"},
    {"[\"\\x\"]", 1, 3,
     "lexical error: inside a string, '\\' occurs before a character which it may not"},
    {"[\"\xC3\xA9\", \"\xFF\"]", 1, 8, "lexical error: invalid bytes in UTF8 string"},
    {"[\"\xC0\xAF\"]", 1, 4, "lexical error: invalid bytes in UTF8 string"}, // after the string
    {"{\"\xED\xA0\x80\": 1}", 1, 4, "lexical error: invalid bytes in UTF8 string"},
    {"[tru]", 1, 4, "lexical error: invalid string in json text"},
    {"nul", 1, 3, "lexical error: invalid string in json text"},
    {"[01]", 1, 3, "parse error: after array element, I expect ',' or ']'"},
    {"[-]", 1, 2, "lexical error: malformed number, a digit is required after the minus sign"},
    {"\xEF\xBB", 1, 1, "lexical error: invalid char in json text"},
    {"\xEF\xBBx", 1, 1, "lexical error: invalid char in json text"},
    {"\xEF\xBB\xBF", 1, 1, "parse error: premature EOF"},
    {"[1e999]", 1, 6, "number out of range"},
};

TEST(YAJL_Handler, tells_where_and_why_however_the_text_is_split)
{
    for (const Bad_Row& row : BAD_ROWS) {
        SCOPED_TRACE(row.text);
        Recorder recorder;
        for (size_t cut = 0; cut <= row.text.size() + 1; ++cut) {
            errno = 0;
            EXPECT_EQ(cut <= row.text.size() ? parse(recorder, row.text, cut)
                                             : parse_bytes(recorder, row.text),
                      -1);
            EXPECT_EQ(errno, EINVAL);
            EXPECT_EQ(recorder.line(), row.line);
            EXPECT_EQ(recorder.column(), row.column);
            EXPECT_EQ(recorder.error(), row.error);
        }
    }
}

TEST(YAJL_Handler, takes_every_utf8_character_and_nothing_else)
{
    Recorder recorder;
    for (const char* good :
         {"\x7F", "\xC2\x80", "\xDF\xBF", "\xE0\xA0\x80", "\xED\x9F\xBF", "\xEE\x80\x80",
          "\xEF\xBF\xBF", "\xF0\x90\x80\x80", "\xF4\x8F\xBF\xBF"}) {
        EXPECT_EQ(parse(recorder, std::string("[\"") + good + "\"]", 3), 0) << good;
    }
    for (const char* bad : {"\x80", "\xBF", "\xC1\xBF", "\xC2", "\xC2\x7F", "\xE0\x9F\xBF",
                            "\xE1\x80", "\xED\xA0\x80", "\xF0\x8F\xBF\xBF", "\xF1\x80\x80",
                            "\xF4\x90\x80\x80", "\xF5\x80\x80\x80", "\xFE", "\xFF"}) {
        EXPECT_EQ(parse(recorder, std::string("[\"") + bad + "\"]", 3), -1) << bad;
        EXPECT_EQ(parse(recorder, std::string("{\"") + bad + "\": 1}", 3), -1) << bad;
    }
}

TEST(YAJL_Handler, takes_containers_as_deep_as_the_limit_and_no_deeper)
{
    const std::string open(YAJL_Handler::MAX_DEPTH, '[');
    const std::string close(YAJL_Handler::MAX_DEPTH, ']');
    Recorder recorder;
    EXPECT_EQ(parse(recorder, open + close, 3), 0);
    EXPECT_EQ(parse(recorder, open + "[" + close + "]", 3), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(recorder.error(), "nested deeper than 64 levels");
    EXPECT_EQ(recorder.column(), 65U);
    EXPECT_EQ(parse(recorder, open + "{", 3), -1);
    // Depth is that of open containers, not their number.
    EXPECT_EQ(parse(recorder, "[" + std::string(200, ' ') + "[],[],[[]],{}]", 3), 0);
    std::string many = "[[]";
    for (int i = 0; i < 200; ++i) {
        many += ",[],{}";
    }
    EXPECT_EQ(parse(recorder, many + "]", 3), 0);
}

TEST(YAJL_Handler, gives_numbers_as_they_are_written_to_one_who_wants_them)
{
    Number_Recorder recorder;
    EXPECT_EQ(parse(recorder, "[1e999, 123456789012345678901234567890, -0]", 5), 0);
    EXPECT_EQ(recorder.events_, "[ n1e999 n123456789012345678901234567890 n-0 ] ");
}

TEST(YAJL_Handler, ends_when_a_call_says_so)
{
    Recorder recorder;
    recorder.stop_at_ = "b";
    EXPECT_EQ(parse(recorder, "[\"a\", \"b\", \"c\"]", 4), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(recorder.events_, "[ 'a' 'b' ");
    EXPECT_FALSE(recorder.error().empty());
    EXPECT_EQ(recorder.column(), 9U);
}

TEST(YAJL_Handler, lets_no_exception_pass)
{
    Recorder recorder;
    EXPECT_EQ(parse(recorder, "[\"throw\"]", 4), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(parse(recorder, "[\"no memory\"]", 4), -1);
    EXPECT_EQ(errno, ENOMEM);
}

TEST(YAJL_Handler, takes_nothing_after_a_failure_until_it_begins_again)
{
    Recorder recorder;
    ASSERT_EQ(recorder.begin("file"), 0);
    EXPECT_EQ(recorder.feed("]"), -1);
    errno = 0;
    EXPECT_EQ(recorder.feed("[]"), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(recorder.finish(), -1);
    EXPECT_EQ(parse(recorder, "[1]", 1), 0);
    EXPECT_EQ(recorder.events_, "[ i1 ] ");
    EXPECT_EQ(recorder.error(), "");
}

TEST(YAJL_Handler, takes_nothing_before_it_begins)
{
    Recorder recorder;
    errno = 0;
    EXPECT_EQ(recorder.feed("[]"), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(recorder.finish(), -1);
}

TEST(YAJL_Handler, forgets_an_unfinished_text_when_it_begins_again)
{
    Recorder recorder;
    ASSERT_EQ(recorder.begin("first"), 0);
    ASSERT_EQ(recorder.feed("[[["), 0);
    ASSERT_EQ(recorder.begin("second"), 0);
    EXPECT_EQ(recorder.source(), "second");
    EXPECT_EQ(recorder.feed("[2]"), 0);
    EXPECT_EQ(recorder.finish(), 0);
    EXPECT_EQ(recorder.events_, "[ i2 ] ");
}

} // namespace
