#include "tests/support/probe_server.h"
#include "tests/support/websocket_client.h"
#include "tests/wire/host_log.h"

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

// What may not come between the frames of a WebSocket connection, nor behind its end.

namespace {

using std::chrono::milliseconds;

Probe_Server::Setup setup_with(const std::vector<std::string>& options)
{
    Probe_Server::Setup setup;
    setup.websockets = {{"/ws", "websocket_probe_plugin", "_make_WS_Probe"}};
    setup.options = options;
    return setup;
}

void expect_frame(const WebSocket_Frame& frame, unsigned opcode, const std::string& payload)
{
    EXPECT_TRUE(frame.complete);
    EXPECT_EQ(opcode, frame.opcode);
    EXPECT_EQ(payload, frame.payload);
}

/// Lets the plug-in go on with the connection that it holds.
void release_held(Probe_Server& server)
{
    WebSocket_Client other(server.connect());
    ASSERT_TRUE(other.open("/ws/hold"));
    ASSERT_TRUE(other.send(WS_TEXT, "release"));
    other.send(WS_PING, "");
    EXPECT_EQ(WS_PONG, other.read().opcode);
}

/// Both threads that a connection may live in.
const char* const BOTH[] = {"/ws/", "/ws/thread/"};

/// Of a ping "ab", all but the last byte, and that.
const std::string PING_FRAME = websocket_frame(WS_PING, "ab");
const std::string PING_START = PING_FRAME.substr(0, PING_FRAME.size() - 1);
const std::string PING_END = PING_FRAME.substr(PING_FRAME.size() - 1);

} // namespace

TEST(WebSocket_Suspend, nothing_is_handled_until_another_thread_has_answered)
{
    for (const std::string prefix : BOTH) {
        Probe_Server server(setup_with({"-t", "2"}));
        WebSocket_Client client(server.connect());
        ASSERT_TRUE(client.open(prefix + "hold"));
        client.wire().send(websocket_frame(WS_TEXT, "hold") + websocket_frame(WS_PING, "p") +
                           websocket_frame(WS_TEXT, "in the buffer"));
        ASSERT_TRUE(server.host().wait_for_log("ws: held"));
        client.send(WS_TEXT, "behind it");
        EXPECT_TRUE(client.wire().is_silent(milliseconds(50))) << prefix;
        release_held(server);
        expect_frame(client.read(), WS_TEXT, "released");
        expect_frame(client.read(), WS_PONG, "p");
        expect_frame(client.read(), WS_TEXT, "in the buffer");
        expect_frame(client.read(), WS_TEXT, "behind it");
    }
}

TEST(WebSocket_Suspend, an_end_that_came_meanwhile_is_told_afterwards)
{
    for (const std::string prefix : BOTH) {
        Probe_Server server(setup_with({"-t", "2"}));
        WebSocket_Client client(server.connect());
        ASSERT_TRUE(client.open(prefix + "hold"));
        client.wire().send(websocket_frame(WS_TEXT, "hold") +
                           websocket_frame(WS_CLOSE, close_payload(1001, "bye")));
        ASSERT_TRUE(server.host().wait_for_log("ws: held"));
        EXPECT_EQ(0U, count_log(server, "ws: handle_close"));
        release_held(server);
        expect_frame(client.read(), WS_TEXT, "released");
        EXPECT_EQ(1000U, client.read().close_status());
        EXPECT_TRUE(client.wire().is_closed_by_peer());
        EXPECT_TRUE(has_line(server.host(), "INFO", "ws: handle_close 1001 bye 3"));
    }
}

TEST(WebSocket_Suspend, a_suspended_connection_is_not_pinged)
{
    Probe_Server server(
        setup_with({"-t", "2", "-i", "60", "--ping-interval", "1", "--ping-timeout", "1"}));
    WebSocket_Client client(server.connect());
    ASSERT_TRUE(client.open("/ws/hold"));
    client.send(WS_TEXT, "hold");
    // The second interval has gone by without input.
    EXPECT_TRUE(client.wire().is_silent(milliseconds(2200)));
    release_held(server);
    expect_frame(client.read(), WS_TEXT, "released");
    expect_frame(client.read(), WS_PING, "");
    client.send(WS_PONG, "");
    client.send(WS_TEXT, "alive");
    expect_frame(client.read(), WS_TEXT, "alive");
}

TEST(WebSocket_Order, a_ping_of_the_server_does_not_break_into_half_a_pong)
{
    Probe_Server server(setup_with({"-i", "60", "--ping-interval", "1", "--ping-timeout", "30"}));
    WebSocket_Client client(server.connect());
    ASSERT_TRUE(client.open("/ws/echo"));
    // In the middle of the first interval, so that the second one ends in silence.
    EXPECT_TRUE(client.wire().is_silent(milliseconds(500)));
    client.wire().send(PING_START);
    EXPECT_EQ("\x8A\x02\x61", client.wire().read_exactly(3));
    EXPECT_TRUE(client.wire().is_silent(milliseconds(1900)));
    client.wire().send(PING_END);
    EXPECT_EQ("b", client.wire().read_exactly(1));
    client.send(WS_TEXT, "x");
    expect_frame(client.read(), WS_TEXT, "x");
}

TEST(WebSocket_Order, a_client_that_falls_silent_in_its_ping_is_pinged_in_the_end)
{
    Probe_Server server(setup_with({"-i", "60", "--ping-interval", "1", "--ping-timeout", "30"}));
    WebSocket_Client client(server.connect());
    ASSERT_TRUE(client.open("/ws/echo"));
    client.wire().send(PING_START);
    EXPECT_EQ("\x8A\x02\x61", client.wire().read_exactly(3));
    expect_frame(client.read(), WS_PING, "");
}

TEST(WebSocket_Order, a_plug_in_that_waits_gets_no_chance_to_break_into_half_a_pong)
{
    Probe_Server server(setup_with({"--ping-interval", "60", "--ping-timeout", "20"}));
    WebSocket_Client client(server.connect());
    ASSERT_TRUE(client.open("/ws/thread/wait-and-send"));
    client.send(WS_TEXT, "wait");
    expect_frame(client.read(), WS_PING, "");
    client.wire().send(PING_START);
    EXPECT_EQ("\x8A\x02\x61", client.wire().read_exactly(3));
    EXPECT_TRUE(client.wire().is_silent(milliseconds(50)));
    client.wire().send(PING_END);
    EXPECT_EQ("b", client.wire().read_exactly(1));
    expect_frame(client.read(), WS_TEXT, "after");
}

TEST(WebSocket_Order, a_frame_that_was_refused_leaves_the_connection_as_it_was)
{
    Probe_Server server(setup_with({}));
    WebSocket_Client client(server.connect());
    ASSERT_TRUE(client.open("/ws/null-frame"));
    client.send(WS_TEXT, "null");
    client.send(WS_PING, "abc");
    expect_frame(client.read(), WS_PONG, "abc");
    client.send(WS_TEXT, "x");
    expect_frame(client.read(), WS_TEXT, "x");
    EXPECT_TRUE(has_line(server.host(), "INFO", "ws: send_frame -1"));
}

TEST(WebSocket_Order, waiting_in_an_abnormal_handle_close_reads_nothing)
{
    Probe_Server server(setup_with({"--ping-interval", "60", "--ping-timeout", "20"}));
    WebSocket_Client client(server.connect());
    ASSERT_TRUE(client.open("/ws/thread/wait-in-close/data-fails"));
    client.wire().send(websocket_frame(WS_TEXT, "x") + websocket_frame(WS_TEXT, "y") +
                       websocket_frame(WS_CLOSE, close_payload(1001, "bye")));
    ASSERT_TRUE(has_line(server.host(), "INFO", "ws: destroyed"));
    EXPECT_EQ(1U, server.host().count_log("ws: data"));
    EXPECT_EQ(1U, server.host().count_log("ws: handle_close"));
    EXPECT_EQ(1U, server.host().count_log("ws: handle_close 1006 (null) 0"));
    EXPECT_EQ(1U, server.host().count_log("ws: send_ping -1"));
}
