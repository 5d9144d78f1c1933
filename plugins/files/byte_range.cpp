#include "plugins/files/byte_range.h"

#include <strings.h>

#include <algorithm>
#include <limits>

namespace {

constexpr Byte_Range WHOLE_FILE{Byte_Range::WHOLE, 0, 0};
constexpr Byte_Range NOTHING{Byte_Range::UNSATISFIABLE, 0, 0};

/// Reads decimal digits and nothing else; a number that does not fit becomes the largest.
bool parse_number(std::string_view text, std::uint64_t& number)
{
    constexpr std::uint64_t MAX = std::numeric_limits<std::uint64_t>::max();
    number = 0;
    for (const char c : text) {
        if (c < '0' || c > '9') {
            return false;
        }
        const std::uint64_t digit = static_cast<std::uint64_t>(c - '0');
        number = number > (MAX - digit) / 10 ? MAX : number * 10 + digit;
    }
    return !text.empty();
}

Byte_Range suffix_range(std::string_view length_text, std::uint64_t size)
{
    std::uint64_t length = 0;
    if (!parse_number(length_text, length)) {
        return WHOLE_FILE;
    }
    if (length == 0) {
        return NOTHING;
    }
    if (size == 0) {
        return WHOLE_FILE;
    }
    length = std::min(length, size);
    return {Byte_Range::PART, size - length, length};
}

} // namespace

Byte_Range parse_byte_range(std::string_view value, std::uint64_t size)
{
    constexpr std::string_view UNIT = "bytes=";
    if (value.size() <= UNIT.size() || ::strncasecmp(value.data(), UNIT.data(), UNIT.size()) != 0) {
        return WHOLE_FILE;
    }
    const std::string_view range = value.substr(UNIT.size());
    const size_t dash = range.find('-');
    if (dash == std::string_view::npos) {
        return WHOLE_FILE;
    }
    const std::string_view last_text = range.substr(dash + 1);
    if (dash == 0) {
        return suffix_range(last_text, size);
    }

    std::uint64_t first = 0;
    std::uint64_t last = std::numeric_limits<std::uint64_t>::max();
    if (!parse_number(range.substr(0, dash), first) ||
        (!last_text.empty() && !parse_number(last_text, last)) || last < first) {
        return WHOLE_FILE;
    }
    if (first >= size) {
        return NOTHING;
    }
    last = std::min(last, size - 1);
    return {Byte_Range::PART, first, last - first + 1};
}
