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

/// Finds the control characters of a text one after the other.
class Control_Finder {
public:
    /// Looks at [from, size) of the text. All of it must be readable: the bytes before `from` let
    /// the last ones be looked at together.
    Control_Finder(const char* text, size_t from, size_t size)
        : text_(text), at_(from), size_(size), chunks_end_(size < SIZE ? 0 : size - SIZE + 1),
          found_(this->look())
    {
    }

    /// Where the first control character is that was not skipped, or the size.
    size_t find()
    {
        while (found_ == 0) {
            at_ += SIZE;
            if (at_ >= chunks_end_) {
                found_ = this->look_at_rest();
                return found_ != 0 ? this->first() : size_;
            }
            found_ = Text_Chunk(text_ + at_).controls();
        }
        return this->first();
    }

    /// Skips what lies before `to`, which is behind the one that was found last.
    void skip(size_t to)
    {
        const size_t offset = to - at_;
        if (offset < SIZE) {
            found_ = found_ >> offset << offset;
        } else {
            at_ = to;
            found_ = this->look();
        }
    }

private:
    static constexpr size_t SIZE = Text_Chunk::SIZE;

    size_t first() const { return at_ + static_cast<size_t>(__builtin_ctz(found_)); }

    unsigned look() const
    {
        return at_ < chunks_end_ ? Text_Chunk(text_ + at_).controls() : this->look_at_rest();
    }

    unsigned look_at_rest() const
    {
        if (at_ >= size_) {
            return 0;
        }
        if (size_ >= SIZE) {
            return Text_Chunk(text_ + size_ - SIZE).controls() >> (SIZE - (size_ - at_));
        }
        unsigned found = 0;
        for (size_t i = at_; i < size_; ++i) {
            found |= http_is_control(text_[i]) ? 1U << (i - at_) : 0U;
        }
        return found;
    }

    const char* text_;
    size_t at_;
    size_t size_;
    size_t chunks_end_; ///< behind the last place where a whole chunk begins
    unsigned found_;    ///< in the chunk at at_
};

/// The first `wanted` in [begin, end); a place at the end or behind it when there is none.
/// Text_Chunk::SIZE - 1 bytes behind the end must be readable.
template <typename Char>
inline Char* http_find_padded(Char* begin, Char* end, char wanted)
{
    for (; begin < end; begin += Text_Chunk::SIZE) {
        if (const unsigned found = Text_Chunk(begin).equal(wanted)) {
            return begin + __builtin_ctz(found);
        }
    }
    return end;
}

/// http_is_token() for a text with Text_Chunk::SIZE - 1 readable bytes behind it.
inline bool http_is_token_padded(std::string_view text)
{
    for (size_t i = 0; i < text.size(); i += Text_Chunk::SIZE) {
        const size_t left = text.size() - i;
        const unsigned in = left < Text_Chunk::SIZE ? (1U << left) - 1 : Text_Chunk::ALL;
        if ((~Text_Chunk(text.data() + i).letters_digits_hyphens() & in) != 0) {
            return http_is_token(text); // one of the characters that hardly any name has
        }
    }
    return !text.empty();
}

/// CR, LF or NUL: what would end the line for the peer, and let a value that came from a client add
/// lines of its own to a response.
inline bool http_breaks_line(std::string_view text)
{
    constexpr size_t SIZE = Text_Chunk::SIZE;
    const char* at = text.data();
    const size_t size = text.size();
    if (size >= SIZE) {
        const char* const last = at + size - SIZE;
        for (; at < last; at += SIZE) {
            if (Text_Chunk(at).line_breakers() != 0) {
                return true;
            }
        }
        return Text_Chunk(last).line_breakers() != 0;
    }
    if (size >= SIZE / 2) {
        return Text_Chunk::of_halves(at, at + size - SIZE / 2).line_breakers() != 0;
    }
    for (const char c : text) {
        if (c == '\r' || c == '\n' || c == '\0') {
            return true;
        }
    }
    return false;
}
