#include "support/utf8_check.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

/// Fed in pieces that end at each of `cuts`: well-formed and complete at the end.
bool is_text(const std::string& bytes, const std::vector<size_t>& cuts = {})
{
    std::uint8_t state = UTF8_Check::COMPLETE;
    size_t at = 0;
    for (const size_t cut : cuts) {
        if (!UTF8_Check::feed(state, bytes.data() + at, cut - at)) {
            return false;
        }
        at = cut;
    }
    return UTF8_Check::feed(state, bytes.data() + at, bytes.size() - at) &&
           state == UTF8_Check::COMPLETE;
}

/// The same whole, cut anywhere, and byte by byte, behind and before ASCII of any length.
void expect_text(const std::string& bytes, bool expected)
{
    EXPECT_EQ(expected, is_text(bytes)) << testing::PrintToString(bytes);
    std::vector<size_t> each_byte;
    for (size_t cut = 0; cut <= bytes.size(); ++cut) {
        EXPECT_EQ(expected, is_text(bytes, {cut})) << testing::PrintToString(bytes) << " " << cut;
        each_byte.push_back(cut);
    }
    EXPECT_EQ(expected, is_text(bytes, each_byte)) << testing::PrintToString(bytes);
    for (size_t ascii = 1; ascii <= 17; ++ascii) {
        const std::string padding(ascii, 'a');
        EXPECT_EQ(expected, is_text(padding + bytes)) << testing::PrintToString(bytes) << ascii;
        EXPECT_EQ(expected, is_text(padding + bytes + padding))
            << testing::PrintToString(bytes) << ascii;
    }
}

/// The bytes of a code point, also of one that must not be encoded, in `length` bytes.
std::string encode(unsigned long point, int length)
{
    if (length == 1) {
        return std::string(1, static_cast<char>(point));
    }
    static constexpr unsigned long LEAD[] = {0, 0, 0xC0, 0xE0, 0xF0, 0xF8, 0xFC};
    std::string bytes(
        1, static_cast<char>(LEAD[length] | point >> (6U * static_cast<unsigned>(length - 1))));
    for (int i = length - 2; i >= 0; --i) {
        bytes += static_cast<char>(0x80U | ((point >> (6U * static_cast<unsigned>(i))) & 0x3FU));
    }
    return bytes;
}

} // namespace

TEST(UTF8_Check, accepts_the_first_and_last_character_of_each_range)
{
    expect_text("", true);
    const struct {
        unsigned long point;
        int length;
    } cases[] = {{0x00, 1},    {0x24, 1},    {0x7F, 1},    {0x80, 2},    {0x7FF, 2},
                 {0x800, 3},   {0xFFF, 3},   {0x1000, 3},  {0xCFFF, 3},  {0xD000, 3},
                 {0xD7FF, 3},  {0xE000, 3},  {0xFFFD, 3},  {0xFFFE, 3},  {0xFFFF, 3},
                 {0x10000, 4}, {0x3FFFF, 4}, {0x40000, 4}, {0xFFFFF, 4}, {0x100000, 4},
                 {0x10FFFF, 4}};
    for (const auto& entry : cases) {
        expect_text(encode(entry.point, entry.length), true);
    }
}

TEST(UTF8_Check, accepts_text)
{
    expect_text("Hello, World! 0123456789 abcdefghij", true);
    expect_text("\xCE\xBA\xE1\xBD\xB9\xCF\x83\xCE\xBC\xCE\xB5", true);
    expect_text("a\xF0\x9F\x98\x80z\xF0\x9F\x8F\xB3\xEF\xB8\x8F", true);
}

TEST(UTF8_Check, refuses_overlong_forms)
{
    const struct {
        unsigned long point;
        int length;
    } cases[] = {{0x00, 2},  {0x2F, 2}, {0x7F, 2}, {0x00, 3},  {0x2F, 3},
                 {0x7FF, 3}, {0x00, 4}, {0x2F, 4}, {0x7FF, 4}, {0xFFFF, 4}};
    for (const auto& entry : cases) {
        expect_text(encode(entry.point, entry.length), false);
    }
}

TEST(UTF8_Check, refuses_surrogates)
{
    for (const unsigned long point : {0xD800UL, 0xDB7FUL, 0xDBFFUL, 0xDC00UL, 0xDFFFUL}) {
        expect_text(encode(point, 3), false);
    }
    expect_text(encode(0xD800, 3) + encode(0xDC00, 3), false);
}

TEST(UTF8_Check, refuses_what_is_above_the_last_code_point)
{
    expect_text(encode(0x110000, 4), false);
    expect_text(encode(0x1FFFFF, 4), false);
    expect_text(encode(0x200000, 5), false);
    expect_text(encode(0x3FFFFFF, 5), false);
    expect_text(encode(0x4000000, 6), false);
    expect_text(encode(0x7FFFFFFF, 6), false);
}

TEST(UTF8_Check, refuses_bytes_that_no_text_has)
{
    for (const unsigned byte : {0xC0U, 0xC1U, 0xF5U, 0xF8U, 0xFBU, 0xFCU, 0xFDU, 0xFEU, 0xFFU}) {
        const std::string lead(1, static_cast<char>(byte));
        expect_text(lead, false);
        expect_text(lead + "\x80", false);
        expect_text(lead + "\x80\x80\x80", false);
    }
}

TEST(UTF8_Check, refuses_a_continuation_byte_alone)
{
    for (unsigned byte = 0x80; byte <= 0xBF; ++byte) {
        expect_text(std::string(1, static_cast<char>(byte)), false);
    }
    expect_text("\xC2\x80\x80", false);
    expect_text("\xE2\x82\xAC\xAC", false);
}

TEST(UTF8_Check, refuses_a_character_that_breaks_off)
{
    for (const std::string whole : {"\xC2\x80", "\xE0\xA0\x80", "\xE2\x82\xAC", "\xED\x9F\xBF",
                                    "\xF0\x90\x80\x80", "\xF1\x80\x80\x80", "\xF4\x8F\xBF\xBF"}) {
        for (size_t length = 1; length < whole.size(); ++length) {
            const std::string begun = whole.substr(0, length);
            expect_text(begun, false);
            expect_text(begun + "a", false);
            expect_text(begun + whole, false);
            expect_text(begun + "\xC0", false);
            expect_text(begun + "\xFF", false);
        }
    }
}

TEST(UTF8_Check, tells_malformed_text_at_the_byte_that_makes_it_so)
{
    for (const std::string bad : {"\xE0\x9F", "\xED\xA0", "\xF0\x8F", "\xF4\x90", "\xC2\x7F",
                                  "\xC2\xC0", "\xE2\x82\x41", "\xF0\x9F\x98\xC0"}) {
        std::uint8_t state = UTF8_Check::COMPLETE;
        EXPECT_TRUE(UTF8_Check::feed(state, bad.data(), bad.size() - 1))
            << testing::PrintToString(bad);
        EXPECT_NE(UTF8_Check::COMPLETE, state) << testing::PrintToString(bad);
        EXPECT_FALSE(UTF8_Check::feed(state, bad.data() + bad.size() - 1, 1))
            << testing::PrintToString(bad);
    }
}

TEST(UTF8_Check, judges_every_pair_of_bytes_as_the_grammar_does)
{
    for (unsigned first = 0; first <= 0xFF; ++first) {
        for (unsigned second = 0; second <= 0xFF; ++second) {
            const bool tail = second >= 0x80 && second <= 0xBF;
            const bool expected =
                (first <= 0x7F && second <= 0x7F) || (first >= 0xC2 && first <= 0xDF && tail);
            const std::string pair = {static_cast<char>(first), static_cast<char>(second)};
            ASSERT_EQ(expected, is_text(pair)) << testing::PrintToString(pair);
            ASSERT_EQ(expected, is_text(pair, {1})) << testing::PrintToString(pair);
        }
    }
}

TEST(UTF8_Check, an_empty_piece_changes_nothing)
{
    std::uint8_t state = UTF8_Check::COMPLETE;
    ASSERT_TRUE(UTF8_Check::feed(state, "\xE2\x82", 2));
    const std::uint8_t open = state;
    EXPECT_TRUE(UTF8_Check::feed(state, "", 0));
    EXPECT_TRUE(UTF8_Check::feed(state, nullptr, 0));
    EXPECT_EQ(open, state);
    EXPECT_TRUE(UTF8_Check::feed(state, "\xAC", 1));
    EXPECT_EQ(UTF8_Check::COMPLETE, state);
}
