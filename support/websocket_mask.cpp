#include "support/websocket_mask.h"

#include <bit>
#include <cstdint>
#include <cstring>

void websocket_unmask(char* data, size_t length, const unsigned char key[4], unsigned offset)
{
    // The key as it lies over data[0]: its bytes turned by `offset`, twice.
    std::uint32_t word32;
    std::memcpy(&word32, key, sizeof word32);
    const int turn = 8 * static_cast<int>(offset % 4);
    word32 = std::endian::native == std::endian::little ? std::rotr(word32, turn)
                                                        : std::rotl(word32, turn);
    const std::uint64_t mask = static_cast<std::uint64_t>(word32) << 32 | word32;
    // Plain word loops: the compiler widens them to what the processor has.
    size_t at = 0;
    for (; length - at >= sizeof mask; at += sizeof mask) {
        std::uint64_t word;
        std::memcpy(&word, data + at, sizeof word);
        word ^= mask;
        std::memcpy(data + at, &word, sizeof word);
    }
    unsigned char turned[4];
    std::memcpy(turned, &word32, sizeof turned);
    for (; at < length; ++at) {
        data[at] = static_cast<char>(static_cast<unsigned char>(data[at]) ^ turned[at % 4]);
    }
}
