#pragma once

#include <array>
#include <cstddef>
#include <string_view>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

/// Character classes of HTTP messages that several modules share. Not part of the interface.

/// A..Z to a..z, every other byte unchanged, whatever the locale.
constexpr char http_lower(char c)
{
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c + ('a' - 'A')) : c;
}

constexpr bool http_is_digit(char c)
{
    return c >= '0' && c <= '9';
}

constexpr bool http_is_alpha(char c)
{
    return http_lower(c) >= 'a' && http_lower(c) <= 'z';
}

/// Optional white space around a field value (RFC 9110, section 5.6.3).
constexpr bool http_is_blank(char c)
{
    return c == ' ' || c == '\t';
}

/// Characters of a token (RFC 9110, section 5.6.2).
constexpr auto HTTP_TOKEN_CHARS = [] {
    std::array<bool, 256> table{};
    for (size_t c = 0; c < table.size(); ++c) {
        const char as_char = static_cast<char>(c);
        table[c] = http_is_digit(as_char) || http_is_alpha(as_char);
    }
    for (const char c : std::string_view("!#$%&'*+-.^_`|~")) {
        table[static_cast<unsigned char>(c)] = true;
    }
    return table;
}();

constexpr bool http_is_token(std::string_view text)
{
    for (const char c : text) {
        if (!HTTP_TOKEN_CHARS[static_cast<unsigned char>(c)]) {
            return false;
        }
    }
    return !text.empty();
}

constexpr bool http_equal_no_case(std::string_view a, std::string_view b)
{
    if (a.size() != b.size()) {
        return false;
    }
    for (size_t i = 0; i < a.size(); ++i) {
        if (http_lower(a[i]) != http_lower(b[i])) {
            return false;
        }
    }
    return true;
}

constexpr std::string_view http_trim(std::string_view text)
{
    while (!text.empty() && http_is_blank(text.front())) {
        text.remove_prefix(1);
    }
    while (!text.empty() && http_is_blank(text.back())) {
        text.remove_suffix(1);
    }
    return text;
}

/// Control characters except the tab: those that end a line or must not stand in it.
constexpr bool http_is_control(char c)
{
    const unsigned char byte = static_cast<unsigned char>(c);
    return (byte < 0x20 && byte != '\t') || byte == 0x7F;
}

/// The first control character in [begin, end), or end.
inline const char* http_find_control(const char* begin, const char* end)
{
#if defined(__SSE2__)
    const __m128i one = _mm_set1_epi8(1);
    const __m128i limit = _mm_set1_epi8(0x21);
    while (end - begin >= 16) {
        const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(begin));
        // One more and signed, 0x7F is the lowest number of all: one comparison finds the control
        // characters, and with them tabs and bytes from 0x80 up, which are sorted out if any.
        const int suspects = _mm_movemask_epi8(_mm_cmplt_epi8(_mm_add_epi8(bytes, one), limit));
        if (suspects != 0) {
            const int tabs = _mm_movemask_epi8(_mm_cmpeq_epi8(bytes, _mm_set1_epi8('\t')));
            const int found = suspects & ~(tabs | _mm_movemask_epi8(bytes));
            if (found != 0) {
                return begin + __builtin_ctz(static_cast<unsigned>(found));
            }
        }
        begin += 16;
    }
#endif
    while (begin != end && !http_is_control(*begin)) {
        ++begin;
    }
    return begin;
}

/// The first `wanted` in [begin, end), or end. For names, which are too short for memchr to pay.
inline const char* http_find_near(const char* begin, const char* end, char wanted)
{
#if defined(__SSE2__)
    while (end - begin >= 16) {
        const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(begin));
        const int found = _mm_movemask_epi8(_mm_cmpeq_epi8(bytes, _mm_set1_epi8(wanted)));
        if (found != 0) {
            return begin + __builtin_ctz(static_cast<unsigned>(found));
        }
        begin += 16;
    }
#endif
    while (begin != end && *begin != wanted) {
        ++begin;
    }
    return begin;
}
