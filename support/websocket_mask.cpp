#include "support/websocket_mask.h"

#include <cstdint>
#include <cstring>

void websocket_unmask(char* data, size_t length, const unsigned char key[4], unsigned offset)
{
    unsigned char turned[8];
    for (unsigned i = 0; i < sizeof turned; ++i) {
        turned[i] = key[(offset + i) % 4];
    }
    std::uint64_t mask;
    std::memcpy(&mask, turned, sizeof mask);
    // Plain word loops: the compiler widens them to what the processor has.
    size_t at = 0;
    for (; length - at >= sizeof mask; at += sizeof mask) {
        std::uint64_t word;
        std::memcpy(&word, data + at, sizeof word);
        word ^= mask;
        std::memcpy(data + at, &word, sizeof word);
    }
    for (; at < length; ++at) {
        data[at] = static_cast<char>(static_cast<unsigned char>(data[at]) ^ turned[at % 4]);
    }
}
