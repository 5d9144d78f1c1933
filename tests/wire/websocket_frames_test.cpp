#include "tests/support/probe_server.h"
#include "tests/support/websocket_client.h"
#include "tests/wire/host_log.h"

#include <gtest/gtest.h>

#include <csignal>
#include <string>
#include <vector>

namespace {

Probe_Server::Setup websocket_setup()
{
    Probe_Server::Setup setup;
    setup.websockets = {{"/ws", "websocket_probe_plugin", "_make_WS_Probe"}};
    return setup;
}

/// A server and one open connection to the plug-in, in the mode that the path asks for.
class Conversation {
public:
    explicit Conversation(const std::string& target,
                          const Probe_Server::Setup& setup = websocket_setup())
        : server_(setup), client_(server_.connect())
    {
        EXPECT_TRUE(client_.open(target));
    }

    Probe_Server& server() { return server_; }
    WebSocket_Client& client() { return client_; }

    bool send(unsigned opcode, const std::string& payload) { return client_.send(opcode, payload); }
    bool send_raw(const std::string& bytes) { return client_.wire().send(bytes); }
    WebSocket_Frame read() { return client_.read(); }
    bool is_closed() { return client_.wire().is_closed_by_peer(); }

    /// Waits for the end of the plug-in's object.
    bool is_over() { return server_.host().wait_for_log("INFO ws: destroyed"); }

    /// The plug-in's calls behind handle_handshaked, each without its "ws: ".
    std::vector<std::string> calls()
    {
        flush_log(server_);
        std::vector<std::string> texts;
        bool begun = false;
        for (const std::string& line : server_.host().log()) {
            const size_t at = line.find(" INFO ws: ");
            if (at != std::string::npos && begun) {
                texts.push_back(line.substr(at + 10));
            }
            begun = begun || line.find("ws: handle_handshaked") != std::string::npos;
        }
        return texts;
    }

    bool logs(const std::string& priority, const std::string& text)
    {
        return has_line(server_.host(), priority, text);
    }

    /// Completes the closing handshake and waits for the end.
    void close()
    {
        this->send(WS_CLOSE, close_payload(1000));
        EXPECT_EQ(WS_CLOSE, this->read().opcode);
        EXPECT_TRUE(this->is_closed());
        EXPECT_TRUE(this->is_over());
    }

private:
    Probe_Server server_;
    WebSocket_Client client_;
};

using Texts = std::vector<std::string>;

/// A complete, unmasked frame without reserved bits.
void expect_frame(const WebSocket_Frame& frame, unsigned opcode, const std::string& payload,
                  bool final = true)
{
    EXPECT_TRUE(frame.complete);
    EXPECT_EQ(opcode, frame.opcode);
    EXPECT_EQ(final, frame.final);
    EXPECT_EQ(payload, frame.payload);
    EXPECT_FALSE(frame.masked);
    EXPECT_EQ(0U, frame.reserved);
}

/// Both threads that a connection may live in.
const char* const BOTH[] = {"/ws/", "/ws/thread/"};

} // namespace

// ---------------------------------------------------------------- data

TEST(WebSocket_Frames, delivers_text_and_binary_messages)
{
    for (const std::string prefix : BOTH) {
        Conversation it(prefix + "echo");
        it.send(WS_TEXT, "Hello");
        expect_frame(it.read(), WS_TEXT, "Hello");
        it.send(WS_BINARY, std::string("\x00\xFF\x80", 3));
        expect_frame(it.read(), WS_BINARY, std::string("\x00\xFF\x80", 3));
        it.close();
        EXPECT_EQ((Texts{"data 5 last=1 binary=0", "data 3 last=1 binary=1", "handle_close 1000  0",
                         "destroyed"}),
                  it.calls());
    }
}

TEST(WebSocket_Frames, delivers_many_frames_of_one_read_in_order)
{
    Conversation it("/ws/echo");
    std::string bytes;
    for (int i = 0; i < 100; ++i) {
        bytes += websocket_frame(WS_TEXT, std::to_string(i));
    }
    it.send_raw(bytes);
    for (int i = 0; i < 100; ++i) {
        expect_frame(it.read(), WS_TEXT, std::to_string(i));
    }
}

TEST(WebSocket_Frames, delivers_a_frame_cut_anywhere)
{
    const std::string bytes =
        websocket_frame(WS_TEXT, std::string(130, 'x')) + websocket_frame(WS_PING, "p");
    Conversation it("/ws/ignore");
    for (size_t cut = 1; cut < bytes.size(); ++cut) {
        it.send_raw(bytes.substr(0, cut));
        it.send_raw(bytes.substr(cut));
        expect_frame(it.read(), WS_PONG, "p");
    }
    for (const char byte : bytes) {
        it.send_raw(std::string(1, byte));
    }
    // The byte of the ping's payload is the last one, so the pong has it whole.
    expect_frame(it.read(), WS_PONG, "p");
}

TEST(WebSocket_Frames, delivers_a_large_message_in_pieces)
{
    for (const std::string prefix : BOTH) {
        Conversation it(prefix + "echo");
        std::string payload(200000, '\0');
        for (size_t i = 0; i < payload.size(); ++i) {
            payload[i] = static_cast<char>(i * 7 + i / 251);
        }
        it.send(WS_BINARY, payload);
        std::string echoed;
        bool final = false;
        for (bool first = true; !final; first = false) {
            const WebSocket_Frame frame = it.read();
            ASSERT_TRUE(frame.complete);
            // The echo sends each piece as a frame: one message again.
            EXPECT_EQ(first ? WS_BINARY : WS_CONTINUATION, frame.opcode);
            echoed += frame.payload;
            final = frame.final;
        }
        EXPECT_EQ(payload, echoed);
    }
}

TEST(WebSocket_Frames, tells_the_end_and_the_type_of_a_fragmented_message)
{
    Conversation it("/ws/echo");
    it.send_raw(websocket_fragment(WS_BINARY, "ab") + websocket_fragment(WS_CONTINUATION, "cd") +
                websocket_frame(WS_CONTINUATION, "ef") + websocket_fragment(WS_TEXT, "gh") +
                websocket_frame(WS_CONTINUATION, ""));
    expect_frame(it.read(), WS_BINARY, "ab", false);
    expect_frame(it.read(), WS_CONTINUATION, "cd", false);
    expect_frame(it.read(), WS_CONTINUATION, "ef");
    expect_frame(it.read(), WS_TEXT, "gh", false);
    expect_frame(it.read(), WS_CONTINUATION, "");
    it.close();
    EXPECT_EQ((Texts{"data 2 last=0 binary=1", "data 2 last=0 binary=1", "data 2 last=1 binary=1",
                     "data 2 last=0 binary=0", "data 0 last=1 binary=0", "handle_close 1000  0",
                     "destroyed"}),
              it.calls());
}

TEST(WebSocket_Frames, an_empty_piece_is_told_only_when_it_ends_the_message)
{
    Conversation it("/ws/echo");
    it.send_raw(websocket_fragment(WS_TEXT, "") + websocket_fragment(WS_CONTINUATION, "") +
                websocket_frame(WS_CONTINUATION, "") + websocket_frame(WS_BINARY, ""));
    expect_frame(it.read(), WS_TEXT, "");
    expect_frame(it.read(), WS_BINARY, "");
    it.close();
    EXPECT_EQ((Texts{"data 0 last=1 binary=0", "data 0 last=1 binary=1", "handle_close 1000  0",
                     "destroyed"}),
              it.calls());
}

TEST(WebSocket_Frames, skips_reserved_opcodes)
{
    Conversation it("/ws/echo");
    std::string bytes;
    for (const unsigned opcode : {3U, 4U, 5U, 6U, 7U, 11U, 12U, 13U, 14U, 15U}) {
        bytes += websocket_frame(opcode, "skipped") + websocket_frame(opcode, "");
    }
    it.send_raw(bytes + websocket_frame(WS_TEXT, "text"));
    expect_frame(it.read(), WS_TEXT, "text");
    EXPECT_EQ(Texts{"data 4 last=1 binary=0"}, it.calls());
}

TEST(WebSocket_Frames, skips_a_continuation_before_any_message)
{
    Conversation it("/ws/echo");
    it.send_raw(websocket_frame(WS_CONTINUATION, "skipped") + websocket_frame(WS_TEXT, "text"));
    expect_frame(it.read(), WS_TEXT, "text");
    EXPECT_EQ(Texts{"data 4 last=1 binary=0"}, it.calls());
}

TEST(WebSocket_Frames, a_continuation_after_a_whole_message_is_delivered)
{
    Conversation it("/ws/echo");
    it.send_raw(websocket_frame(WS_BINARY, "whole") + websocket_frame(WS_CONTINUATION, "more"));
    expect_frame(it.read(), WS_BINARY, "whole");
    expect_frame(it.read(), WS_BINARY, "more");
}

TEST(WebSocket_Frames, a_failing_plug_in_closes_the_connection)
{
    for (const std::string prefix : BOTH) {
        Conversation it(prefix + "data-fails");
        it.send_raw(websocket_frame(WS_TEXT, "x") + websocket_frame(WS_TEXT, "not delivered"));
        EXPECT_TRUE(it.is_closed());
        ASSERT_TRUE(it.is_over());
        EXPECT_EQ((Texts{"data 1 last=1 binary=0", "handle_close 1006 (null) 0", "destroyed"}),
                  it.calls());
    }
}

TEST(WebSocket_Frames, whatever_else_a_plug_in_returns_goes_on)
{
    for (const std::string prefix : BOTH) {
        Conversation it(prefix + "returns");
        for (const char* const result : {"0", "1", "2"}) {
            // The first frame ends its read; the second one has another behind it.
            it.send_raw(websocket_frame(WS_TEXT, result));
            it.send_raw(websocket_frame(WS_TEXT, result) + websocket_frame(WS_PING, result));
            expect_frame(it.read(), WS_PONG, result);
        }
        it.close();
    }
}

// ---------------------------------------------------------------- refused frames

TEST(WebSocket_Frames, closes_after_a_malformed_frame)
{
    WebSocket_Frame_Options reserved_bit;
    reserved_bit.reserved = 4;
    WebSocket_Frame_Options unmasked;
    unmasked.masked = false;
    WebSocket_Frame_Options long_form;
    long_form.length_bytes = 2;
    const std::string cases[] = {
        websocket_frame(WS_TEXT, "x", reserved_bit),
        websocket_frame(WS_TEXT, "x", unmasked),
        websocket_frame(WS_TEXT, "x", long_form),
        websocket_frame(WS_PING, std::string(126, 'x')),
        websocket_fragment(WS_CLOSE, ""),
        websocket_fragment(WS_TEXT, "") + websocket_frame(WS_TEXT, ""),
        websocket_frame(WS_TEXT, "\xFF"),
        websocket_frame(WS_TEXT, "\xE2\x82"),
    };
    Probe_Server server(websocket_setup());
    size_t number = 0;
    for (const std::string& bytes : cases) {
        WebSocket_Client client(server.connect());
        ASSERT_TRUE(client.open(++number % 2 == 0 ? "/ws/ignore" : "/ws/thread/ignore"));
        client.wire().send(bytes);
        EXPECT_TRUE(client.wire().is_closed_by_peer()) << number << ": no frame is sent for it";
        EXPECT_TRUE(server.host().wait_for_log_count(" ERROR Failed to parse WebSocket data frame.",
                                                     number));
        EXPECT_TRUE(server.host().wait_for_log_count("ws: handle_close 1006 (null) 0", number));
        EXPECT_TRUE(server.host().wait_for_log_count("ws: destroyed", number));
    }
    EXPECT_EQ(number, count_log(server, "ws: handle_close"));
}

TEST(WebSocket_Frames, handles_what_came_before_a_malformed_frame)
{
    Conversation it("/ws/echo");
    it.send_raw(websocket_frame(WS_TEXT, "good") + "\xFF" + websocket_frame(WS_TEXT, "lost"));
    expect_frame(it.read(), WS_TEXT, "good");
    it.client().wire().read_to_end();
    EXPECT_TRUE(it.logs("ERROR", "Failed to parse WebSocket data frame."));
    ASSERT_TRUE(it.is_over());
    EXPECT_EQ((Texts{"data 4 last=1 binary=0", "handle_close 1006 (null) 0", "destroyed"}),
              it.calls());
}

// ---------------------------------------------------------------- ping

TEST(WebSocket_Frames, answers_a_ping_with_its_payload_and_tells_the_plug_in)
{
    for (const std::string prefix : BOTH) {
        Conversation it(prefix + "echo");
        it.send(WS_PING, "abc");
        expect_frame(it.read(), WS_PONG, "abc");
        it.send(WS_PING, "");
        expect_frame(it.read(), WS_PONG, "");
        it.send(WS_PING, std::string(125, 'x'));
        expect_frame(it.read(), WS_PONG, std::string(125, 'x'));
        it.close();
        EXPECT_EQ((Texts{"handle_ping", "handle_ping", "handle_ping", "handle_close 1000  0",
                         "destroyed"}),
                  it.calls());
    }
}

TEST(WebSocket_Frames, echoes_a_ping_that_comes_in_pieces_under_one_header)
{
    Conversation it("/ws/ignore");
    const std::string ping = websocket_frame(WS_PING, "abcdefgh");
    it.send_raw(ping.substr(0, 8));
    EXPECT_EQ(std::string("\x8A\x08"
                          "ab"),
              it.client().wire().read_exactly(4));
    it.send_raw(ping.substr(8, 3));
    EXPECT_EQ("cde", it.client().wire().read_exactly(3));
    it.send_raw(ping.substr(11));
    EXPECT_EQ("fgh", it.client().wire().read_exactly(3));
    it.close();
    EXPECT_EQ((Texts{"handle_ping", "handle_close 1000  0", "destroyed"}), it.calls());
}

TEST(WebSocket_Frames, a_ping_before_the_continuations_leaves_the_type_of_the_message)
{
    // A text frame in between puts the state back.
    Conversation it("/ws/echo");
    it.send_raw(websocket_frame(WS_PING, "p") + websocket_fragment(WS_TEXT, "ab") +
                websocket_frame(WS_CONTINUATION, "cd"));
    expect_frame(it.read(), WS_PONG, "p");
    expect_frame(it.read(), WS_TEXT, "ab", false);
    expect_frame(it.read(), WS_CONTINUATION, "cd");
}

TEST(WebSocket_Frames, continuation_after_a_ping_belongs_to_the_pong)
{
    for (const std::string prefix : BOTH) {
        Conversation it(prefix + "echo");
        it.send_raw(websocket_fragment(WS_TEXT, "ab") + websocket_frame(WS_PING, "p") +
                    websocket_fragment(WS_CONTINUATION, "cd") +
                    websocket_frame(WS_CONTINUATION, "ef"));
        expect_frame(it.read(), WS_TEXT, "ab", false);
        expect_frame(it.read(), WS_PONG, "p");
        expect_frame(it.read(), WS_CONTINUATION, "cd", false);
        expect_frame(it.read(), WS_CONTINUATION, "ef");
        it.close();
        EXPECT_EQ((Texts{"data 2 last=0 binary=0", "handle_ping", "handle_ping", "handle_ping",
                         "handle_close 1000  0", "destroyed"}),
                  it.calls());
    }
}

TEST(WebSocket_Frames, a_plug_in_that_fails_in_handle_ping_closes)
{
    Conversation it("/ws/ping-fails");
    it.send_raw(websocket_frame(WS_PING, "abc") + websocket_frame(WS_TEXT, "lost"));
    expect_frame(it.read(), WS_PONG, "abc");
    it.client().wire().read_to_end();
    ASSERT_TRUE(it.is_over());
    EXPECT_EQ((Texts{"handle_ping", "handle_close 1006 (null) 0", "destroyed"}), it.calls());
}

TEST(WebSocket_Frames, a_pong_that_nobody_waits_for_is_skipped)
{
    for (const std::string prefix : BOTH) {
        Conversation it(prefix + "echo");
        it.send_raw(websocket_frame(WS_PONG, "whatever") + websocket_frame(WS_TEXT, "text"));
        expect_frame(it.read(), WS_TEXT, "text");
        EXPECT_EQ(Texts{"data 4 last=1 binary=0"}, it.calls());
    }
}

TEST(WebSocket_Frames, a_pong_does_not_end_the_message_around_it)
{
    Conversation it("/ws/echo");
    it.send_raw(websocket_fragment(WS_TEXT, "ab") + websocket_frame(WS_PONG, "p") +
                websocket_frame(WS_CONTINUATION, "cd"));
    expect_frame(it.read(), WS_TEXT, "ab", false);
    expect_frame(it.read(), WS_CONTINUATION, "cd");
}

// ---------------------------------------------------------------- close

TEST(WebSocket_Frames, answers_every_close_with_1000)
{
    const struct {
        std::string payload;
        const char* told;
    } cases[] = {
        {"", "handle_close 1005 (null) 0"},
        {"\x03", "handle_close 1005 (null) 0"},
        {close_payload(1000), "handle_close 1000  0"},
        {close_payload(1001, "bye"), "handle_close 1001 bye 3"},
        {close_payload(1002), "handle_close 1002  0"},
        {close_payload(1006), "handle_close 1006  0"},
        {close_payload(4999, "own"), "handle_close 4999 own 3"},
        {close_payload(0), "handle_close 0  0"},
        {close_payload(65535), "handle_close 65535  0"},
    };
    for (const auto& entry : cases) {
        for (const std::string prefix : BOTH) {
            Conversation it(prefix + "echo");
            it.send(WS_CLOSE, entry.payload);
            expect_frame(it.read(), WS_CLOSE, close_payload(1000));
            EXPECT_TRUE(it.is_closed()) << entry.told;
            ASSERT_TRUE(it.is_over());
            EXPECT_EQ((Texts{entry.told, "destroyed"}), it.calls());
        }
    }
}

TEST(WebSocket_Frames, nothing_is_read_behind_a_close)
{
    Conversation it("/ws/echo");
    it.send_raw(websocket_frame(WS_TEXT, "before") +
                websocket_frame(WS_CLOSE, close_payload(1000)) +
                websocket_frame(WS_TEXT, "behind"));
    expect_frame(it.read(), WS_TEXT, "before");
    expect_frame(it.read(), WS_CLOSE, close_payload(1000));
    it.client().wire().read_to_end();
    ASSERT_TRUE(it.is_over());
    EXPECT_EQ((Texts{"data 6 last=1 binary=0", "handle_close 1000  0", "destroyed"}), it.calls());
}

TEST(WebSocket_Frames, what_handle_close_returns_does_not_matter)
{
    Conversation it("/ws/close-fails");
    it.send(WS_CLOSE, close_payload(1001));
    expect_frame(it.read(), WS_CLOSE, close_payload(1000));
    EXPECT_TRUE(it.is_closed());
    ASSERT_TRUE(it.is_over());
    EXPECT_EQ((Texts{"handle_close 1001  0", "destroyed"}), it.calls());
}

TEST(WebSocket_Frames, a_plug_in_may_answer_the_close_itself)
{
    Conversation it("/ws/close-in-close");
    it.send(WS_CLOSE, close_payload(1001));
    expect_frame(it.read(), WS_CLOSE, close_payload(1008));
    EXPECT_TRUE(it.is_closed()) << "one close frame only";
    ASSERT_TRUE(it.is_over());
    EXPECT_EQ((Texts{"handle_close 1001  0", "send_close_frame 0", "destroyed"}), it.calls());
}

TEST(WebSocket_Frames, a_connection_without_a_close_frame_ends_abnormally)
{
    for (const std::string prefix : BOTH) {
        Conversation it(prefix + "echo");
        it.send_raw(websocket_frame(WS_TEXT, "x") + websocket_frame(WS_TEXT, "cut").substr(0, 7));
        expect_frame(it.read(), WS_TEXT, "x");
        expect_frame(it.read(), WS_TEXT, "c", false);
        it.client().wire().half_close();
        EXPECT_TRUE(it.is_closed());
        ASSERT_TRUE(it.is_over());
        EXPECT_EQ((Texts{"data 1 last=1 binary=0", "data 1 last=0 binary=0",
                         "handle_close 1006 (null) 0", "destroyed"}),
                  it.calls());
    }
}

TEST(WebSocket_Frames, sends_the_close_frame_once)
{
    for (const std::string prefix : BOTH) {
        Conversation it(prefix + "send-close");
        it.send(WS_TEXT, "x");
        expect_frame(it.read(), WS_CLOSE, close_payload(1001, "bye"));
        it.send(WS_CLOSE, close_payload(1001, "bye"));
        EXPECT_TRUE(it.is_closed()) << "the peer's answer is not answered";
        ASSERT_TRUE(it.is_over());
        EXPECT_EQ((Texts{"data 1 last=1 binary=0", "send_close_frame 7", "send_close_frame 0",
                         "handle_close 1001 bye 3", "destroyed"}),
                  it.calls());
    }
}

TEST(WebSocket_Frames, sends_the_close_frame_once_though_frames_come_behind_it)
{
    for (const std::string prefix : BOTH) {
        Conversation it(prefix + "send-close");
        it.send_raw(websocket_frame(WS_TEXT, "x") + websocket_frame(WS_TEXT, "on its way") +
                    websocket_frame(WS_PING, "p") +
                    websocket_frame(WS_CLOSE, close_payload(1001, "bye")));
        expect_frame(it.read(), WS_CLOSE, close_payload(1001, "bye"));
        expect_frame(it.read(), WS_PONG, "p");
        EXPECT_TRUE(it.is_closed());
        ASSERT_TRUE(it.is_over());
        EXPECT_EQ((Texts{"data 1 last=1 binary=0", "send_close_frame 7", "send_close_frame 0",
                         "data 10 last=1 binary=0", "send_close_frame 0", "send_close_frame 0",
                         "handle_ping", "handle_close 1001 bye 3", "destroyed"}),
                  it.calls());
    }
}

TEST(WebSocket_Frames, a_continuation_behind_our_close_frame_closes)
{
    Conversation it("/ws/send-bare-close");
    it.send_raw(websocket_fragment(WS_TEXT, "x") + websocket_frame(WS_CONTINUATION, "y"));
    expect_frame(it.read(), WS_CLOSE, close_payload(1001));
    it.client().wire().read_to_end();
    ASSERT_TRUE(it.is_over());
    EXPECT_EQ((Texts{"data 1 last=0 binary=0", "send_close_frame 0", "send_close_frame 0",
                     "handle_close 1006 (null) 0", "destroyed"}),
              it.calls());
}

TEST(WebSocket_Frames, a_close_frame_needs_both_reason_and_length)
{
    for (const char* const mode : {"no length", "no reason"}) {
        Conversation it("/ws/send-half-close");
        it.send(WS_TEXT, mode);
        expect_frame(it.read(), WS_CLOSE, close_payload(1000));
        it.send(WS_CLOSE, "");
        EXPECT_TRUE(it.is_closed());
    }
}

// ---------------------------------------------------------------- sending

TEST(WebSocket_Frames, sends_each_form_of_the_length_and_counts_the_header)
{
    Conversation it("/ws/sizes");
    it.send(WS_TEXT, "x");
    for (const size_t size : {0U, 125U, 126U, 65535U, 65536U}) {
        expect_frame(it.read(), WS_TEXT, std::string(size, 'x'));
    }
    it.close();
    EXPECT_EQ((Texts{"data 1 last=1 binary=0", "send_frame 2", "send_frame 127", "send_frame 130",
                     "send_frame 65539", "send_frame 65546", "handle_close 1000  0", "destroyed"}),
              it.calls());
}

TEST(WebSocket_Frames, sends_a_gathered_frame)
{
    for (const std::string prefix : BOTH) {
        Conversation it(prefix + "vector");
        it.send(WS_TEXT, "x");
        expect_frame(it.read(), WS_TEXT, "Hello, World!");
        EXPECT_TRUE(it.logs("INFO", "ws: sendv_frame 15"));
    }
}

TEST(WebSocket_Frames, sends_a_gathered_frame_of_one_entry_and_of_none)
{
    Conversation one("/ws/vector-of-one");
    one.send(WS_TEXT, "Hello");
    expect_frame(one.read(), WS_TEXT, "Hello");
    EXPECT_TRUE(one.logs("INFO", "ws: sendv_frame 7"));
    Conversation none("/ws/vector-of-none");
    none.send(WS_TEXT, "x");
    expect_frame(none.read(), WS_TEXT, "");
    EXPECT_TRUE(none.logs("INFO", "ws: sendv_frame 2"));
}

TEST(WebSocket_Frames, sends_a_gathered_frame_of_many_entries)
{
    Conversation it("/ws/vector-of-many");
    it.send(WS_TEXT, "x");
    std::string expected;
    for (int i = 0; i < 300; ++i) {
        expected += "0123456789";
    }
    expect_frame(it.read(), WS_TEXT, expected);
    EXPECT_TRUE(it.logs("INFO", "ws: sendv_frame 3004"));
}

TEST(WebSocket_Frames, sends_a_fragmented_message_with_a_ping_in_it)
{
    Conversation it("/ws/fragments");
    it.send(WS_TEXT, "x");
    expect_frame(it.read(), WS_TEXT, "Hel", false);
    expect_frame(it.read(), WS_PING, "");
    expect_frame(it.read(), WS_CONTINUATION, "lo, ", false);
    expect_frame(it.read(), WS_CONTINUATION, "World!");
    expect_frame(it.read(), WS_TEXT, "next");
}

TEST(WebSocket_Frames, refuses_to_send_a_length_without_data)
{
    Conversation it("/ws/null-data");
    it.send(WS_TEXT, "x");
    expect_frame(it.read(), WS_TEXT, "whole");
    EXPECT_TRUE(it.server().host().wait_for_log_count(
        " ERROR Failed to serialize WebSocket to I/O vector.", 2));
    EXPECT_TRUE(it.logs("INFO", "ws: send_frame -1"));
    EXPECT_TRUE(it.logs("INFO", "ws: sendv_frame -1"));
}

TEST(WebSocket_Frames, a_failed_write_is_logged_and_told)
{
    Conversation it("/ws/send-after-shutdown");
    it.send(WS_TEXT, "x");
    EXPECT_TRUE(it.is_closed());
    ASSERT_TRUE(it.is_over());
    EXPECT_EQ((Texts{"data 1 last=1 binary=0", "send_frame -1", "send_close_frame -1",
                     "send_ping -1", "handle_close 1006 (null) 0", "destroyed"}),
              it.calls());
    EXPECT_EQ(3U, count_log(it.server(), " ERROR Failed to send WebSocket data frame to " +
                                             peer_text(it.client().wire()) + ": "));
}

// ---------------------------------------------------------------- shutdown

TEST(WebSocket_Frames, shutdown_in_a_callback_ends_in_one_handle_close)
{
    for (const std::string prefix : BOTH) {
        Conversation it(prefix + "shutdown");
        it.send_raw(websocket_frame(WS_TEXT, "x") + websocket_frame(WS_TEXT, "not delivered") +
                    websocket_frame(WS_CLOSE, close_payload(1000)));
        it.client().wire().read_to_end();
        ASSERT_TRUE(it.is_over());
        EXPECT_EQ((Texts{"data 1 last=1 binary=0", "handle_close 1006 (null) 0", "destroyed"}),
                  it.calls());
        EXPECT_EQ(0U, count_log(it.server(), " ERROR "));
    }
}

TEST(WebSocket_Frames, shutdown_in_handle_ping_ends_in_one_handle_close)
{
    for (const std::string prefix : BOTH) {
        Conversation it(prefix + "shutdown-ping");
        it.send(WS_PING, "p");
        expect_frame(it.read(), WS_PONG, "p");
        EXPECT_TRUE(it.is_closed());
        ASSERT_TRUE(it.is_over());
        EXPECT_EQ((Texts{"handle_ping", "handle_close 1006 (null) 0", "destroyed"}), it.calls());
    }
}

TEST(WebSocket_Frames, shutdown_in_handle_close_ends_without_another)
{
    for (const std::string prefix : BOTH) {
        Conversation it(prefix + "shutdown-close");
        it.send(WS_CLOSE, close_payload(1000));
        EXPECT_TRUE(it.is_closed());
        ASSERT_TRUE(it.is_over());
        EXPECT_EQ((Texts{"handle_close 1000  0", "destroyed"}), it.calls());

        Conversation dropped(prefix + "shutdown-close");
        dropped.client().wire().half_close();
        EXPECT_TRUE(dropped.is_closed());
        ASSERT_TRUE(dropped.is_over());
        EXPECT_EQ((Texts{"handle_close 1006 (null) 0", "destroyed"}), dropped.calls());
    }
}

// ---------------------------------------------------------------- log

TEST(WebSocket_Frames, tells_the_end_of_a_connection_when_debugging)
{
    Probe_Server::Setup setup = websocket_setup();
    setup.log_level = "trace";
    Conversation it("/ws/echo", setup);
    const std::string peer = peer_text(it.client().wire());
    it.close();
    EXPECT_TRUE(it.logs("DEBUG", "WebSocket connection " + peer + " is closing."));
    EXPECT_EQ(1U, count_log(it.server(), "| WebSocket " + peer + " closed."));
    EXPECT_LT(0U, it.server().host().count_log("WebSocket connection received"));
}
