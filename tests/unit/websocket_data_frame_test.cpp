#include "support/websocket_data_frame.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <limits>
#include <string>

namespace {

using Frame = WebSocket_Data_Frame;

constexpr bool FINAL = true;
constexpr bool MORE = false;
constexpr bool MASK = true;
constexpr bool NO_MASK = false;
constexpr unsigned char CONTINUATION = 0;
constexpr unsigned char TEXT = 1;
constexpr unsigned char BINARY = 2;
constexpr unsigned char CLOSE = 8;
constexpr unsigned char PING = 9;
constexpr unsigned char PONG = 10;

std::string bytes_of(const iovec& entry)
{
    return {static_cast<const char*>(entry.iov_base), entry.iov_len};
}

/// The header that init() has prepared; the frame is then given its payload, so that it is done.
std::string header_of(bool fin, unsigned char opcode, unsigned long length, bool mask = NO_MASK,
                      Frame&& frame = Frame())
{
    frame.init(fin, opcode, length, mask);
    iovec out[1];
    return frame.to_iovec(out, 1, nullptr, 0) == 1 ? bytes_of(out[0]) : "no header";
}

std::string big_endian(unsigned long value, int bytes)
{
    std::string text;
    for (int i = bytes - 1; i >= 0; --i) {
        text += static_cast<char>(value >> (8 * i));
    }
    return text;
}

/// The first byte of the next frame of a connection.
unsigned first_byte(Frame& frame, bool fin, unsigned char opcode)
{
    frame.init(fin, opcode, 0, NO_MASK);
    iovec out[1];
    return frame.to_iovec(out, 1, nullptr, 0) == 1
               ? *static_cast<const unsigned char*>(out[0].iov_base)
               : 0xFFFFU;
}

} // namespace

TEST(WebSocket_Data_Frame, has_the_close_codes_of_the_rfc)
{
    EXPECT_EQ(1000, Frame::CLOSE_NORMAL);
    EXPECT_EQ(1001, Frame::CLOSE_GOING_AWAY);
    EXPECT_EQ(1002, Frame::CLOSE_PROTOCOL_ERROR);
    EXPECT_EQ(1003, Frame::CLOSE_UNSUPPORTED_DATA);
    EXPECT_EQ(1005, Frame::CLOSE_NO_STATUS);
    EXPECT_EQ(1006, Frame::CLOSE_ABNORMAL);
    EXPECT_EQ(1007, Frame::CLOSE_INVALID_PAYLOAD);
    EXPECT_EQ(1008, Frame::CLOSE_POLICY_VIOLATION);
    EXPECT_EQ(1009, Frame::CLOSE_MESSAGE_TOO_BIG);
    EXPECT_EQ(1010, Frame::CLOSE_EXTENSION_REQUIRED);
    EXPECT_EQ(1011, Frame::CLOSE_INTERNAL_ENDPOINT_ERROR);
    EXPECT_EQ(1012, Frame::CLOSE_SERVICE_RESTART);
    EXPECT_EQ(1013, Frame::CLOSE_TRY_AGAIN_LATER);
    EXPECT_EQ(1015, Frame::CLOSE_TLS_HANDSHAKE);
}

TEST(WebSocket_Data_Frame, a_close_status_holds_every_code_that_a_peer_may_send)
{
    EXPECT_EQ(65535, static_cast<Frame::Close_Status>(65535));
    EXPECT_EQ(0, static_cast<Frame::Close_Status>(0));
}

TEST(WebSocket_Data_Frame, is_done_when_new)
{
    EXPECT_TRUE(Frame().done());
}

TEST(WebSocket_Data_Frame, writes_the_length_in_its_shortest_form)
{
    const struct {
        unsigned long length;
        std::string rest; ///< of the header, behind its first byte
    } cases[] = {
        {0, std::string(1, '\0')},
        {1, "\x01"},
        {124, "\x7C"},
        {125, "\x7D"},
        {126, "\x7E" + big_endian(126, 2)},
        {127, "\x7E" + big_endian(127, 2)},
        {255, "\x7E" + big_endian(255, 2)},
        {256, "\x7E" + big_endian(256, 2)},
        {65534, "\x7E" + big_endian(65534, 2)},
        {65535, "\x7E" + big_endian(65535, 2)},
        {65536, "\x7F" + big_endian(65536, 8)},
        {0x0123456789ABCDEFUL, "\x7F" + big_endian(0x0123456789ABCDEFUL, 8)},
        {0x7FFFFFFFFFFFFFFFUL, "\x7F" + big_endian(0x7FFFFFFFFFFFFFFFUL, 8)},
    };
    for (const auto& entry : cases) {
        EXPECT_EQ("\x82" + entry.rest, header_of(FINAL, BINARY, entry.length)) << entry.length;
    }
}

TEST(WebSocket_Data_Frame, writes_the_final_bit_and_the_opcode)
{
    for (unsigned char opcode = 0; opcode <= 15; ++opcode) {
        EXPECT_EQ(0x80U | opcode, static_cast<unsigned char>(header_of(FINAL, opcode, 0)[0]));
        EXPECT_EQ(opcode, static_cast<unsigned char>(header_of(MORE, opcode, 0)[0]));
    }
}

TEST(WebSocket_Data_Frame, a_masked_frame_has_a_key_of_zeros)
{
    const std::string key(4, '\0');
    EXPECT_EQ("\x81\x85" + key, header_of(FINAL, TEXT, 5, MASK));
    EXPECT_EQ("\x81\xFE" + big_endian(126, 2) + key, header_of(FINAL, TEXT, 126, MASK));
    EXPECT_EQ("\x81\xFF" + big_endian(65536, 8) + key, header_of(FINAL, TEXT, 65536, MASK));
}

TEST(WebSocket_Data_Frame, hands_out_header_and_payload)
{
    Frame frame;
    frame.init(FINAL, TEXT, 5, NO_MASK);
    EXPECT_FALSE(frame.done());
    const char payload[] = "Hello";
    iovec out[2];
    ASSERT_EQ(2, frame.to_iovec(out, 2, payload, 5));
    EXPECT_EQ("\x81\x05", bytes_of(out[0]));
    EXPECT_EQ(payload, out[1].iov_base) << "not copied";
    EXPECT_EQ(5U, out[1].iov_len);
    EXPECT_TRUE(frame.done());
}

TEST(WebSocket_Data_Frame, an_empty_payload_gives_the_header_alone)
{
    Frame frame;
    frame.init(FINAL, PING, 0, NO_MASK);
    EXPECT_FALSE(frame.done());
    iovec out[2];
    ASSERT_EQ(1, frame.to_iovec(out, 2, nullptr, 0));
    EXPECT_EQ(std::string("\x89\x00", 2), bytes_of(out[0]));
    EXPECT_TRUE(frame.done());
}

TEST(WebSocket_Data_Frame, hands_out_the_header_once)
{
    Frame frame;
    frame.init(FINAL, TEXT, 5, NO_MASK);
    iovec out[2];
    ASSERT_EQ(2, frame.to_iovec(out, 2, "Hel", 3));
    EXPECT_FALSE(frame.done());
    ASSERT_EQ(0, frame.to_iovec(out, 2, "", 0)) << "an empty piece gives no entry";
    ASSERT_EQ(1, frame.to_iovec(out, 1, "l", 1));
    EXPECT_EQ("l", bytes_of(out[0]));
    EXPECT_FALSE(frame.done());
    ASSERT_EQ(1, frame.to_iovec(out, 2, "o", 1));
    EXPECT_EQ("o", bytes_of(out[0]));
    EXPECT_TRUE(frame.done());
    EXPECT_EQ(0, frame.to_iovec(out, 2, nullptr, 0));
}

TEST(WebSocket_Data_Frame, refuses_more_payload_than_declared)
{
    Frame frame;
    iovec out[2];
    errno = 0;
    EXPECT_EQ(-1, frame.to_iovec(out, 2, "x", 1)) << "none is declared at all";
    EXPECT_EQ(EINVAL, errno);

    frame.init(FINAL, TEXT, 3, NO_MASK);
    errno = 0;
    EXPECT_EQ(-1, frame.to_iovec(out, 2, "Hell", 4));
    EXPECT_EQ(EINVAL, errno);
    EXPECT_FALSE(frame.done());
    ASSERT_EQ(2, frame.to_iovec(out, 2, "He", 2)) << "the refused call has changed nothing";
    EXPECT_EQ(-1, frame.to_iovec(out, 2, "ll", 2));
    ASSERT_EQ(1, frame.to_iovec(out, 2, "l", 1));
    EXPECT_TRUE(frame.done());
    EXPECT_EQ(-1, frame.to_iovec(out, 2, "o", 1));
}

TEST(WebSocket_Data_Frame, refuses_a_vector_without_room)
{
    Frame frame;
    frame.init(FINAL, TEXT, 5, NO_MASK);
    iovec out[2];
    errno = 0;
    EXPECT_EQ(-1, frame.to_iovec(out, 0, nullptr, 0));
    EXPECT_EQ(EINVAL, errno);
    EXPECT_EQ(-1, frame.to_iovec(out, 1, "Hello", 5)) << "header and payload are two entries";
    EXPECT_EQ(-1, frame.to_iovec(nullptr, 0, "Hello", 5));
    ASSERT_EQ(1, frame.to_iovec(out, 1, nullptr, 0));
    EXPECT_EQ(-1, frame.to_iovec(out, 0, "Hello", 5));
    ASSERT_EQ(1, frame.to_iovec(out, 1, "Hello", 5));
    EXPECT_EQ(0, frame.to_iovec(nullptr, 0, nullptr, 0));
    EXPECT_TRUE(frame.done());
}

TEST(WebSocket_Data_Frame, refuses_a_length_without_data)
{
    Frame frame;
    frame.init(FINAL, TEXT, 5, NO_MASK);
    iovec out[2];
    errno = 0;
    EXPECT_EQ(-1, frame.to_iovec(out, 2, nullptr, 5));
    EXPECT_EQ(EINVAL, errno);
    EXPECT_EQ(2, frame.to_iovec(out, 2, "Hello", 5));
}

TEST(WebSocket_Data_Frame, counts_the_largest_payload)
{
    Frame frame;
    const unsigned long length = std::numeric_limits<long>::max();
    frame.init(FINAL, BINARY, length, NO_MASK);
    const char byte = 'x'; // its address stands for all of them
    iovec out[2];
    ASSERT_EQ(2, frame.to_iovec(out, 2, &byte, length - 1));
    EXPECT_FALSE(frame.done());
    ASSERT_EQ(1, frame.to_iovec(out, 2, &byte, 1));
    EXPECT_TRUE(frame.done());
}

TEST(WebSocket_Data_Frame, a_frame_after_one_that_was_not_final_is_a_continuation)
{
    Frame frame;
    EXPECT_EQ(0x01U, first_byte(frame, MORE, TEXT));
    EXPECT_EQ(0x00U, first_byte(frame, MORE, TEXT));
    EXPECT_EQ(0x00U, first_byte(frame, MORE, BINARY)) << "whatever its own type";
    EXPECT_EQ(0x80U, first_byte(frame, FINAL, TEXT));
    EXPECT_EQ(0x82U, first_byte(frame, FINAL, BINARY));
    EXPECT_EQ(0x02U, first_byte(frame, MORE, BINARY));
    EXPECT_EQ(0x80U, first_byte(frame, FINAL, BINARY));
    EXPECT_EQ(0x81U, first_byte(frame, FINAL, TEXT));
}

TEST(WebSocket_Data_Frame, control_frames_stand_between_the_frames_of_a_message)
{
    Frame frame;
    EXPECT_EQ(0x01U, first_byte(frame, MORE, TEXT));
    EXPECT_EQ(0x89U, first_byte(frame, FINAL, PING));
    EXPECT_EQ(0x8AU, first_byte(frame, FINAL, PONG));
    EXPECT_EQ(0x0AU, first_byte(frame, MORE, PONG)) << "a fragmented one opens no message";
    EXPECT_EQ(0x00U, first_byte(frame, MORE, TEXT));
    EXPECT_EQ(0x80U, first_byte(frame, FINAL, TEXT));
    EXPECT_EQ(0x81U, first_byte(frame, FINAL, TEXT));
    EXPECT_EQ(0x88U, first_byte(frame, FINAL, CLOSE));
}

TEST(WebSocket_Data_Frame, a_continuation_asked_for_by_name_ends_the_message_for_the_peer)
{
    Frame frame;
    EXPECT_EQ(0x01U, first_byte(frame, MORE, TEXT));
    EXPECT_EQ(0x8AU, first_byte(frame, FINAL, PONG));
    EXPECT_EQ(0x00U, first_byte(frame, MORE, CONTINUATION));
    EXPECT_EQ(0x00U, first_byte(frame, MORE, TEXT)) << "the message is still open";
    EXPECT_EQ(0x80U, first_byte(frame, FINAL, CONTINUATION));
    EXPECT_EQ(0x82U, first_byte(frame, FINAL, BINARY)) << "and now it is not";
    EXPECT_EQ(0x00U, first_byte(frame, MORE, CONTINUATION)) << "it goes out as it is";
    EXPECT_EQ(0x81U, first_byte(frame, FINAL, TEXT)) << "but opens no message";
}

TEST(WebSocket_Data_Frame, a_new_frame_replaces_one_that_was_not_sent)
{
    Frame frame;
    frame.init(FINAL, TEXT, 5, NO_MASK);
    iovec out[2];
    ASSERT_EQ(2, frame.to_iovec(out, 2, "Hel", 3));
    frame.init(FINAL, TEXT, 2, NO_MASK);
    ASSERT_EQ(2, frame.to_iovec(out, 2, "ab", 2));
    EXPECT_EQ("\x81\x02", bytes_of(out[0]));
    EXPECT_TRUE(frame.done());
}

TEST(WebSocket_Data_Frame, a_frame_that_was_withdrawn_leaves_no_trace)
{
    Frame frame;
    EXPECT_EQ(0x01U, first_byte(frame, MORE, TEXT));
    frame.init(FINAL, TEXT, 5, NO_MASK);
    frame.withdraw();
    EXPECT_TRUE(frame.done());
    EXPECT_EQ(0x80U, first_byte(frame, FINAL, TEXT)) << "the message is still open";

    frame.init(MORE, TEXT, 5, NO_MASK);
    iovec out[2];
    ASSERT_EQ(2, frame.to_iovec(out, 2, "Hel", 3));
    frame.withdraw();
    EXPECT_TRUE(frame.done());
    EXPECT_EQ(0x82U, first_byte(frame, FINAL, BINARY)) << "no message was begun";
}
