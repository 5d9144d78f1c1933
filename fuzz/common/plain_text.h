#pragma once

#include <string>
#include <string_view>
#include <vector>

/// Character classes and small operations on texts for the reference models, written out plainly
/// and on purpose without the server's own.

namespace plain {

/// Wide enough for every number that an input can be about.
__extension__ typedef __int128 Wide;
__extension__ typedef unsigned __int128 Unsigned_Wide;

inline bool is_digit(char c)
{
    return c >= '0' && c <= '9';
}

inline char lower(char c)
{
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c;
}

inline bool is_letter(char c)
{
    return lower(c) >= 'a' && lower(c) <= 'z';
}

inline std::string lower(std::string_view text)
{
    std::string result;
    for (const char c : text) {
        result += lower(c);
    }
    return result;
}

/// Equal without regard to the case of letters.
inline bool same(std::string_view a, std::string_view b)
{
    if (a.size() != b.size()) {
        return false;
    }
    for (size_t i = 0; i < a.size(); ++i) {
        if (lower(a[i]) != lower(b[i])) {
            return false;
        }
    }
    return true;
}

/// 0 to 15, or -1.
inline int hex(char c)
{
    if (is_digit(c)) {
        return c - '0';
    }
    return lower(c) >= 'a' && lower(c) <= 'f' ? lower(c) - 'a' + 10 : -1;
}

inline bool is_control_but_tab(char c)
{
    return (c >= 0 && c < ' ' && c != '\t') || c == 127;
}

/// RFC 9110, section 5.6.2.
inline bool is_token(std::string_view text)
{
    for (const char c : text) {
        if (!is_digit(c) && !is_letter(c) &&
            std::string_view("!#$%&'*+-.^_`|~").find(c) == std::string_view::npos) {
            return false;
        }
    }
    return !text.empty();
}

inline std::string_view trim(std::string_view text)
{
    while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) {
        text.remove_prefix(1);
    }
    while (!text.empty() && (text.back() == ' ' || text.back() == '\t')) {
        text.remove_suffix(1);
    }
    return text;
}

/// All parts between the separators: one more than there are separators.
inline std::vector<std::string_view> split(std::string_view text, char separator)
{
    std::vector<std::string_view> parts;
    while (true) {
        const size_t end = text.find(separator);
        parts.push_back(text.substr(0, end));
        if (end == std::string_view::npos) {
            return parts;
        }
        text.remove_prefix(end + 1);
    }
}

/// The number that the digits at the front make, at most `most`; how many there were.
inline size_t leading_number(std::string_view text, Unsigned_Wide most, Unsigned_Wide& number)
{
    size_t count = 0;
    number = 0;
    while (count < text.size() && is_digit(text[count])) {
        number = number * 10 + static_cast<unsigned>(text[count] - '0');
        number = number > most ? most : number;
        ++count;
    }
    return count;
}

} // namespace plain
