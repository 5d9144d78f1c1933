#include "support/websocket_mask.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

constexpr unsigned char KEY[4] = {0x37, 0xFA, 0x21, 0x3D};

/// What RFC 6455, section 5.3, says, one byte after the other.
std::string plain_unmask(std::string data, const unsigned char key[4], unsigned offset)
{
    for (size_t i = 0; i < data.size(); ++i) {
        data[i] = static_cast<char>(static_cast<unsigned char>(data[i]) ^ key[(offset + i) % 4]);
    }
    return data;
}

std::string sample(size_t length)
{
    std::string data(length, '\0');
    for (size_t i = 0; i < length; ++i) {
        data[i] = static_cast<char>(i * 37 + 11);
    }
    return data;
}

} // namespace

TEST(WebSocket_Mask, unmasks_the_example_of_the_rfc)
{
    std::string data = "\x7f\x9f\x4d\x51\x58"; // RFC 6455, 5.7
    websocket_unmask(data.data(), data.size(), KEY, 0);
    EXPECT_EQ("Hello", data);
}

TEST(WebSocket_Mask, unmasks_every_length_at_every_alignment_and_offset)
{
    constexpr size_t GUARD = 8;
    for (size_t alignment = 0; alignment < 8; ++alignment) {
        for (unsigned offset = 0; offset < 4; ++offset) {
            for (size_t length = 0; length <= 64; ++length) {
                const std::string payload = sample(length);
                alignas(8) char room[GUARD + 8 + 64 + GUARD];
                std::string expected(sizeof room, '#');
                expected.replace(GUARD + alignment, length, plain_unmask(payload, KEY, offset));
                std::string start(sizeof room, '#');
                start.replace(GUARD + alignment, length, payload);
                start.copy(room, sizeof room);
                websocket_unmask(room + GUARD + alignment, length, KEY, offset);
                ASSERT_EQ(expected, std::string(room, sizeof room))
                    << "alignment " << alignment << " offset " << offset << " length " << length;
            }
        }
    }
}

TEST(WebSocket_Mask, unmasks_long_payloads_of_every_remainder_at_every_alignment)
{
    for (size_t alignment = 0; alignment < 32; ++alignment) {
        for (size_t length = 500; length <= 600; ++length) {
            const unsigned offset = static_cast<unsigned>(alignment + length) % 4;
            const std::string payload = sample(length);
            std::string room(alignment, '#');
            room += payload + "##";
            websocket_unmask(room.data() + alignment, length, KEY, offset);
            ASSERT_EQ(std::string(alignment, '#') + plain_unmask(payload, KEY, offset) + "##", room)
                << "alignment " << alignment << " length " << length;
        }
    }
}

TEST(WebSocket_Mask, twice_gives_the_same_bytes_again)
{
    const std::string payload = sample(1000);
    std::string data = payload;
    websocket_unmask(data.data(), data.size(), KEY, 3);
    EXPECT_NE(payload, data);
    websocket_unmask(data.data(), data.size(), KEY, 3);
    EXPECT_EQ(payload, data);
}

TEST(WebSocket_Mask, pieces_with_their_offsets_give_what_the_whole_gives)
{
    const std::string payload = sample(64);
    const std::string whole = plain_unmask(payload, KEY, 0);
    for (size_t cut = 0; cut <= payload.size(); ++cut) {
        std::string data = payload;
        websocket_unmask(data.data(), cut, KEY, 0);
        websocket_unmask(data.data() + cut, data.size() - cut, KEY, static_cast<unsigned>(cut % 4));
        ASSERT_EQ(whole, data) << cut;
    }
}

TEST(WebSocket_Mask, a_key_of_zeros_leaves_the_payload)
{
    constexpr unsigned char ZEROS[4] = {0, 0, 0, 0};
    std::string data = sample(31);
    websocket_unmask(data.data(), data.size(), ZEROS, 1);
    EXPECT_EQ(sample(31), data);
}
