#include "support/websocket_data_frame_parser.h"

#include "support/websocket_data_frame.h"
#include "tests/support/websocket_client.h"

#include <ace/Message_Block.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <ostream>
#include <random>
#include <string>
#include <vector>

namespace {

using Parser = WebSocket_Data_Frame_Parser;

/// What a parser has told of one frame.
struct Parsed {
    unsigned opcode = 0;
    bool fin = false;
    bool last = false; ///< of its last piece
    bool binary = false;
    unsigned long length = 0;
    std::string payload;

    bool operator==(const Parsed& other) const
    {
        return opcode == other.opcode && fin == other.fin && last == other.last &&
               binary == other.binary && length == other.length && payload == other.payload;
    }
};

std::ostream& operator<<(std::ostream& out, const Parsed& frame)
{
    return out << "{" << frame.opcode << (frame.fin ? " fin" : "") << (frame.last ? " last" : "")
               << (frame.binary ? " binary" : "") << " " << frame.length << " "
               << testing::PrintToString(frame.payload.substr(0, 40)) << "}";
}

/// A client's bytes in a parser: the frames so far, and whether it has refused.
class Session {
public:
    explicit Session(size_t room = 1024 * 1024) : block_(room) {}

    /// One read of the connection, and all that it completes.
    void feed(const std::string& bytes)
    {
        block_.reset();
        ASSERT_EQ(0, block_.copy(bytes.data(), bytes.size()));
        while (!refused_) {
            size_t length = 12345;
            const char* const start = block_.rd_ptr();
            const Parser::State state = parser_.parse(&block_, length);
            if (state == Parser::STATE_ERROR) {
                EXPECT_EQ(0U, length);
                refused_ = true;
                return;
            }
            if (state != Parser::STATE_PAYLOAD) {
                EXPECT_EQ(0U, length);
                EXPECT_EQ(0U, block_.length()) << "every byte has been taken";
                return;
            }
            ASSERT_LE(length, block_.length());
            ASSERT_GE(block_.rd_ptr(), start);
            this->take(length);
            if (block_.length() == 0) {
                return;
            }
        }
    }

    const std::vector<Parsed>& frames() const { return frames_; }
    bool refused() const { return refused_; }
    size_t pieces() const { return pieces_; }
    Parser& parser() { return parser_; }

private:
    void take(size_t length)
    {
        ++pieces_;
        if (!open_) {
            frames_.push_back({parser_.opcode(), parser_.final(), false, parser_.binary(),
                               parser_.payload_length(), ""});
        }
        Parsed& frame = frames_.back();
        EXPECT_EQ(frame.opcode, parser_.opcode());
        EXPECT_EQ(frame.length, parser_.payload_length());
        frame.payload.append(block_.rd_ptr(), length);
        frame.last = parser_.last();
        EXPECT_EQ(frame.length - frame.payload.size(), parser_.remain());
        EXPECT_EQ(frame.fin && parser_.remain() == 0, frame.last);
        open_ = parser_.remain() > 0;
        block_.rd_ptr(length);
    }

    ACE_Message_Block block_;
    Parser parser_;
    std::vector<Parsed> frames_;
    bool refused_ = false;
    bool open_ = false;
    size_t pieces_ = 0;
};

/// Feeds the bytes whole, cut in two at every place, and byte by byte: the same frames each time.
void expect_frames(const std::string& bytes, const std::vector<Parsed>& expected)
{
    Session whole;
    whole.feed(bytes);
    EXPECT_FALSE(whole.refused());
    EXPECT_EQ(expected, whole.frames());
    EXPECT_EQ(expected.size(), whole.pieces()) << "each frame is told once when it comes whole";
    for (size_t cut = 1; cut < bytes.size(); ++cut) {
        Session halves(8192);
        halves.feed(bytes.substr(0, cut));
        halves.feed(bytes.substr(cut));
        ASSERT_FALSE(halves.refused()) << cut;
        ASSERT_EQ(expected, halves.frames()) << cut;
    }
    Session single(16);
    for (const char byte : bytes) {
        single.feed(std::string(1, byte));
    }
    EXPECT_FALSE(single.refused());
    EXPECT_EQ(expected, single.frames());
}

/// Refused by its last byte and not before, however it is cut, and ever after.
void expect_refused(const std::string& bytes, size_t taken_before_it = std::string::npos)
{
    const size_t last = std::min(taken_before_it, bytes.size() - 1);
    Session whole;
    whole.feed(bytes);
    EXPECT_TRUE(whole.refused()) << testing::PrintToString(bytes);
    Session single(16);
    for (size_t at = 0; at < last; ++at) {
        single.feed(bytes.substr(at, 1));
        ASSERT_FALSE(single.refused()) << testing::PrintToString(bytes) << " " << at;
    }
    single.feed(bytes.substr(last, 1));
    EXPECT_TRUE(single.refused()) << testing::PrintToString(bytes);

    ACE_Message_Block more(64);
    more.copy(websocket_frame(WS_TEXT, "x").c_str(), 7);
    size_t length = 7;
    EXPECT_EQ(Parser::STATE_ERROR, single.parser().parse(&more, length)) << "an error is final";
    EXPECT_EQ(0U, length);
}

std::string with_reserved(unsigned char bits)
{
    WebSocket_Frame_Options options;
    options.reserved = bits;
    return websocket_frame(WS_TEXT, "", options);
}

std::string with_length_bytes(unsigned opcode, size_t length, int bytes)
{
    WebSocket_Frame_Options options;
    options.length_bytes = bytes;
    return websocket_frame(opcode, std::string(length, 'x'), options);
}

/// A masked header that declares `length` in eight bytes, with a key of zeros.
std::string long_header(std::uint64_t length)
{
    std::string bytes = "\x82\xFF";
    for (int shift = 56; shift >= 0; shift -= 8) {
        bytes += static_cast<char>(length >> shift);
    }
    return bytes + std::string(4, '\0');
}

Parsed text(const std::string& payload)
{
    return {WS_TEXT, true, true, false, payload.size(), payload};
}

} // namespace

TEST(WebSocket_Data_Frame_Parser, has_the_states_with_their_values)
{
    EXPECT_EQ(0, Parser::STATE_OPCODE);
    EXPECT_EQ(1, Parser::STATE_PAYLOAD_LEN);
    EXPECT_EQ(2, Parser::STATE_MASK);
    EXPECT_EQ(3, Parser::STATE_MASK_KEY);
    EXPECT_EQ(4, Parser::STATE_PAYLOAD);
    EXPECT_EQ(5, Parser::STATE_ERROR);
}

TEST(WebSocket_Data_Frame_Parser, decodes_the_masked_example_of_the_rfc)
{
    expect_frames("\x81\x85\x37\xfa\x21\x3d\x7f\x9f\x4d\x51\x58", {text("Hello")}); // 5.7
}

TEST(WebSocket_Data_Frame_Parser, asks_for_more_without_input)
{
    Session session;
    session.feed("");
    EXPECT_FALSE(session.refused());
    EXPECT_TRUE(session.frames().empty());
}

TEST(WebSocket_Data_Frame_Parser, decodes_each_kind_of_frame)
{
    const std::string payload = "payload";
    for (const unsigned opcode :
         {0U, 2U, 3U, 4U, 5U, 6U, 7U, 8U, 9U, 10U, 11U, 12U, 13U, 14U, 15U}) {
        expect_frames(websocket_frame(opcode, payload),
                      {{opcode, true, true, opcode == WS_BINARY, payload.size(), payload}});
    }
    expect_frames(websocket_frame(WS_TEXT, payload), {text(payload)});
}

TEST(WebSocket_Data_Frame_Parser, decodes_fragments_of_each_kind_that_may_have_them)
{
    for (const unsigned opcode : {0U, 1U, 2U, 3U, 7U}) {
        expect_frames(websocket_fragment(opcode, "abc"),
                      {{opcode, false, false, opcode == WS_BINARY, 3, "abc"}});
    }
}

TEST(WebSocket_Data_Frame_Parser, tells_a_frame_without_payload_once)
{
    expect_frames(websocket_frame(WS_TEXT, ""), {text("")});
    expect_frames(websocket_fragment(WS_TEXT, ""), {{WS_TEXT, false, false, false, 0, ""}});
    expect_frames(websocket_frame(WS_CLOSE, ""), {{WS_CLOSE, true, true, false, 0, ""}});
    expect_frames(
        websocket_frame(WS_PING, "") + websocket_frame(WS_PONG, "") + websocket_frame(WS_TEXT, ""),
        {{WS_PING, true, true, false, 0, ""}, {WS_PONG, true, true, false, 0, ""}, text("")});
}

TEST(WebSocket_Data_Frame_Parser, decodes_each_form_of_the_length_at_its_borders)
{
    for (const size_t length :
         {0U, 1U, 2U, 124U, 125U, 126U, 127U, 128U, 255U, 256U, 65534U, 65535U, 65536U, 65537U}) {
        std::string payload(length, '\0');
        for (size_t i = 0; i < length; ++i) {
            payload[i] = static_cast<char>(i * 31 + length);
        }
        const std::string bytes = websocket_frame(WS_BINARY, payload);
        const std::vector<Parsed> expected = {{WS_BINARY, true, true, true, length, payload}};
        if (length < 1000) {
            expect_frames(bytes, expected);
            continue;
        }
        // Cuts within the header and around the payload's ends are enough for the long ones.
        for (const size_t cut :
             {size_t{1}, size_t{2}, size_t{3}, size_t{4}, size_t{8}, size_t{9}, size_t{10},
              size_t{13}, size_t{14}, size_t{15}, bytes.size() - 1, bytes.size()}) {
            Session session;
            session.feed(bytes.substr(0, cut));
            session.feed(bytes.substr(cut));
            EXPECT_FALSE(session.refused());
            EXPECT_EQ(expected, session.frames()) << length << " " << cut;
        }
    }
}

TEST(WebSocket_Data_Frame_Parser, accepts_a_length_of_63_bits)
{
    constexpr std::uint64_t LARGEST = (std::uint64_t{1} << 63) - 1;
    Session session;
    session.feed(long_header(LARGEST) + "abc");
    EXPECT_FALSE(session.refused());
    ASSERT_EQ(1U, session.frames().size());
    EXPECT_EQ("abc", session.frames()[0].payload);
    EXPECT_EQ(LARGEST, session.parser().payload_length());
    EXPECT_EQ(LARGEST - 3, session.parser().remain());
    EXPECT_FALSE(session.parser().last());
}

TEST(WebSocket_Data_Frame_Parser, refuses_a_length_with_its_top_bit)
{
    expect_refused(long_header(std::uint64_t{1} << 63), 9);
    expect_refused(long_header(~std::uint64_t{0}), 9);
}

TEST(WebSocket_Data_Frame_Parser, refuses_a_length_that_is_not_in_its_shortest_form)
{
    for (const size_t length : {0U, 1U, 125U}) {
        expect_refused(with_length_bytes(WS_TEXT, length, 2), 3);
    }
    for (const size_t length : {0U, 125U, 126U, 65535U}) {
        expect_refused(with_length_bytes(WS_TEXT, length, 8).substr(0, 200), 9);
    }
}

TEST(WebSocket_Data_Frame_Parser, refuses_a_reserved_bit)
{
    for (unsigned char bits = 1; bits <= 7; ++bits) {
        expect_refused(with_reserved(bits), 0);
    }
}

TEST(WebSocket_Data_Frame_Parser, refuses_a_frame_without_mask)
{
    WebSocket_Frame_Options options;
    options.masked = false;
    for (const size_t length : {0U, 5U, 126U, 65536U}) {
        expect_refused(websocket_frame(WS_TEXT, std::string(length, 'x'), options).substr(0, 20),
                       1);
    }
    expect_refused(websocket_frame(WS_PING, "", options), 1);
}

TEST(WebSocket_Data_Frame_Parser, refuses_a_long_control_frame)
{
    for (unsigned opcode = 8; opcode <= 15; ++opcode) {
        expect_frames(websocket_frame(opcode, std::string(125, 'x')),
                      {{opcode, true, true, false, 125, std::string(125, 'x')}});
        expect_refused(websocket_frame(opcode, std::string(126, 'x')), 1);
        expect_refused(with_length_bytes(opcode, 5, 2), 1);
        expect_refused(with_length_bytes(opcode, 5, 8), 1);
    }
}

TEST(WebSocket_Data_Frame_Parser, refuses_a_fragmented_control_frame)
{
    for (unsigned opcode = 8; opcode <= 15; ++opcode) {
        expect_refused(websocket_fragment(opcode, ""), 0);
    }
}

TEST(WebSocket_Data_Frame_Parser, refuses_a_new_message_while_one_is_open)
{
    for (const unsigned first : {WS_TEXT, WS_BINARY}) {
        for (const unsigned second : {WS_TEXT, WS_BINARY}) {
            const std::string open = websocket_fragment(first, "abc");
            expect_refused(open + websocket_frame(second, ""), open.size());
            expect_refused(open + websocket_fragment(second, ""), open.size());
            const std::string still_open =
                open + websocket_fragment(WS_CONTINUATION, "") + websocket_frame(WS_PING, "");
            expect_refused(still_open + websocket_frame(second, ""), still_open.size());
        }
    }
}

TEST(WebSocket_Data_Frame_Parser, keeps_the_type_of_a_message_through_its_fragments)
{
    for (const unsigned opcode : {WS_TEXT, WS_BINARY}) {
        const bool binary = opcode == WS_BINARY;
        expect_frames(websocket_fragment(opcode, "Hel") + websocket_fragment(WS_CONTINUATION, "") +
                          websocket_frame(WS_PING, "p") + websocket_frame(WS_CONTINUATION, "lo") +
                          websocket_frame(WS_TEXT, "next"),
                      {{opcode, false, false, binary, 3, "Hel"},
                       {WS_CONTINUATION, false, false, binary, 0, ""},
                       {WS_PING, true, true, binary, 1, "p"},
                       {WS_CONTINUATION, true, true, binary, 2, "lo"},
                       text("next")});
    }
}

TEST(WebSocket_Data_Frame_Parser, passes_on_a_continuation_without_a_message)
{
    const std::string malformed = "\xFF\xC0";
    expect_frames(websocket_frame(WS_CONTINUATION, malformed) +
                      websocket_fragment(WS_CONTINUATION, malformed) +
                      websocket_frame(WS_TEXT, "text"),
                  {{WS_CONTINUATION, true, true, false, 2, malformed},
                   {WS_CONTINUATION, false, false, false, 2, malformed},
                   text("text")});
}

TEST(WebSocket_Data_Frame_Parser, a_reserved_opcode_does_not_touch_an_open_message)
{
    expect_frames(websocket_fragment(WS_TEXT, "\xE2\x82") + websocket_frame(3, "\xFF") +
                      websocket_fragment(7, "\xFF") + websocket_frame(11, "\xFF") +
                      websocket_frame(WS_CONTINUATION, "\xAC"),
                  {{WS_TEXT, false, false, false, 2, "\xE2\x82"},
                   {3, true, true, false, 1, "\xFF"},
                   {7, false, false, false, 1, "\xFF"},
                   {11, true, true, false, 1, "\xFF"},
                   {WS_CONTINUATION, true, true, false, 1, "\xAC"}});
}

TEST(WebSocket_Data_Frame_Parser, accepts_text_whose_characters_are_cut_between_frames)
{
    const std::string all = "a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80z";
    for (size_t cut = 0; cut <= all.size(); ++cut) {
        expect_frames(websocket_fragment(WS_TEXT, all.substr(0, cut)) +
                          websocket_frame(WS_PING, "\xFF") +
                          websocket_frame(WS_CONTINUATION, all.substr(cut)),
                      {{WS_TEXT, false, false, false, cut, all.substr(0, cut)},
                       {WS_PING, true, true, false, 1, "\xFF"},
                       {WS_CONTINUATION, true, true, false, all.size() - cut, all.substr(cut)}});
    }
}

TEST(WebSocket_Data_Frame_Parser, refuses_malformed_text_at_the_byte_that_makes_it_so)
{
    const struct {
        const char* payload;
        size_t bad; ///< the byte that no text has there
    } cases[] = {
        {"\xFF"
         "abc",
         0},
        {"abc\x80"
         "def",
         3},
        {"\xC0\xAF", 0},
        {"ab\xE0\x9F\xBF", 3},
        {"\xED\xA0\x80", 1},
        {"\xF4\x90\x80\x80", 1},
        {"\xF5z", 0},
        {"\xE2\x82z", 2},
    };
    constexpr size_t HEADER = 6;
    for (const auto& entry : cases) {
        expect_refused(websocket_frame(WS_TEXT, entry.payload), HEADER + entry.bad);
        expect_refused(websocket_fragment(WS_TEXT, entry.payload), HEADER + entry.bad);
        const std::string open = websocket_fragment(WS_TEXT, "");
        expect_refused(open + websocket_frame(WS_CONTINUATION, entry.payload),
                       open.size() + HEADER + entry.bad);
    }
}

TEST(WebSocket_Data_Frame_Parser, refuses_text_that_ends_within_a_character)
{
    for (const char* const payload : {"\xC3", "a\xE2\x82", "\xF0\x9F\x98"}) {
        expect_refused(websocket_frame(WS_TEXT, payload));
        expect_refused(websocket_fragment(WS_TEXT, payload) + websocket_frame(WS_CONTINUATION, ""));
        expect_refused(websocket_fragment(WS_TEXT, "") + websocket_frame(WS_CONTINUATION, payload));
    }
}

TEST(WebSocket_Data_Frame_Parser, looks_at_the_text_of_text_messages_alone)
{
    const std::string malformed = "\xFF\xC0\x80";
    for (const unsigned opcode : {WS_BINARY, WS_CLOSE, WS_PING, WS_PONG}) {
        expect_frames(websocket_frame(opcode, malformed),
                      {{opcode, true, true, opcode == WS_BINARY, 3, malformed}});
    }
    expect_frames(websocket_fragment(WS_BINARY, malformed) +
                      websocket_frame(WS_CONTINUATION, malformed),
                  {{WS_BINARY, false, false, true, 3, malformed},
                   {WS_CONTINUATION, true, true, true, 3, malformed}});
}

TEST(WebSocket_Data_Frame_Parser, tells_a_payload_piece_by_piece)
{
    const std::string bytes = websocket_frame(WS_BINARY, "Hello");
    Parser parser;
    ACE_Message_Block block(64);
    size_t length = 0;
    block.copy(bytes.data(), 8); // the header and "He"
    ASSERT_EQ(Parser::STATE_PAYLOAD, parser.parse(&block, length));
    EXPECT_EQ(2U, length);
    EXPECT_EQ("He", std::string(block.rd_ptr(), length));
    EXPECT_EQ(5U, parser.payload_length());
    EXPECT_EQ(3U, parser.remain());
    EXPECT_TRUE(parser.final());
    EXPECT_FALSE(parser.last());
    block.rd_ptr(length);

    const Parser::State waiting = parser.parse(&block, length);
    EXPECT_NE(Parser::STATE_PAYLOAD, waiting) << "there is nothing to tell";
    EXPECT_NE(Parser::STATE_ERROR, waiting);
    EXPECT_EQ(0U, length);

    block.copy(bytes.data() + 8, 3);
    ASSERT_EQ(Parser::STATE_PAYLOAD, parser.parse(&block, length));
    EXPECT_EQ("llo", std::string(block.rd_ptr(), length));
    EXPECT_EQ(0U, parser.remain());
    EXPECT_TRUE(parser.last());
}

TEST(WebSocket_Data_Frame_Parser, leaves_the_next_frame_untouched)
{
    const std::string next = websocket_frame(WS_TEXT, "next");
    const std::string bytes = websocket_frame(WS_TEXT, "Hello") + next;
    Parser parser;
    ACE_Message_Block block(64);
    block.copy(bytes.data(), bytes.size());
    size_t length = 0;
    ASSERT_EQ(Parser::STATE_PAYLOAD, parser.parse(&block, length));
    EXPECT_EQ(5U, length);
    block.rd_ptr(length);
    EXPECT_EQ(next, std::string(block.rd_ptr(), block.length()));
}

TEST(WebSocket_Data_Frame_Parser, reset_makes_it_new)
{
    const std::string starts[] = {
        with_reserved(1),                                  // refused
        websocket_fragment(WS_BINARY, "abc"),              // within a message
        websocket_fragment(WS_TEXT, "\xE2"),               // within a character
        websocket_frame(WS_TEXT, "Hello").substr(0, 8),    // within a payload
        websocket_frame(WS_TEXT, "Hello").substr(0, 5),    // within a key
        with_length_bytes(WS_BINARY, 300, 2).substr(0, 3), // within a length
    };
    for (const std::string& start : starts) {
        Parser parser;
        ACE_Message_Block block(64);
        size_t length = 0;
        block.copy(start.data(), start.size());
        parser.parse(&block, length);
        parser.reset();
        EXPECT_EQ(0, parser.opcode());
        EXPECT_FALSE(parser.final());
        EXPECT_FALSE(parser.binary());
        EXPECT_EQ(0U, parser.payload_length());
        EXPECT_EQ(0U, parser.remain());

        const std::string frame = websocket_frame(WS_TEXT, "Hello");
        block.reset();
        block.copy(frame.data(), frame.size());
        ASSERT_EQ(Parser::STATE_PAYLOAD, parser.parse(&block, length));
        EXPECT_EQ("Hello", std::string(block.rd_ptr(), length));
    }
}

TEST(WebSocket_Data_Frame_Parser, decodes_what_the_encoder_writes)
{
    std::mt19937 random(20240229); // the same sequence in every run
    constexpr bool MASK = true;
    for (int round = 0; round < 200; ++round) {
        WebSocket_Data_Frame encoder;
        std::string wire;
        std::vector<Parsed> expected;
        bool open = false;
        bool message_binary = false;
        bool last_binary = false;
        for (int i = 0; i < 8; ++i) {
            const bool control = random() % 4 == 0;
            const bool fin = control || random() % 2 == 0;
            const bool binary = random() % 2 == 0;
            const size_t length = control             ? random() % 126
                                  : random() % 3 == 0 ? random() % 70000
                                                      : random() % 200;
            std::string payload(length, '\0');
            for (char& byte : payload) {
                byte = static_cast<char>(random() % 128); // a text as well
            }
            const auto opcode = static_cast<unsigned char>(control  ? WS_PING
                                                           : binary ? WS_BINARY
                                                                    : WS_TEXT);
            encoder.init(fin, opcode, length, MASK);
            iovec out[2];
            const int entries = encoder.to_iovec(out, 2, payload.data(), length);
            ASSERT_GT(entries, 0);
            ASSERT_TRUE(encoder.done());
            for (int entry = 0; entry < entries; ++entry) {
                wire.append(static_cast<const char*>(out[entry].iov_base), out[entry].iov_len);
            }
            unsigned on_wire = opcode;
            if (!control) {
                message_binary = open ? message_binary : binary;
                on_wire = open ? static_cast<unsigned>(WS_CONTINUATION) : opcode;
                open = !fin;
                last_binary = message_binary;
            }
            expected.push_back({on_wire, fin, fin, last_binary, length, payload});
        }
        Session session;
        while (!wire.empty()) {
            const size_t piece = std::min<size_t>(wire.size(), 1 + random() % 40000);
            session.feed(wire.substr(0, piece));
            wire.erase(0, piece);
        }
        ASSERT_FALSE(session.refused()) << round;
        ASSERT_EQ(expected, session.frames()) << round;
    }
}

TEST(WebSocket_Data_Frame_Parser, survives_any_bytes)
{
    std::mt19937 random(42); // the same sequence in every run
    for (int round = 0; round < 2000; ++round) {
        Session session;
        for (int i = 0; i < 8 && !session.refused(); ++i) {
            std::string bytes(1 + random() % 64, '\0');
            for (char& byte : bytes) {
                byte = static_cast<char>(random());
            }
            // Most would end at the first byte; these get further.
            bytes[0] = static_cast<char>(static_cast<unsigned char>(bytes[0]) & 0x8FU);
            session.feed(bytes);
        }
    }
}
