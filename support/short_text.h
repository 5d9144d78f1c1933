#pragma once

#include "support/text_chunk.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <type_traits>

/// Texts of a few dozen bytes, for which a call into the C library costs more than the work. Moves
/// that overlap cover every length without touching a byte outside. Not part of the interface.

namespace short_text {

template <size_t SIZE>
inline void move(char* out, const char* text)
{
    std::memcpy(out, text, SIZE); // a constant size: no call
}

/// Both ends, which meet or overlap where `size` is at most twice SIZE.
template <size_t SIZE>
inline void move_ends(char* out, const char* text, size_t size)
{
    move<SIZE>(out, text);
    move<SIZE>(out + size - SIZE, text + size - SIZE);
}

} // namespace short_text

/// Copies `text` to `out`, which does not overlap it. @return the end of the copy.
[[gnu::always_inline]] inline char* copy_short(char* out, std::string_view text)
{
    const size_t size = text.size();
    const char* const from = text.data();
    if (size > 4 * Text_Chunk::SIZE) {
        std::memcpy(out, from, size);
    } else if (size >= 16) {
        for (size_t i = 0; i < size - 16; i += 16) {
            short_text::move<16>(out + i, from + i);
        }
        short_text::move<16>(out + size - 16, from + size - 16);
    } else if (size >= 8) {
        short_text::move_ends<8>(out, from, size);
    } else if (size >= 4) {
        short_text::move_ends<4>(out, from, size);
    } else if (size >= 2) {
        short_text::move_ends<2>(out, from, size);
    } else if (size == 1) {
        *out = *from;
    }
    return out + size;
}

/// True when `text` is `word`, lower-case letters and hyphens, without regard to case.
template <size_t SIZE>
inline bool is_word_no_case(std::string_view text, const char (&word)[SIZE])
{
    constexpr size_t LENGTH = SIZE - 1;
    static_assert(LENGTH >= 4 && LENGTH <= 16);
    using Word = std::conditional_t<(LENGTH >= 8), std::uint64_t, std::uint32_t>;
    const auto same = [&text, &word](size_t at) {
        Word read = 0;
        Word expected = 0;
        std::memcpy(&read, text.data() + at, sizeof(Word));
        std::memcpy(&expected, word + at, sizeof(Word));
        constexpr Word LETTERS = static_cast<Word>(0x4040404040404040U); // as in same_name()
        return (read | (expected & LETTERS) >> 1U) == expected;
    };
    return text.size() == LENGTH && same(0) && same(LENGTH - sizeof(Word));
}
