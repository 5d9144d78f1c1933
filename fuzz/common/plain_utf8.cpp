#include "fuzz/common/plain_utf8.h"

#include <algorithm>
#include <cstddef>

namespace {

/// Bytes of a character by its first one; 0: none begins so.
size_t length_of(unsigned char first)
{
    if (first < 0x80) {
        return 1;
    }
    if (first >> 5 == 0x06) {
        return 2;
    }
    if (first >> 4 == 0x0E) {
        return 3;
    }
    return first >> 3 == 0x1E ? 4 : 0;
}

/// Is any character that is allowed at this length between the two code points?
bool any_allowed(unsigned lowest, unsigned highest, size_t length)
{
    constexpr unsigned LEAST[] = {0, 0, 0x80, 0x800, 0x10000};
    lowest = std::max(lowest, LEAST[length]);
    highest = std::min(highest, 0x10FFFFU);
    if (lowest >= 0xD800 && highest <= 0xDFFF) {
        return false; // surrogates alone
    }
    return lowest <= highest;
}

} // namespace

Plain_UTF8 plain_utf8(std::string_view text)
{
    while (!text.empty()) {
        const auto first = static_cast<unsigned char>(text[0]);
        const size_t length = length_of(first);
        if (length == 0) {
            return Plain_UTF8::MALFORMED;
        }
        // The code points that the bytes which are there leave possible.
        unsigned lowest = length == 1 ? first : first & (0x7FU >> length);
        unsigned highest = lowest;
        for (size_t i = 1; i < length; ++i) {
            unsigned low_bits = 0;
            unsigned high_bits = 0x3F;
            if (i < text.size()) {
                const auto byte = static_cast<unsigned char>(text[i]);
                if (byte >> 6 != 2) {
                    return Plain_UTF8::MALFORMED;
                }
                low_bits = high_bits = byte & 0x3FU;
            }
            lowest = lowest << 6 | low_bits;
            highest = highest << 6 | high_bits;
        }
        if (!any_allowed(lowest, highest, length)) {
            return Plain_UTF8::MALFORMED;
        }
        if (text.size() < length) {
            return Plain_UTF8::UNFINISHED;
        }
        text.remove_prefix(length);
    }
    return Plain_UTF8::COMPLETE;
}
