#include "support/utf8_check.h"

#include <cstring>

namespace {

/// What the next byte of a character may be (RFC 3629, section 4).
enum State : std::uint8_t {
    START = UTF8_Check::COMPLETE,
    TAIL_1,   ///< one more byte, 80..BF
    TAIL_2,   ///< two more
    TAIL_3,   ///< three more
    AFTER_E0, ///< A0..BF, then one
    AFTER_ED, ///< 80..9F, then one: no surrogates
    AFTER_F0, ///< 90..BF, then two
    AFTER_F4, ///< 80..8F, then two: not above U+10FFFF
    MALFORMED
};

State lead(unsigned char byte)
{
    if (byte <= 0x7F) {
        return START;
    }
    if (byte >= 0xC2 && byte <= 0xDF) {
        return TAIL_1;
    }
    if (byte == 0xE0) {
        return AFTER_E0;
    }
    if (byte == 0xED) {
        return AFTER_ED;
    }
    if (byte >= 0xE1 && byte <= 0xEF) {
        return TAIL_2;
    }
    if (byte == 0xF0) {
        return AFTER_F0;
    }
    if (byte == 0xF4) {
        return AFTER_F4;
    }
    return byte >= 0xF1 && byte <= 0xF3 ? TAIL_3 : MALFORMED;
}

State next(State state, unsigned char byte)
{
    const auto within = [byte](unsigned char low, unsigned char high, State then) {
        return byte >= low && byte <= high ? then : MALFORMED;
    };
    switch (state) {
    case START:
        return lead(byte);
    case TAIL_1:
        return within(0x80, 0xBF, START);
    case TAIL_2:
        return within(0x80, 0xBF, TAIL_1);
    case TAIL_3:
        return within(0x80, 0xBF, TAIL_2);
    case AFTER_E0:
        return within(0xA0, 0xBF, TAIL_1);
    case AFTER_ED:
        return within(0x80, 0x9F, TAIL_1);
    case AFTER_F0:
        return within(0x90, 0xBF, TAIL_2);
    case AFTER_F4:
        return within(0x80, 0x8F, TAIL_2);
    case MALFORMED:
        break;
    }
    return MALFORMED;
}

/// The number of leading bytes that are ASCII, counted in whole words.
size_t ascii_words(const char* data, size_t length)
{
    constexpr std::uint64_t HIGH_BITS = 0x8080808080808080U;
    size_t at = 0;
    while (length - at >= sizeof(std::uint64_t)) {
        std::uint64_t word;
        std::memcpy(&word, data + at, sizeof word);
        if ((word & HIGH_BITS) != 0) {
            break;
        }
        at += sizeof word;
    }
    return at;
}

} // namespace

bool UTF8_Check::feed(std::uint8_t& state, const char* data, size_t length)
{
    auto current = static_cast<State>(state);
    for (size_t at = 0; at < length; ++at) {
        if (current == START) {
            at += ascii_words(data + at, length - at);
            if (at == length) {
                break;
            }
        }
        current = next(current, static_cast<unsigned char>(data[at]));
        if (current == MALFORMED) {
            return false;
        }
    }
    state = current;
    return true;
}
