#include "support/websocket_mask.h"

#include <bit>
#include <cstdint>
#include <cstring>

namespace {

/// Sixteen bytes, which every processor of the common kinds handles as one word.
using Word16 = std::uint64_t __attribute__((vector_size(16)));

#if defined(__x86_64__)
#define HTTPD_WIDE_UNMASK 1
using Word32 = std::uint64_t __attribute__((vector_size(32)));

/// From where on the wider words make up for the question whether there are any.
constexpr size_t WIDE_LENGTH = 512;
#endif

/// @return how many bytes were done: whole words.
template <typename Word>
[[gnu::always_inline]] inline size_t unmask_words(char* data, size_t length, std::uint64_t mask)
{
    const Word wide = Word{} + mask;
    size_t at = 0;
    for (; length - at >= sizeof wide; at += sizeof wide) {
        Word word;
        std::memcpy(&word, data + at, sizeof word);
        word ^= wide;
        std::memcpy(data + at, &word, sizeof word);
    }
    return at;
}

#if defined(HTTPD_WIDE_UNMASK)
[[gnu::target("avx2")]] size_t unmask_wide(char* data, size_t length, std::uint64_t mask)
{
    return unmask_words<Word32>(data, length, mask);
}
#endif

} // namespace

void websocket_unmask(char* data, size_t length, const unsigned char key[4], unsigned offset)
{
    // The key as it lies over data[0]: its bytes turned by `offset`, twice.
    std::uint32_t word32;
    std::memcpy(&word32, key, sizeof word32);
    const int turn = 8 * static_cast<int>(offset % 4);
    word32 = std::endian::native == std::endian::little ? std::rotr(word32, turn)
                                                        : std::rotl(word32, turn);
    const std::uint64_t mask = static_cast<std::uint64_t>(word32) << 32 | word32;
    size_t at = 0;
#if defined(HTTPD_WIDE_UNMASK)
    if (length >= WIDE_LENGTH && __builtin_cpu_supports("avx2")) {
        at = unmask_wide(data, length, mask);
    }
#endif
    at += unmask_words<Word16>(data + at, length - at, mask);
    at += unmask_words<std::uint64_t>(data + at, length - at, mask);
    unsigned char turned[4];
    std::memcpy(turned, &word32, sizeof turned);
    for (; at < length; ++at) {
        data[at] = static_cast<char>(static_cast<unsigned char>(data[at]) ^ turned[at % 4]);
    }
}
