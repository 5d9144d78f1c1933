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
        if (a[i] != b[i] && http_lower(a[i]) != http_lower(b[i])) {
            return false;
        }
    }
    return true;
}

constexpr std::string_view http_trim(std::string_view text)
{
    const char* begin = text.data();
    const char* end = begin + text.size();
    while (begin != end && http_is_blank(*begin)) {
        ++begin;
    }
    while (begin != end && http_is_blank(end[-1])) {
        --end;
    }
    return {begin, static_cast<size_t>(end - begin)};
}

/// Control characters except the tab: those that end a line or must not stand in it.
constexpr bool http_is_control(char c)
{
    const unsigned char byte = static_cast<unsigned char>(c);
    return (byte < 0x20 && byte != '\t') || byte == 0x7F;
}

#if defined(__SSE2__)
/// One bit for each of sixteen bytes: set when the byte is above `low` and below 0x7F. One more and
/// signed, 0x7F is the lowest number of all, so that a single comparison tells.
inline unsigned http_between(__m128i bytes, char low)
{
    const __m128i more = _mm_add_epi8(bytes, _mm_set1_epi8(1));
    const __m128i limit = _mm_set1_epi8(static_cast<char>(low + 1));
    return static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpgt_epi8(more, limit)));
}

constexpr unsigned HTTP_ALL_SIXTEEN = 0xFFFF;

inline __m128i http_load_sixteen(const char* text)
{
    return _mm_loadu_si128(reinterpret_cast<const __m128i*>(text));
}
#endif

#if defined(__SSE2__)
/// One bit for each of sixteen bytes: set where http_is_control() is true.
inline unsigned http_controls(__m128i bytes)
{
    const unsigned plain = http_between(bytes, 0x1F);
    if (plain == HTTP_ALL_SIXTEEN) {
        return 0;
    }
    const int tabs = _mm_movemask_epi8(_mm_cmpeq_epi8(bytes, _mm_set1_epi8('\t')));
    const int above_ascii = _mm_movemask_epi8(bytes);
    return HTTP_ALL_SIXTEEN & ~(plain | static_cast<unsigned>(tabs | above_ascii));
}
#endif

/// The first control character in [from, end), or end. All of [begin, end) must be readable, and
/// `from` lie in it: the bytes before `from` let the last ones be looked at together.
inline const char* http_find_control(const char* begin, const char* from, const char* end)
{
#if defined(__SSE2__)
    ptrdiff_t left = end - from;
    for (; left >= 16; left -= 16) {
        const unsigned found = http_controls(http_load_sixteen(from));
        if (found != 0) {
            return from + __builtin_ctz(found);
        }
        from += 16;
    }
    if (left > 0 && end - begin >= 16) {
        const unsigned found = http_controls(http_load_sixteen(end - 16)) >> (16 - left);
        return found != 0 ? from + __builtin_ctz(found) : end;
    }
#else
    static_cast<void>(begin);
#endif
    while (from != end && !http_is_control(*from)) {
        ++from;
    }
    return from;
}

/// True when every character is visible ASCII, 0x21 to 0x7E.
inline bool http_is_visible(std::string_view text)
{
    const char* at = text.data();
    size_t left = text.size();
#if defined(__SSE2__)
    for (; left >= 16; left -= 16, at += 16) {
        if (http_between(http_load_sixteen(at), 0x20) != HTTP_ALL_SIXTEEN) {
            return false;
        }
    }
#endif
    for (; left != 0; --left, ++at) {
        const unsigned char byte = static_cast<unsigned char>(*at);
        if (byte <= 0x20 || byte >= 0x7F) {
            return false;
        }
    }
    return true;
}

/// The first `wanted` in [begin, end), or end. For names, which are too short for memchr to pay.
inline const char* http_find_near(const char* begin, const char* end, char wanted)
{
#if defined(__SSE2__)
    while (end - begin >= 16) {
        const __m128i bytes = http_load_sixteen(begin);
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
