#pragma once

#include "support/short_text.h"
#include "support/text_chunk.h"

#include <array>
#include <cstddef>
#include <cstring>
#include <string_view>

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

/// The first control character in [from, end), or end. All of [begin, end) must be readable, and
/// `from` lie in it: the bytes before `from` let the last ones be looked at together.
inline const char* http_find_control(const char* begin, const char* from, const char* end)
{
    constexpr auto SIZE = static_cast<ptrdiff_t>(Text_Chunk::SIZE);
    ptrdiff_t left = end - from;
    for (; left >= SIZE; left -= SIZE, from += SIZE) {
        if (const unsigned found = Text_Chunk(from).controls()) {
            return from + __builtin_ctz(found);
        }
    }
    if (left > 0 && end - begin >= SIZE) {
        const unsigned found = Text_Chunk(end - SIZE).controls() >> (SIZE - left);
        return found != 0 ? from + __builtin_ctz(found) : end;
    }
    while (from != end && !http_is_control(*from)) {
        ++from;
    }
    return from;
}

/// The first `wanted` in [begin, end), or end. SIZE - 1 bytes behind the end must be readable.
template <typename Char>
inline Char* http_find_padded(Char* begin, Char* end, char wanted)
{
    for (; begin < end; begin += Text_Chunk::SIZE) {
        if (const unsigned found = Text_Chunk(begin).equal(wanted)) {
            Char* const at = begin + __builtin_ctz(found);
            return at < end ? at : end;
        }
    }
    return end;
}

/// CR, LF or NUL: what would end the line for the peer, and let a value that came from a client add
/// lines of its own to a response.
inline bool http_breaks_line(std::string_view text)
{
    constexpr size_t SIZE = Text_Chunk::SIZE;
    const auto breaks = [](const char* at) {
        const Text_Chunk chunk(at);
        return (chunk.equal('\r') | chunk.equal('\n') | chunk.equal('\0')) != 0;
    };
    if (text.size() < SIZE) {
        char padded[SIZE];
        std::memset(padded, ' ', SIZE);
        copy_short(padded, text);
        return breaks(padded);
    }
    for (size_t i = 0; i < text.size() - SIZE; i += SIZE) {
        if (breaks(text.data() + i)) {
            return true;
        }
    }
    return breaks(text.data() + text.size() - SIZE);
}
