#pragma once

#include <cstddef>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

/**
 * Sixteen characters looked at together: every question is answered for all of them with one bit
 * each, that of the first character in bit 0. Not part of the interface.
 */
class Text_Chunk {
public:
    static constexpr size_t SIZE = 16;
    static constexpr unsigned ALL = 0xFFFF;

    /// Reads SIZE bytes from `text`, all of which must be readable.
    explicit Text_Chunk(const char* text);

    /// Two halves that need not lie together.
    static Text_Chunk of_halves(const char* first, const char* second)
    {
        char text[SIZE];
        __builtin_memcpy(text, first, SIZE / 2);
        __builtin_memcpy(text + SIZE / 2, second, SIZE / 2);
        return Text_Chunk(text);
    }

    unsigned equal(char wanted) const;

    /// Control characters except the tab: 0x00 to 0x1F without 0x09, and 0x7F.
    unsigned controls() const;

    /// Visible ASCII: 0x21 to 0x7E.
    unsigned visible() const;

    unsigned letters_digits_hyphens() const;

    /// CR, LF and NUL.
    unsigned line_breakers() const;

    /// What is the same as `lower`, SIZE readable bytes of a field name in lower case, without
    /// regard to the case of letters. Of the characters in names only letters have bit 6; shifted
    /// down it is the bit that a letter in upper case lacks.
    unsigned same_name(const char* lower) const;

private:
#if defined(__SSE2__)
    static __m128i load(const char* text)
    {
        return _mm_loadu_si128(reinterpret_cast<const __m128i*>(text));
    }

    static unsigned bits(__m128i truth)
    {
        return static_cast<unsigned>(_mm_movemask_epi8(truth));
    }

    /// Above `low` and below 0x7F. One more and signed, 0x7F is the lowest number of all, so that a
    /// single comparison tells.
    unsigned between(char low) const
    {
        const __m128i more = _mm_add_epi8(bytes_, _mm_set1_epi8(1));
        return bits(_mm_cmpgt_epi8(more, _mm_set1_epi8(static_cast<char>(low + 1))));
    }

    __m128i bytes_;
#else
    template <typename Predicate>
    unsigned bits(Predicate holds) const
    {
        unsigned result = 0;
        for (size_t i = 0; i < SIZE; ++i) {
            result |= holds(static_cast<unsigned char>(bytes_[i]), i) ? 1U << i : 0U;
        }
        return result;
    }

    char bytes_[SIZE];
#endif
};

#if defined(__SSE2__)

inline Text_Chunk::Text_Chunk(const char* text) : bytes_(load(text)) {}

inline unsigned Text_Chunk::equal(char wanted) const
{
    return bits(_mm_cmpeq_epi8(bytes_, _mm_set1_epi8(wanted)));
}

inline unsigned Text_Chunk::controls() const
{
    const unsigned plain = this->between(0x1F);
    if (plain == ALL) {
        return 0;
    }
    const unsigned above_ascii = bits(bytes_);
    return ALL & ~(plain | above_ascii | this->equal('\t'));
}

inline unsigned Text_Chunk::visible() const
{
    return this->between(0x20);
}

inline unsigned Text_Chunk::letters_digits_hyphens() const
{
    // Moved so that the last of a range is 127, the range is all that is above its first but one.
    const auto up_to = [](__m128i bytes, char first, char last) {
        const __m128i moved = _mm_add_epi8(bytes, _mm_set1_epi8(static_cast<char>(127 - last)));
        return _mm_cmpgt_epi8(moved, _mm_set1_epi8(static_cast<char>(127 - last + first - 1)));
    };
    const __m128i lower = _mm_or_si128(bytes_, _mm_set1_epi8(0x20));
    const __m128i hyphens = _mm_cmpeq_epi8(bytes_, _mm_set1_epi8('-'));
    return bits(
        _mm_or_si128(_mm_or_si128(up_to(lower, 'a', 'z'), up_to(bytes_, '0', '9')), hyphens));
}

inline unsigned Text_Chunk::line_breakers() const
{
    const __m128i ends = _mm_or_si128(_mm_cmpeq_epi8(bytes_, _mm_set1_epi8('\r')),
                                      _mm_cmpeq_epi8(bytes_, _mm_set1_epi8('\n')));
    return bits(_mm_or_si128(ends, _mm_cmpeq_epi8(bytes_, _mm_setzero_si128())));
}

inline unsigned Text_Chunk::same_name(const char* lower) const
{
    const __m128i expected = load(lower);
    const __m128i letters = _mm_and_si128(expected, _mm_set1_epi8(0x40));
    return bits(_mm_cmpeq_epi8(_mm_or_si128(bytes_, _mm_srli_epi16(letters, 1)), expected));
}

#else

inline Text_Chunk::Text_Chunk(const char* text)
{
    __builtin_memcpy(bytes_, text, SIZE);
}

inline unsigned Text_Chunk::equal(char wanted) const
{
    return bits(
        [wanted](unsigned byte, size_t) { return byte == static_cast<unsigned char>(wanted); });
}

inline unsigned Text_Chunk::controls() const
{
    return bits(
        [](unsigned byte, size_t) { return (byte < 0x20 && byte != '\t') || byte == 0x7F; });
}

inline unsigned Text_Chunk::visible() const
{
    return bits([](unsigned byte, size_t) { return byte > 0x20 && byte < 0x7F; });
}

inline unsigned Text_Chunk::letters_digits_hyphens() const
{
    return bits([](unsigned byte, size_t) {
        const unsigned lower = byte | 0x20U;
        return (lower >= 'a' && lower <= 'z') || (byte >= '0' && byte <= '9') || byte == '-';
    });
}

inline unsigned Text_Chunk::line_breakers() const
{
    return bits([](unsigned byte, size_t) { return byte == '\r' || byte == '\n' || byte == 0; });
}

inline unsigned Text_Chunk::same_name(const char* lower) const
{
    return bits([lower](unsigned byte, size_t i) {
        const auto expected = static_cast<unsigned char>(lower[i]);
        return (byte | (expected & 0x40U) >> 1U) == expected;
    });
}

#endif
