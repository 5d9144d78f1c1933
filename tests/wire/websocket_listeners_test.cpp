#include "tests/support/listener_server.h"
#include "tests/support/tls_pieces.h"
#include "tests/support/websocket_client.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <ostream>
#include <string>
#include <tuple>
#include <vector>

// WebSocket over the listeners other than TCP's, each of which has its own way to receive and send:
// TLS records, UNIX-domain sockets, messages in shared memory.

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

Probe_Server::Setup setup_with(const std::vector<std::string>& options)
{
    Probe_Server::Setup setup;
    setup.websockets = {{"/ws", "websocket_probe_plugin", "_make_WS_Probe"}};
    setup.options = options;
    return setup;
}

/// Both threads that a connection may live in.
const char* const BOTH[] = {"/ws/", "/ws/thread/"};

void expect_frame(const WebSocket_Frame& frame, unsigned opcode, const std::string& payload,
                  bool final = true)
{
    EXPECT_TRUE(frame.complete);
    EXPECT_EQ(opcode, frame.opcode);
    EXPECT_EQ(final, frame.final);
    EXPECT_FALSE(frame.masked);
    EXPECT_EQ(0U, frame.reserved);
    EXPECT_EQ(payload, frame.payload);
}

/// A message in as many frames as it comes in; what is wrong with them is a failure.
std::string read_message(WebSocket_Client& client, unsigned opcode)
{
    std::string message;
    for (;;) {
        const WebSocket_Frame frame = client.read();
        EXPECT_TRUE(frame.complete);
        EXPECT_EQ(opcode, frame.opcode);
        opcode = WS_CONTINUATION;
        message += frame.payload;
        if (frame.final || !frame.complete) {
            return message;
        }
    }
}

/// Bytes that tell where they stand.
std::string numbered_bytes(size_t length)
{
    std::string text;
    for (size_t i = 0; text.size() < length; ++i) {
        text += std::to_string(i) + " ";
    }
    text.resize(length);
    return text;
}

/// The plug-in was told of its one connection's end once, and like this.
void expect_close(Listener_Server& server, const std::string& told)
{
    ASSERT_TRUE(server.host().wait_for_log("INFO ws: destroyed"));
    EXPECT_EQ(1U, server.host().count_log("ws: handle_close"));
    EXPECT_EQ(1U, server.host().count_log("ws: handle_close " + told));
}

// ---------------------------------------------------------------- what every listener serves

void takes_the_first_sub_protocol(Listener_Server& server)
{
    WebSocket_Client client(server.connect());
    ASSERT_TRUE(client.open("/ws/echo", {"Sec-WebSocket-Protocol: chat, superchat"}));
    EXPECT_EQ("HTTP/1.1 101 Switching Protocols", client.response().status_line);
    EXPECT_EQ("s3pPLMBiTxaQ9kYGzzhZRbK+xOo=", client.response().field("sec-websocket-accept"));
    EXPECT_EQ("chat", client.response().field("sec-websocket-protocol"));
}

void handles_frames_behind_the_upgrade(Listener_Server& server)
{
    for (const std::string prefix : BOTH) {
        WebSocket_Client client(server.connect());
        const std::string large = numbered_bytes(20000);
        ASSERT_TRUE(client.open(prefix + "echo", {},
                                websocket_frame(WS_TEXT, "first") + websocket_frame(WS_PING, "p") +
                                    websocket_frame(WS_BINARY, large)));
        expect_frame(client.read(), WS_TEXT, "first");
        expect_frame(client.read(), WS_PONG, "p");
        EXPECT_EQ(large, read_message(client, WS_BINARY));
    }
}

void echoes_frames_of_every_size(Listener_Server& server)
{
    for (const std::string prefix : BOTH) {
        WebSocket_Client client(server.connect());
        ASSERT_TRUE(client.open(prefix + "echo"));
        // Around the forms of the length, the receive buffer (8192) and a TLS record (16384).
        for (const size_t size : {0U, 1U, 125U, 126U, 8183U, 8184U, 8185U, 8192U, 8193U, 16375U,
                                  16376U, 16377U, 16384U, 16385U, 65535U, 65536U, 70000U}) {
            SCOPED_TRACE(size);
            const std::string payload = numbered_bytes(size);
            ASSERT_TRUE(client.send(WS_TEXT, payload));
            ASSERT_EQ(payload, read_message(client, WS_TEXT));
        }
    }
}

void sends_frames_of_every_size(Listener_Server& server)
{
    for (const std::string prefix : BOTH) {
        WebSocket_Client client(server.connect());
        ASSERT_TRUE(client.open(prefix + "sizes"));
        client.send(WS_TEXT, "x");
        for (const size_t size : {0U, 125U, 126U, 65535U, 65536U}) {
            expect_frame(client.read(), WS_TEXT, std::string(size, 'x'));
        }
    }
}

void delivers_many_frames_of_one_write(Listener_Server& server)
{
    WebSocket_Client client(server.connect());
    ASSERT_TRUE(client.open("/ws/echo"));
    std::string frames;
    for (int i = 0; i < 3000; ++i) {
        frames += websocket_frame(WS_TEXT, std::to_string(i));
    }
    ASSERT_TRUE(client.wire().send(frames));
    for (int i = 0; i < 3000; ++i) {
        ASSERT_EQ(std::to_string(i), client.read().payload);
    }
}

void delivers_frames_byte_by_byte(Listener_Server& server)
{
    for (const std::string prefix : BOTH) {
        WebSocket_Client client(server.connect());
        ASSERT_TRUE(client.open(prefix + "ignore"));
        for (const char byte :
             websocket_frame(WS_TEXT, std::string(130, 'x')) + websocket_frame(WS_PING, "p")) {
            ASSERT_TRUE(client.wire().send(std::string(1, byte)));
        }
        expect_frame(client.read(), WS_PONG, "p");
    }
}

void keeps_the_pieces_of_a_fragmented_message(Listener_Server& server)
{
    constexpr bool MORE = false;
    for (const std::string prefix : BOTH) {
        WebSocket_Client client(server.connect());
        ASSERT_TRUE(client.open(prefix + "echo"));
        client.wire().send(websocket_fragment(WS_TEXT, "Hel") +
                           websocket_fragment(WS_CONTINUATION, "lo, ") +
                           websocket_frame(WS_CONTINUATION, "World!"));
        expect_frame(client.read(), WS_TEXT, "Hel", MORE);
        expect_frame(client.read(), WS_CONTINUATION, "lo, ", MORE);
        expect_frame(client.read(), WS_CONTINUATION, "World!");
    }
}

void sends_a_fragmented_message_and_a_gathered_one(Listener_Server& server)
{
    constexpr bool MORE = false;
    WebSocket_Client client(server.connect());
    ASSERT_TRUE(client.open("/ws/fragments"));
    client.send(WS_TEXT, "x");
    expect_frame(client.read(), WS_TEXT, "Hel", MORE);
    expect_frame(client.read(), WS_PING, "");
    expect_frame(client.read(), WS_CONTINUATION, "lo, ", MORE);
    expect_frame(client.read(), WS_CONTINUATION, "World!");
    expect_frame(client.read(), WS_TEXT, "next");

    WebSocket_Client other(server.connect());
    ASSERT_TRUE(other.open("/ws/vector-of-many"));
    other.send(WS_TEXT, "x");
    const WebSocket_Frame frame = other.read();
    EXPECT_EQ(3000U, frame.payload.size());
    EXPECT_TRUE(frame.final);
}

void answers_a_ping_with_its_payload(Listener_Server& server)
{
    for (const std::string& payload : {std::string("abc"), std::string(), std::string(125, 'p')}) {
        WebSocket_Client client(server.connect());
        ASSERT_TRUE(client.open("/ws/echo"));
        client.send(WS_PING, payload);
        expect_frame(client.read(), WS_PONG, payload);
    }
    EXPECT_TRUE(server.host().wait_for_log_count("ws: handle_ping", 3));
}

void tells_status_and_reason_and_answers_1000(Listener_Server& server)
{
    WebSocket_Client client(server.connect());
    ASSERT_TRUE(client.open("/ws/echo"));
    client.send(WS_CLOSE, close_payload(1001, "bye"));
    expect_frame(client.read(), WS_CLOSE, close_payload(1000));
    EXPECT_TRUE(client.wire().is_closed_by_peer());
    expect_close(server, "1001 bye 3");
}

void a_thread_tells_status_and_reason_too(Listener_Server& server)
{
    WebSocket_Client client(server.connect());
    ASSERT_TRUE(client.open("/ws/thread/echo"));
    client.send(WS_CLOSE, close_payload(1001, "bye"));
    expect_frame(client.read(), WS_CLOSE, close_payload(1000));
    EXPECT_TRUE(client.wire().is_closed_by_peer());
    expect_close(server, "1001 bye 3");
}

void an_end_without_close_frame_is_abnormal(Listener_Server& server)
{
    WebSocket_Client client(server.connect());
    ASSERT_TRUE(client.open("/ws/echo"));
    client.wire().half_close();
    EXPECT_TRUE(client.wire().is_closed_by_peer());
    expect_close(server, "1006 (null) 0");
}

void a_client_that_goes_is_an_abnormal_end(Listener_Server& server)
{
    {
        WebSocket_Client client(server.connect());
        ASSERT_TRUE(client.open("/ws/thread/echo"));
    }
    expect_close(server, "1006 (null) 0");
}

void a_malformed_frame_is_an_abnormal_end(Listener_Server& server)
{
    WebSocket_Client client(server.connect());
    ASSERT_TRUE(client.open("/ws/echo"));
    WebSocket_Frame_Options unmasked;
    unmasked.masked = false;
    client.wire().send(websocket_frame(WS_TEXT, "x", unmasked));
    client.wire().read_to_end();
    EXPECT_TRUE(client.wire().at_end());
    expect_close(server, "1006 (null) 0");
    EXPECT_EQ(1U, server.host().count_log(" ERROR Failed to parse WebSocket data frame."));
}

void a_failing_plug_in_closes(Listener_Server& server)
{
    WebSocket_Client client(server.connect());
    ASSERT_TRUE(client.open("/ws/data-fails"));
    client.send(WS_TEXT, "x");
    EXPECT_TRUE(client.wire().is_closed_by_peer());
    expect_close(server, "1006 (null) 0");
}

void shutdown_twice_closes_once(Listener_Server& server)
{
    WebSocket_Client client(server.connect());
    ASSERT_TRUE(client.open("/ws/shutdown"));
    client.send(WS_TEXT, "x");
    EXPECT_TRUE(client.wire().is_closed_by_peer());
    expect_close(server, "1006 (null) 0");
}

void shutdown_twice_in_a_thread_closes_once(Listener_Server& server)
{
    WebSocket_Client client(server.connect());
    ASSERT_TRUE(client.open("/ws/thread/shutdown"));
    client.send(WS_TEXT, "x");
    EXPECT_TRUE(client.wire().is_closed_by_peer());
    expect_close(server, "1006 (null) 0");
}

void a_suspended_connection_waits(Listener_Server& server)
{
    for (const std::string prefix : BOTH) {
        WebSocket_Client client(server.connect());
        ASSERT_TRUE(client.open(prefix + "hold"));
        // More than the receive buffer takes: some of it waits above the socket or in it.
        const std::string large = numbered_bytes(30000);
        ASSERT_TRUE(client.wire().send(websocket_frame(WS_TEXT, "hold") +
                                       websocket_frame(WS_TEXT, "next") +
                                       websocket_frame(WS_TEXT, large)));
        EXPECT_TRUE(client.wire().is_silent(milliseconds(30)));
        WebSocket_Client other(server.connect());
        ASSERT_TRUE(other.open("/ws/hold"));
        other.send(WS_TEXT, "release");
        expect_frame(client.read(), WS_TEXT, "released");
        expect_frame(client.read(), WS_TEXT, "next");
        EXPECT_EQ(large, read_message(client, WS_TEXT));
    }
}

void a_stopping_server_tells_its_plug_ins(Listener_Server& server)
{
    WebSocket_Client reactive(server.connect());
    ASSERT_TRUE(reactive.open("/ws/echo"));
    WebSocket_Client threaded(server.connect());
    ASSERT_TRUE(threaded.open("/ws/thread/echo"));
    EXPECT_EQ(0, server.host().stop(SIGTERM));
    EXPECT_EQ(2U, server.host().count_log("ws: handle_close 1006 (null) 0"));
    EXPECT_EQ(2U, server.host().count_log("ws: destroyed"));
}

// ---------------------------------------------------------------- timers

void a_silent_client_is_pinged_and_closed(Listener_Server& server)
{
    WebSocket_Client client(server.connect());
    const Clock::time_point start = Clock::now();
    ASSERT_TRUE(client.open("/ws/echo"));
    expect_frame(client.read(), WS_PING, "");
    EXPECT_LE(milliseconds(1990), Clock::now() - start);
    EXPECT_TRUE(client.wire().is_closed_by_peer());
    EXPECT_LE(milliseconds(2990), Clock::now() - start);
    EXPECT_TRUE(server.host().wait_for_log(" timeout."));
    expect_close(server, "1006 (null) 0");
}

void a_pong_keeps_the_connection(Listener_Server& server)
{
    WebSocket_Client client(server.connect());
    ASSERT_TRUE(client.open("/ws/echo"));
    for (int round = 0; round < 2; ++round) {
        expect_frame(client.read(), WS_PING, "");
        client.send(WS_PONG, "");
    }
    client.send(WS_TEXT, "alive");
    expect_frame(client.read(), WS_TEXT, "alive");
    EXPECT_EQ(0U, server.host().count_log(" timeout."));
}

void a_thread_waits_for_the_pong(Listener_Server& server)
{
    WebSocket_Client client(server.connect());
    ASSERT_TRUE(client.open("/ws/thread/wait-and-send"));
    client.send(WS_TEXT, "wait");
    expect_frame(client.read(), WS_PING, "");
    client.send(WS_PONG, "");
    expect_frame(client.read(), WS_TEXT, "after");
    EXPECT_TRUE(server.host().wait_for_log("ws: send_ping 0"));

    client.send(WS_TEXT, "wait in vain");
    expect_frame(client.read(), WS_PING, "");
    expect_frame(client.read(), WS_TEXT, "after");
    EXPECT_TRUE(server.host().wait_for_log("ws: send_ping -1"));
}

struct WebSocket_Check {
    const char* name;
    void (*run)(Listener_Server& server);
    std::vector<std::string> options = {};
};

void PrintTo(const WebSocket_Check& check, std::ostream* out)
{
    *out << check.name;
}

#define WEBSOCKET_CHECK(NAME, ...)                                                                 \
    WebSocket_Check                                                                                \
    {                                                                                              \
#NAME, NAME,                                                                               \
        {                                                                                          \
            __VA_ARGS__                                                                            \
        }                                                                                          \
    }

const std::vector<WebSocket_Check>& websocket_checks()
{
    static const std::vector<WebSocket_Check> checks = {
        WEBSOCKET_CHECK(takes_the_first_sub_protocol),
        WEBSOCKET_CHECK(handles_frames_behind_the_upgrade),
        WEBSOCKET_CHECK(echoes_frames_of_every_size),
        WEBSOCKET_CHECK(sends_frames_of_every_size),
        WEBSOCKET_CHECK(delivers_many_frames_of_one_write),
        WEBSOCKET_CHECK(delivers_frames_byte_by_byte),
        WEBSOCKET_CHECK(keeps_the_pieces_of_a_fragmented_message),
        WEBSOCKET_CHECK(sends_a_fragmented_message_and_a_gathered_one),
        WEBSOCKET_CHECK(answers_a_ping_with_its_payload),
        WEBSOCKET_CHECK(tells_status_and_reason_and_answers_1000),
        WEBSOCKET_CHECK(a_thread_tells_status_and_reason_too),
        WEBSOCKET_CHECK(an_end_without_close_frame_is_abnormal),
        WEBSOCKET_CHECK(a_client_that_goes_is_an_abnormal_end),
        WEBSOCKET_CHECK(a_malformed_frame_is_an_abnormal_end),
        WEBSOCKET_CHECK(a_failing_plug_in_closes),
        WEBSOCKET_CHECK(shutdown_twice_closes_once),
        WEBSOCKET_CHECK(shutdown_twice_in_a_thread_closes_once),
        WEBSOCKET_CHECK(a_suspended_connection_waits),
        WEBSOCKET_CHECK(a_stopping_server_tells_its_plug_ins),
        WEBSOCKET_CHECK(a_silent_client_is_pinged_and_closed, "-i", "60", "--ping-interval", "2",
                        "--ping-timeout", "1"),
        WEBSOCKET_CHECK(a_pong_keeps_the_connection, "-i", "60", "--ping-interval", "1",
                        "--ping-timeout", "1"),
        WEBSOCKET_CHECK(a_thread_waits_for_the_pong, "-i", "60", "--ping-interval", "60",
                        "--ping-timeout", "1"),
    };
    return checks;
}

const char* name_of(Listener_Kind kind)
{
    switch (kind) {
    case Listener_Kind::TCP:
        return "TCP";
    case Listener_Kind::TLS:
        return "TLS";
    case Listener_Kind::UNIX:
        return "UNIX";
    case Listener_Kind::MEM:
        break;
    }
    return "MEM";
}

struct WebSocket_Check_Name {
    template <typename Info>
    std::string operator()(const Info& info) const
    {
        return std::string(name_of(std::get<0>(info.param))) + "_" + std::get<1>(info.param).name;
    }
};

class WebSocket_Listener
    : public testing::TestWithParam<std::tuple<Listener_Kind, WebSocket_Check>> {};

} // namespace

TEST_P(WebSocket_Listener, serves)
{
    const auto& [kind, check] = this->GetParam();
    Listener_Server server(kind, setup_with(check.options));
    check.run(server);
    EXPECT_EQ(0, server.host().stop(SIGTERM));
}

INSTANTIATE_TEST_SUITE_P(Every, WebSocket_Listener,
                         testing::Combine(testing::Values(Listener_Kind::TLS, Listener_Kind::UNIX,
                                                          Listener_Kind::MEM),
                                          testing::ValuesIn(websocket_checks())),
                         WebSocket_Check_Name());

// ---------------------------------------------------------------- frames and TLS records

namespace {

/// A frame as the server sends it.
std::string server_frame(unsigned opcode, const std::string& payload)
{
    WebSocket_Frame_Options unmasked;
    unmasked.masked = false;
    return websocket_frame(opcode, payload, unmasked);
}

/// A WebSocket connection whose TLS records pass through the test's hands.
class Record_Conversation {
public:
    explicit Record_Conversation(const std::string& target)
        : server_(Listener_Kind::TLS, setup_with({"-t", "1"})),
          client_(Tls_Pieces::connect(Wire_Client::tcp(server_.address(), server_.port())))
    {
        this->send(client_->encrypt(upgrade_request(target)));
        EXPECT_EQ(0U, client_->read_until("\r\n\r\n").find("HTTP/1.1 101 "));
    }

    Tls_Pieces& client() { return *client_; }
    Listener_Server& server() { return server_; }
    void send(const std::string& records) { ASSERT_TRUE(client_->wire().send(records)); }

    /// Reads the frames, and nothing else.
    void expect_frames(const std::string& frames)
    {
        std::string text;
        while (text.size() < frames.size()) {
            const std::string records = client_->wire().receive();
            ASSERT_FALSE(records.empty());
            text += client_->decrypt(records);
        }
        EXPECT_EQ(frames, text);
    }

private:
    Listener_Server server_;
    std::unique_ptr<Tls_Pieces> client_;
};

} // namespace

TEST(WebSocket_TLS, a_frame_may_lie_in_many_records)
{
    for (const std::string prefix : BOTH) {
        Record_Conversation it(prefix + "ignore");
        const std::string frames =
            websocket_frame(WS_TEXT, numbered_bytes(130)) + websocket_frame(WS_PING, "p");
        for (const size_t step : {1U, 2U, 3U, 7U, 64U, 131U}) {
            std::string records;
            for (size_t at = 0; at < frames.size(); at += step) {
                records += it.client().encrypt(frames.substr(at, step));
            }
            it.send(records);
            // The ping's payload is one byte, so its pong comes whole.
            it.expect_frames(server_frame(WS_PONG, "p"));
        }
    }
}

TEST(WebSocket_TLS, many_frames_may_lie_in_one_record)
{
    for (const std::string prefix : BOTH) {
        Record_Conversation it(prefix + "echo");
        std::string frames;
        std::string echoes;
        for (int i = 0; i < 1500; ++i) {
            frames += websocket_frame(WS_TEXT, std::to_string(i));
            echoes += server_frame(WS_TEXT, std::to_string(i));
        }
        ASSERT_GT(frames.size(), 8192U) << "it is to be larger than the receive buffer";
        ASSERT_LT(frames.size(), 16384U);
        it.send(it.client().encrypt(frames));
        it.expect_frames(echoes);
    }
}

TEST(WebSocket_TLS, records_may_be_cut_anywhere)
{
    for (const std::string prefix : BOTH) {
        Record_Conversation it(prefix + "echo");
        const std::string ping = websocket_frame(WS_PING, "p");
        const size_t length = 5 + ping.size() + 17; // with the header and what encryption adds
        for (size_t cut = 1; cut < length; ++cut) {
            const std::string records = it.client().encrypt(ping);
            it.send(records.substr(0, cut));
            it.send(records.substr(std::min(cut, records.size())));
            it.expect_frames(server_frame(WS_PONG, "p"));
        }
    }
}

TEST(WebSocket_TLS, half_a_record_holds_nobody_up)
{
    Record_Conversation it("/ws/echo");
    const std::string records = it.client().encrypt(websocket_frame(WS_TEXT, "slow"));
    it.send(records.substr(0, records.size() / 2));
    WebSocket_Client other(it.server().connect());
    ASSERT_TRUE(other.open("/ws/echo"));
    other.send(WS_TEXT, "fast");
    EXPECT_EQ("fast", other.read().payload);
    it.send(records.substr(records.size() / 2));
    it.expect_frames(server_frame(WS_TEXT, "slow"));
}

TEST(WebSocket_TLS, frames_of_a_suspended_connection_wait_in_their_record)
{
    for (const std::string prefix : BOTH) {
        Record_Conversation it(prefix + "hold");
        std::string frames = websocket_frame(WS_TEXT, "hold");
        std::string echoes = server_frame(WS_TEXT, "released");
        for (int i = 0; i < 1400; ++i) {
            frames += websocket_frame(WS_TEXT, std::to_string(i));
            echoes += server_frame(WS_TEXT, std::to_string(i));
        }
        ASSERT_LT(frames.size(), 16384U);
        it.send(it.client().encrypt(frames));
        ASSERT_TRUE(it.server().host().wait_for_log("ws: held"));
        WebSocket_Client other(it.server().connect());
        ASSERT_TRUE(other.open("/ws/hold"));
        other.send(WS_TEXT, "release");
        it.expect_frames(echoes);
    }
}

TEST(WebSocket_TLS, an_end_without_close_notify_is_an_abnormal_end_like_others)
{
    Record_Conversation it("/ws/echo");
    it.client().wire().half_close();
    expect_close(it.server(), "1006 (null) 0");
    EXPECT_EQ(0, it.server().host().stop(SIGTERM));
    EXPECT_EQ(0U, it.server().host().count_log(" ERROR "));
}
