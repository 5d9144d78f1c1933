// RFC 6455 as a client meets it, section by section, against the plug-in that echoes. Where the
// server differs from the RFC on purpose, the test's name says what it does instead.

#include "tests/wire/host_log.h"
#include "tests/wire/websocket_messages.h"

#include <gtest/gtest.h>

#include <csignal>

namespace {

constexpr const char* PARSE_ERROR = " ERROR Failed to parse WebSocket data frame.";

/// A server that echoes; every connection to it is a new one.
class WebSocket_Conformance : public testing::Test {
protected:
    static Probe_Server::Setup echo_setup()
    {
        Probe_Server::Setup setup;
        setup.websockets = {{"/loop", "httpd_ws_echo", "_make_WS_Echo"},
                            {"/thread", "httpd_ws_echo", "_make_WS_Echo", "--thread"}};
        return setup;
    }

    void TearDown() override { EXPECT_EQ(0, server_.host().stop(SIGTERM)); }

    /// An open connection; by turns in an event loop and in a thread of its own.
    std::unique_ptr<WebSocket_Client> connect()
    {
        auto client = std::make_unique<WebSocket_Client>(server_.connect());
        EXPECT_TRUE(client->open(++connections_ % 2 == 0 ? "/loop" : "/thread"));
        return client;
    }

    /// Sends `bytes` behind a message that is echoed, and expects the end of the connection with
    /// its error line and without another frame.
    void expect_refused(const std::string& bytes)
    {
        const auto client = this->connect();
        EXPECT_TRUE(client->send(WS_TEXT, "before"));
        expect_message(*client, WS_TEXT, "before");
        client->wire().send(bytes);
        EXPECT_TRUE(client->wire().is_closed_by_peer()) << "no frame is sent for an error";
        EXPECT_TRUE(server_.host().wait_for_log_count(PARSE_ERROR, ++refusals_));
    }

    /// Sends a close frame and expects the answer to it, and the end.
    static void expect_closing_handshake(WebSocket_Client& client, const std::string& payload)
    {
        EXPECT_TRUE(client.send(WS_CLOSE, payload));
        const WebSocket_Frame frame = client.read();
        EXPECT_TRUE(frame.final);
        EXPECT_EQ(WS_CLOSE, frame.opcode);
        EXPECT_EQ(close_payload(1000), frame.payload);
        EXPECT_TRUE(client.wire().is_closed_by_peer());
    }

    Probe_Server server_{echo_setup()};
    size_t connections_ = 0;
    size_t refusals_ = 0;
};

WebSocket_Frame_Options reserved_bits(unsigned char bits, bool final = true)
{
    WebSocket_Frame_Options options;
    options.reserved = bits;
    options.final = final;
    return options;
}

/// Every way in which a text may be cut into two frames, and sent byte by byte.
std::vector<std::vector<std::string>> cuts_of(const std::string& text)
{
    std::vector<std::vector<std::string>> cuts;
    for (size_t at = 0; at <= text.size(); ++at) {
        cuts.push_back({websocket_fragment(WS_TEXT, text.substr(0, at)) +
                        websocket_frame(WS_CONTINUATION, text.substr(at))});
    }
    cuts.push_back(pieces(websocket_frame(WS_TEXT, text), 1));
    cuts.push_back(fragments(WS_TEXT, text, 1));
    return cuts;
}

} // namespace

// ---------------------------------------------------------------- framing (5.2, 5.3)

TEST_F(WebSocket_Conformance, messages_of_every_form_of_the_length_come_back)
{
    for (const WebSocket_Opcode opcode : {WS_TEXT, WS_BINARY}) {
        for (int i = 0; i < 2; ++i) {
            const auto client = this->connect();
            for (const size_t size : {0U, 1U, 2U, 124U, 125U, 126U, 127U, 128U, 65534U, 65535U,
                                      65536U, 65537U, 131072U}) {
                const std::string payload =
                    opcode == WS_TEXT ? numbered_text(size) : numbered_bytes(size);
                EXPECT_TRUE(client->send(opcode, payload));
                expect_message(*client, opcode, payload);
            }
            expect_closing_handshake(*client, close_payload(1000));
        }
    }
}

TEST_F(WebSocket_Conformance, messages_come_back_however_the_bytes_are_chopped)
{
    for (const size_t size : {1U, 2U, 125U, 126U, 1000U, 8191U, 8192U, 8193U, 65535U, 65536U}) {
        for (const size_t chop : {1U, 2U, 3U, 7U, 64U, 997U, 1460U, 4096U, 8192U, 8198U, 20000U}) {
            if (size / chop > 1000) {
                continue;
            }
            SCOPED_TRACE(testing::Message() << size << " bytes in pieces of " << chop);
            const auto client = this->connect();
            const std::string payload = numbered_bytes(size);
            for (const std::string& piece : pieces(websocket_frame(WS_BINARY, payload), chop)) {
                ASSERT_TRUE(client->wire().send(piece));
            }
            expect_message(*client, WS_BINARY, payload);
        }
    }
}

TEST_F(WebSocket_Conformance, each_frame_has_its_own_masking_key)
{
    const auto client = this->connect();
    for (const unsigned char key : std::vector<unsigned char>{0, 1, 0x7F, 0x80, 0xFF}) {
        WebSocket_Frame_Options options;
        options.key[0] = key;
        options.key[1] = static_cast<unsigned char>(255 - key);
        options.key[2] = key;
        options.key[3] = 0;
        for (const size_t size : {1U, 3U, 4U, 5U, 8U, 31U, 1000U}) {
            EXPECT_TRUE(
                client->wire().send(websocket_frame(WS_BINARY, numbered_bytes(size), options)));
            expect_message(*client, WS_BINARY, numbered_bytes(size));
        }
    }
}

TEST_F(WebSocket_Conformance, a_mask_goes_on_over_pieces_of_any_size)
{
    const auto client = this->connect();
    const std::string payload = numbered_bytes(100);
    for (size_t chop = 1; chop <= 9; ++chop) {
        const std::vector<std::string> parts =
            pieces(websocket_frame(WS_BINARY, payload).substr(6), chop);
        ASSERT_TRUE(client->wire().send(websocket_frame(WS_BINARY, payload).substr(0, 6)));
        std::vector<size_t> sizes;
        for (const std::string& part : parts) {
            sizes.push_back(part.size());
        }
        EXPECT_EQ(payload, exchange_in_steps(*client, parts, sizes).payload);
    }
}

TEST_F(WebSocket_Conformance, a_frame_without_mask_is_refused)
{
    WebSocket_Frame_Options options;
    options.masked = false;
    for (const WebSocket_Opcode opcode : {WS_TEXT, WS_BINARY, WS_CLOSE, WS_PING, WS_PONG}) {
        this->expect_refused(websocket_frame(opcode, "", options));
    }
}

TEST_F(WebSocket_Conformance, no_extension_is_agreed_on)
{
    WebSocket_Client client(server_.connect());
    ASSERT_TRUE(client.open("/loop", {"Sec-WebSocket-Extensions: permessage-deflate; "
                                      "client_max_window_bits, x-webkit-deflate-frame"}));
    EXPECT_FALSE(client.response().has("sec-websocket-extensions"));
    EXPECT_TRUE(client.send(WS_TEXT, "plain"));
    expect_message(client, WS_TEXT, "plain");
}

TEST_F(WebSocket_Conformance, reserved_bits_are_refused)
{
    for (unsigned char bits = 1; bits <= 7; ++bits) {
        SCOPED_TRACE(static_cast<int>(bits));
        this->expect_refused(websocket_frame(WS_TEXT, "x", reserved_bits(bits)));
        this->expect_refused(websocket_frame(WS_BINARY, "", reserved_bits(bits, false)));
        this->expect_refused(websocket_frame(WS_CONTINUATION, "x", reserved_bits(bits)));
        this->expect_refused(websocket_frame(WS_PING, "x", reserved_bits(bits)));
        this->expect_refused(websocket_frame(WS_CLOSE, close_payload(1000), reserved_bits(bits)));
        this->expect_refused(websocket_frame(3, "x", reserved_bits(bits)));
    }
}

TEST_F(WebSocket_Conformance, reserved_opcodes_are_skipped_even_within_a_message)
{
    for (const unsigned opcode : {3U, 7U, 11U, 15U}) {
        const auto client = this->connect();
        const std::string skipped(opcode < 8 ? 70'000U : 125U, '\xFF');
        EXPECT_TRUE(client->wire().send(websocket_fragment(WS_TEXT, "ab") +
                                        websocket_frame(opcode, skipped) +
                                        websocket_frame(WS_CONTINUATION, "cd")));
        expect_message(*client, WS_TEXT, "abcd");
        EXPECT_TRUE(client->wire().send(websocket_frame(WS_PING, "p") +
                                        websocket_frame(opcode, skipped) +
                                        websocket_frame(WS_TEXT, "next")));
        const WebSocket_Message message = read_message(*client);
        EXPECT_EQ("next", message.payload);
        EXPECT_EQ(std::vector<std::string>{"p"}, message.pongs);
    }
}

TEST_F(WebSocket_Conformance, reserved_control_opcodes_keep_the_rules_of_control_frames)
{
    for (unsigned opcode = 11; opcode <= 15; ++opcode) {
        this->expect_refused(websocket_frame(opcode, std::string(126, 'x')));
        this->expect_refused(websocket_fragment(opcode, ""));
    }
}

// ---------------------------------------------------------------- limits

TEST_F(WebSocket_Conformance, a_length_that_is_not_in_its_shortest_form_is_refused)
{
    WebSocket_Frame_Options two;
    two.length_bytes = 2;
    WebSocket_Frame_Options eight;
    eight.length_bytes = 8;
    for (const size_t size : {0U, 1U, 125U}) {
        this->expect_refused(websocket_frame(WS_BINARY, std::string(size, 'x'), two));
    }
    for (const size_t size : {0U, 125U, 126U, 65535U}) {
        this->expect_refused(
            websocket_frame(WS_BINARY, std::string(size, 'x'), eight).substr(0, 14));
    }
    this->expect_refused(websocket_frame(WS_PING, "x", two));
}

TEST_F(WebSocket_Conformance, a_length_of_64_bits_is_refused_and_one_of_63_bits_is_not)
{
    this->expect_refused(std::string("\x82\xFF\x80\0\0\0\0\0\0\0", 10) + "KEY!");
    const auto client = this->connect();
    EXPECT_TRUE(
        client->wire().send("\x82\xFF\x7F\xFF\xFF\xFF\xFF\xFF\xFF\xFF" + std::string(4, '\0')));
    for (const char* const piece : {"the first", "of very many"}) {
        EXPECT_TRUE(client->wire().send(piece));
        const WebSocket_Frame frame = client->read();
        EXPECT_EQ(piece, frame.payload);
        EXPECT_FALSE(frame.final);
    }
}

// ---------------------------------------------------------------- ping and pong (5.5.2, 5.5.3)

TEST_F(WebSocket_Conformance, pings_are_answered_with_any_payload)
{
    for (int i = 0; i < 2; ++i) {
        const auto client = this->connect();
        for (const std::string& payload :
             {std::string(), std::string("Hello"), std::string("\0\xFF\xFE\xFD\0", 5),
              std::string(124, 'x'), numbered_bytes(125)}) {
            EXPECT_TRUE(client->send(WS_PING, payload));
            const WebSocket_Frame pong = client->read();
            EXPECT_EQ(WS_PONG, pong.opcode);
            EXPECT_TRUE(pong.final);
            EXPECT_EQ(payload, pong.payload);
        }
    }
}

TEST_F(WebSocket_Conformance, pings_are_answered_in_their_order_however_they_are_chopped)
{
    std::string bytes;
    for (int i = 0; i < 10; ++i) {
        bytes += websocket_frame(WS_PING, "ping " + std::to_string(i));
    }
    for (const size_t chop : {1U, 2U, 5U, 13U, 1000U}) {
        const auto client = this->connect();
        for (const std::string& piece : pieces(bytes, chop)) {
            ASSERT_TRUE(client->wire().send(piece));
        }
        for (int i = 0; i < 10; ++i) {
            const WebSocket_Frame pong = client->read();
            EXPECT_EQ(WS_PONG, pong.opcode);
            EXPECT_EQ("ping " + std::to_string(i), pong.payload);
        }
    }
}

TEST_F(WebSocket_Conformance, a_control_frame_of_more_than_125_bytes_is_refused)
{
    for (const WebSocket_Opcode opcode : {WS_CLOSE, WS_PING, WS_PONG}) {
        this->expect_refused(websocket_frame(opcode, std::string(126, 'x')));
        this->expect_refused(websocket_frame(opcode, std::string(65536, 'x')).substr(0, 14));
    }
}

TEST_F(WebSocket_Conformance, a_fragmented_control_frame_is_refused)
{
    for (const WebSocket_Opcode opcode : {WS_CLOSE, WS_PING, WS_PONG}) {
        this->expect_refused(websocket_fragment(opcode, "x"));
    }
}

TEST_F(WebSocket_Conformance, pongs_that_answer_nothing_are_taken_silently)
{
    const auto client = this->connect();
    for (const std::string& payload : {std::string(), numbered_bytes(125)}) {
        EXPECT_TRUE(client->wire().send(websocket_frame(WS_PONG, payload) +
                                        websocket_frame(WS_PING, "mark")));
        EXPECT_EQ("mark", client->read().payload);
    }
}

// ---------------------------------------------------------------- fragmentation (5.4)

TEST_F(WebSocket_Conformance, fragments_of_every_size_make_up_one_message)
{
    const std::string payload = numbered_text(1000);
    for (const size_t size : {1U, 2U, 125U, 126U, 500U, 999U}) {
        for (const size_t chop : {11U, 100'000U}) {
            SCOPED_TRACE(testing::Message() << size << " by " << chop);
            const auto client = this->connect();
            std::string bytes;
            for (const std::string& frame : fragments(WS_TEXT, payload, size)) {
                bytes += frame;
            }
            for (const std::string& piece : pieces(bytes, chop)) {
                ASSERT_TRUE(client->wire().send(piece));
            }
            expect_message(*client, WS_TEXT, payload);
        }
    }
}

TEST_F(WebSocket_Conformance, control_frames_may_stand_between_all_fragments)
{
    const auto client = this->connect();
    for (const WebSocket_Opcode opcode : {WS_TEXT, WS_BINARY, WS_TEXT}) {
        std::string bytes;
        std::vector<std::string> pings;
        for (const std::string& frame : fragments(opcode, numbered_text(20'000), 2000)) {
            pings.push_back("ping " + std::to_string(pings.size()));
            bytes += websocket_frame(WS_PING, pings.back()) + frame +
                     websocket_frame(WS_PONG, "answers nothing");
        }
        for (const std::string& piece : pieces(bytes, 3001)) {
            ASSERT_TRUE(client->wire().send(piece));
        }
        const WebSocket_Message message = read_message(*client);
        EXPECT_TRUE(message.complete);
        EXPECT_EQ(opcode, message.opcode);
        EXPECT_EQ(numbered_text(20'000), message.payload);
        EXPECT_EQ(pings, message.pongs);
    }
    expect_closing_handshake(*client, "");
}

TEST_F(WebSocket_Conformance, a_new_message_within_another_is_refused)
{
    for (const WebSocket_Opcode first : {WS_TEXT, WS_BINARY}) {
        for (const WebSocket_Opcode second : {WS_TEXT, WS_BINARY}) {
            const auto client = this->connect();
            EXPECT_TRUE(client->wire().send(websocket_fragment(first, "first")));
            EXPECT_EQ("first", client->read().payload);
            EXPECT_TRUE(client->wire().send(websocket_frame(second, "second")));
            EXPECT_TRUE(client->wire().is_closed_by_peer());
            EXPECT_TRUE(server_.host().wait_for_log_count(PARSE_ERROR, ++refusals_));
        }
    }
}

TEST_F(WebSocket_Conformance, a_continuation_of_nothing_is_skipped_before_any_message)
{
    const auto client = this->connect();
    EXPECT_TRUE(client->wire().send(websocket_frame(WS_CONTINUATION, numbered_bytes(9000)) +
                                    websocket_fragment(WS_CONTINUATION, "") +
                                    websocket_frame(WS_TEXT, "the first")));
    expect_message(*client, WS_TEXT, "the first");
}

// ---------------------------------------------------------------- text (8.1)

TEST_F(WebSocket_Conformance, characters_may_be_cut_anywhere)
{
    // The first and the last of every length, the neighbours of the surrogates, non-characters.
    const std::string text = "\x01\x7F\xC2\x80\xDF\xBF\xE0\xA0\x80\xED\x9F\xBF\xEE\x80\x80"
                             "\xEF\xBF\xBD\xEF\xBF\xBE\xEF\xBF\xBF\xF0\x90\x80\x80\xF0\x9F\xBF\xBE"
                             "\xF4\x8F\xBF\xBF\xCE\xBA\xE1\xBD\xB9\xCF\x83\xCE\xBC\xCE\xB5" +
                             std::string(1, '\0');
    const auto client = this->connect();
    for (const std::vector<std::string>& parts : cuts_of(text)) {
        for (const std::string& part : parts) {
            ASSERT_TRUE(client->wire().send(part));
        }
        expect_message(*client, WS_TEXT, text);
    }
}

TEST_F(WebSocket_Conformance, malformed_text_is_refused_at_once_and_not_at_its_end)
{
    const std::string cases[] = {
        "\x80",             // a continuation byte alone
        "\xBF",             //
        "\xC0",             // never the first byte of anything
        "\xC1",             //
        "\xC2\x41",         // the second byte is missing
        "\xE0\x9F",         // longer than it needs to be
        "\xE0\x80",         //
        "\xE1\x80\xC0",     //
        "\xED\xA0",         // a surrogate
        "\xED\xBF",         //
        "\xEF\xBF\x7F",     //
        "\xF0\x8F",         // longer than it needs to be
        "\xF0\x90\x80\xC0", //
        "\xF4\x90",         // above U+10FFFF
        "\xF5",             //
        "\xF8",             //
        "\xFC",             //
        "\xFE",             //
        "\xFF",             //
    };
    for (const std::string& bad : cases) {
        SCOPED_TRACE(testing::PrintToString(bad));
        // The frame is not complete, and neither is the message.
        const std::string frame = websocket_fragment(WS_TEXT, bad + std::string(1000, 'x'));
        this->expect_refused(frame.substr(0, 8 + bad.size()));
        // The same in a continuation, the character cut between the frames.
        const auto client = this->connect();
        EXPECT_TRUE(client->wire().send(
            websocket_fragment(WS_TEXT, "good " + bad.substr(0, bad.size() - 1))));
        EXPECT_EQ("good " + bad.substr(0, bad.size() - 1), client->read().payload);
        EXPECT_TRUE(
            client->wire().send(websocket_fragment(WS_CONTINUATION, bad.substr(bad.size() - 1))));
        EXPECT_TRUE(client->wire().is_closed_by_peer());
        EXPECT_TRUE(server_.host().wait_for_log_count(PARSE_ERROR, ++refusals_));
    }
}

TEST_F(WebSocket_Conformance, text_that_ends_within_a_character_is_refused_at_its_end)
{
    for (const std::string cut : {"\xC2", "\xE1\x80", "\xED\x9F", "\xF0\x90\x80", "\xF4"}) {
        this->expect_refused(websocket_frame(WS_TEXT, cut));
        const auto client = this->connect();
        EXPECT_TRUE(client->wire().send(websocket_fragment(WS_TEXT, cut)));
        EXPECT_EQ(cut, client->read().payload) << "it may still be completed";
        EXPECT_TRUE(client->wire().send(websocket_frame(WS_CONTINUATION, "")));
        EXPECT_TRUE(client->wire().is_closed_by_peer());
        EXPECT_TRUE(server_.host().wait_for_log_count(PARSE_ERROR, ++refusals_));
    }
}

TEST_F(WebSocket_Conformance, binary_messages_need_not_be_text)
{
    const auto client = this->connect();
    EXPECT_TRUE(client->wire().send(websocket_fragment(WS_BINARY, "\xFF\xFE") +
                                    websocket_frame(WS_CONTINUATION, "\xC2")));
    expect_message(*client, WS_BINARY, "\xFF\xFE\xC2");
}

// ---------------------------------------------------------------- close (5.5.1, 7)

TEST_F(WebSocket_Conformance, a_close_of_every_length_is_answered_with_1000)
{
    for (const std::string& payload :
         {std::string(), std::string("\x03"), close_payload(1000), close_payload(1000, "r"),
          close_payload(1000, std::string(123, 'r')), close_payload(1000, "not text \xFF")}) {
        for (int i = 0; i < 2; ++i) {
            const auto client = this->connect();
            expect_closing_handshake(*client, payload);
        }
    }
}

TEST_F(WebSocket_Conformance, a_close_with_any_code_is_answered_with_1000)
{
    for (const unsigned code :
         {0U,    1U,    999U,  1000U, 1001U, 1002U, 1003U, 1004U, 1005U, 1006U,
          1007U, 1008U, 1009U, 1010U, 1011U, 1012U, 1013U, 1014U, 1015U, 1016U,
          1100U, 2000U, 2999U, 3000U, 3999U, 4000U, 4999U, 5000U, 65535U}) {
        SCOPED_TRACE(code);
        const auto client = this->connect();
        expect_closing_handshake(*client, close_payload(code));
    }
}

TEST_F(WebSocket_Conformance, a_close_that_comes_byte_by_byte_is_answered)
{
    for (int i = 0; i < 2; ++i) {
        const auto client = this->connect();
        const std::string bytes = websocket_frame(WS_CLOSE, close_payload(1001, "bye"));
        // The first byte of its payload is the last one that the server waits for.
        for (const std::string& piece : pieces(bytes.substr(0, 7), 1)) {
            ASSERT_TRUE(client->wire().send(piece));
        }
        EXPECT_EQ(1000U, client->read().close_status());
        EXPECT_TRUE(client->wire().is_closed_by_peer());
    }
}

TEST_F(WebSocket_Conformance, a_close_within_a_message_ends_it)
{
    const auto client = this->connect();
    EXPECT_TRUE(client->wire().send(websocket_fragment(WS_TEXT, "begun") +
                                    websocket_frame(WS_CLOSE, close_payload(1001)) +
                                    websocket_frame(WS_CONTINUATION, "ignored")));
    EXPECT_EQ("begun", client->read().payload);
    EXPECT_EQ(1000U, client->read().close_status());
    EXPECT_EQ("", client->wire().read_to_end());
}

TEST_F(WebSocket_Conformance, pings_behind_a_close_are_not_answered)
{
    const auto client = this->connect();
    EXPECT_TRUE(client->wire().send(websocket_frame(WS_PING, "before") +
                                    websocket_frame(WS_CLOSE, close_payload(1000)) +
                                    websocket_frame(WS_PING, "behind")));
    EXPECT_EQ("before", client->read().payload);
    EXPECT_EQ(1000U, client->read().close_status());
    EXPECT_EQ("", client->wire().read_to_end());
}

TEST_F(WebSocket_Conformance, the_server_closes_first_and_the_client_needs_not)
{
    // Its side stays open; the server does not wait for it.
    const auto client = this->connect();
    expect_closing_handshake(*client, close_payload(1000));
    EXPECT_TRUE(server_.host().wait_for_log(" closed."));
}
