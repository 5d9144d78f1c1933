#include "tests/support/probe_server.h"
#include "tests/support/websocket_client.h"
#include "tests/wire/host_log.h"

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <string>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

/// A server that logs ACE's debugging too, with the options.
Probe_Server::Setup setup_with(const std::vector<std::string>& options)
{
    Probe_Server::Setup setup;
    setup.websockets = {{"/ws", "websocket_probe_plugin", "_make_WS_Probe"}};
    setup.options = options;
    setup.log_level = "trace";
    return setup;
}

/// The text behind `start` in the first line that has it, up to a blank.
std::string word_behind(const Host_Process& host, const std::string& start)
{
    for (const std::string& line : host.log()) {
        const size_t at = line.find(start);
        if (at != std::string::npos) {
            const size_t from = at + start.size();
            return line.substr(from, line.find(' ', from) - from);
        }
    }
    return "";
}

void expect_ping(const WebSocket_Frame& frame)
{
    EXPECT_TRUE(frame.complete);
    EXPECT_TRUE(frame.final);
    EXPECT_EQ(WS_PING, frame.opcode);
    EXPECT_EQ("", frame.payload);
    EXPECT_FALSE(frame.masked);
}

} // namespace

TEST(WebSocket_Keep_Alive, pings_a_silent_connection_and_closes_it_without_a_pong)
{
    Probe_Server server(setup_with({"-i", "60", "--ping-interval", "2", "--ping-timeout", "1"}));
    WebSocket_Client client(server.connect());
    const Clock::time_point start = Clock::now();
    ASSERT_TRUE(client.open("/ws/echo"));
    const std::string peer = peer_text(client.wire());
    expect_ping(client.read());
    EXPECT_LE(milliseconds(1990), Clock::now() - start);
    EXPECT_TRUE(has_line(server.host(), "DEBUG", "WebSocket ping " + peer + "."));
    const std::string id = word_behind(server.host(), "Scheduled WebSocket ping timer ");
    // The repeating timer's line has the same start and comes first.
    EXPECT_TRUE(has_line(server.host(), "DEBUG",
                         "Scheduled WebSocket ping timer " + id + " after WebSocket handshaked."));
    EXPECT_TRUE(server.host().wait_for_log(" for " + peer + "."));

    EXPECT_TRUE(client.wire().is_closed_by_peer());
    EXPECT_LE(milliseconds(2990), Clock::now() - start);
    EXPECT_TRUE(has_line(server.host(), "ERROR", "WebSocket ping " + peer + " timeout."));
    EXPECT_TRUE(has_line(server.host(), "INFO", "ws: handle_close 1006 (null) 0"));
    EXPECT_TRUE(has_line(server.host(), "INFO", "ws: destroyed"));
    EXPECT_EQ(1U, count_log(server, "ws: handle_close"));
}

TEST(WebSocket_Keep_Alive, the_idle_timer_becomes_the_ping_timer)
{
    Probe_Server server(setup_with({"-i", "60", "--ping-interval", "30", "--ping-timeout", "9"}));
    WebSocket_Client client(server.connect());
    ASSERT_TRUE(client.open("/ws/echo"));
    EXPECT_TRUE(server.host().wait_for_log("DEBUG Scheduled WebSocket ping timer "));
    EXPECT_TRUE(server.host().wait_for_log(" after WebSocket handshaked."));
    const std::string idle = word_behind(server.host(), "Scheduled HTTP idle timer ");
    EXPECT_TRUE(
        has_line(server.host(), "DEBUG",
                 "Cancelled 1 WebSocket ping timers by " + idle + " after WebSocket handshaked."));
}

TEST(WebSocket_Keep_Alive, a_pong_keeps_the_connection)
{
    Probe_Server server(setup_with({"-i", "60", "--ping-interval", "1", "--ping-timeout", "1"}));
    WebSocket_Client client(server.connect());
    ASSERT_TRUE(client.open("/ws/echo"));
    const std::string peer = peer_text(client.wire());
    for (size_t round = 1; round <= 2; ++round) {
        expect_ping(client.read());
        client.send(WS_PONG, "its payload is not compared");
        EXPECT_TRUE(server.host().wait_for_log_count("DEBUG Cancelled 1 ping timers by ", round));
        EXPECT_TRUE(server.host().wait_for_log_count(" after websocket pong " + peer + ".", round));
    }
    client.send(WS_TEXT, "alive");
    EXPECT_EQ("alive", client.read().payload);
    EXPECT_EQ(0U, count_log(server, " timeout."));
    EXPECT_EQ(0U, count_log(server, "ws: handle_close"));
}

TEST(WebSocket_Keep_Alive, a_second_pong_cancels_nothing)
{
    Probe_Server server(setup_with({"-i", "60", "--ping-interval", "1", "--ping-timeout", "30"}));
    WebSocket_Client client(server.connect());
    ASSERT_TRUE(client.open("/ws/echo"));
    expect_ping(client.read());
    ASSERT_TRUE(server.host().wait_for_log(" for " + peer_text(client.wire()) + "."));
    client.wire().send(websocket_frame(WS_PONG, "") + websocket_frame(WS_PONG, "") +
                       websocket_frame(WS_TEXT, "x"));
    EXPECT_EQ("x", client.read().payload);
    EXPECT_EQ(1U, count_log(server, " after websocket pong "));
}

TEST(WebSocket_Keep_Alive, input_within_the_interval_holds_back_the_ping)
{
    Probe_Server server(setup_with({"-i", "60", "--ping-interval", "2", "--ping-timeout", "30"}));
    WebSocket_Client client(server.connect());
    const Clock::time_point start = Clock::now();
    ASSERT_TRUE(client.open("/ws/echo"));
    // Silence for a second, then a byte: the interval that ends at two seconds sees the input.
    EXPECT_TRUE(client.wire().is_silent(milliseconds(1000)));
    client.send(WS_TEXT, "x");
    EXPECT_EQ("x", client.read().payload);
    expect_ping(client.read());
    EXPECT_LE(milliseconds(3900), Clock::now() - start) << "not at the end of the first interval";
}

TEST(WebSocket_Keep_Alive, each_ping_replaces_the_timeout_of_the_last_one)
{
    Probe_Server server(setup_with({"-i", "60", "--ping-interval", "1", "--ping-timeout", "30"}));
    WebSocket_Client client(server.connect());
    ASSERT_TRUE(client.open("/ws/echo"));
    expect_ping(client.read());
    expect_ping(client.read());
    EXPECT_TRUE(server.host().wait_for_log("DEBUG Cancelled 1 ping timer by "));
    EXPECT_TRUE(server.host().wait_for_log(" for rescheduling ping timeout."));
    EXPECT_TRUE(server.host().wait_for_log_count(" for " + peer_text(client.wire()) + ".", 2));
}

TEST(WebSocket_Keep_Alive, pings_without_a_timeout_when_there_is_none)
{
    Probe_Server server(setup_with({"-i", "60", "--ping-interval", "1"}));
    WebSocket_Client client(server.connect());
    ASSERT_TRUE(client.open("/ws/echo"));
    expect_ping(client.read());
    expect_ping(client.read());
    EXPECT_TRUE(server.host().wait_for_log_count(
        " WARNING WebSocket ping-timeout is not configured properly.", 2));
    client.send(WS_TEXT, "alive");
    EXPECT_EQ("alive", client.read().payload);
}

TEST(WebSocket_Keep_Alive, without_an_idle_timeout_nothing_is_watched)
{
    Probe_Server server(setup_with({"--ping-interval", "1", "--ping-timeout", "1"}));
    WebSocket_Client client(server.connect());
    ASSERT_TRUE(client.open("/ws/echo"));
    EXPECT_TRUE(client.wire().is_silent(milliseconds(1300))) << "longer than the interval";
    client.send(WS_TEXT, "alive");
    EXPECT_EQ("alive", client.read().payload);
    EXPECT_EQ(0U, count_log(server, "Scheduled "));
}

TEST(WebSocket_Keep_Alive, without_a_ping_interval_the_idle_timer_ends)
{
    Probe_Server server(setup_with({"-i", "1", "--ping-timeout", "1"}));
    WebSocket_Client client(server.connect());
    ASSERT_TRUE(client.open("/ws/echo"));
    EXPECT_TRUE(client.wire().is_silent(milliseconds(1300))) << "longer than the idle time";
    client.send(WS_TEXT, "alive");
    EXPECT_EQ("alive", client.read().payload);
    EXPECT_EQ(1U, count_log(server, "Cancelled 1 WebSocket ping timers by "));
    EXPECT_EQ(0U, count_log(server, "Scheduled WebSocket "));
}

TEST(WebSocket_Keep_Alive, a_plug_in_may_ping)
{
    Probe_Server server(setup_with({}));
    WebSocket_Client client(server.connect());
    ASSERT_TRUE(client.open("/ws/ping"));
    client.send(WS_TEXT, "x");
    expect_ping(client.read());
    EXPECT_TRUE(has_line(server.host(), "INFO", "ws: send_ping 0"));
    EXPECT_TRUE(
        has_line(server.host(), "DEBUG", "WebSocket ping " + peer_text(client.wire()) + "."));
}

TEST(WebSocket_Keep_Alive, a_ping_without_debugging_is_not_logged)
{
    Probe_Server::Setup setup = setup_with({});
    setup.log_level = "debug";
    Probe_Server server(setup);
    WebSocket_Client client(server.connect());
    ASSERT_TRUE(client.open("/ws/ping"));
    client.send(WS_TEXT, "x");
    expect_ping(client.read());
    EXPECT_TRUE(has_line(server.host(), "INFO", "ws: send_ping 0"));
    EXPECT_EQ(0U, count_log(server, "WebSocket ping "));
}

// ---------------------------------------------------------------- a thread of its own

TEST(WebSocket_Keep_Alive, a_threaded_connection_has_no_timers)
{
    Probe_Server server(setup_with({"-i", "1", "--ping-interval", "1", "--ping-timeout", "1"}));
    WebSocket_Client client(server.connect());
    ASSERT_TRUE(client.open("/ws/thread/echo"));
    EXPECT_TRUE(client.wire().is_silent(milliseconds(1300))) << "longer than all of them";
    client.send(WS_TEXT, "alive");
    EXPECT_EQ("alive", client.read().payload);
    EXPECT_EQ(1U, count_log(server, "Cancelled 1 timers for spawning worker thread " +
                                        peer_text(client.wire()) + "."));
    EXPECT_EQ(0U, count_log(server, "Scheduled WebSocket "));
}

TEST(WebSocket_Keep_Alive, a_threaded_plug_in_waits_for_the_pong)
{
    Probe_Server server(setup_with({"--ping-interval", "60", "--ping-timeout", "20"}));
    WebSocket_Client client(server.connect());
    ASSERT_TRUE(client.open("/ws/thread/ping-wait"));
    client.send(WS_TEXT, "wait");
    expect_ping(client.read());
    client.send(WS_PONG, "");
    EXPECT_TRUE(has_line(server.host(), "INFO", "ws: send_ping 0"));
    client.send(WS_TEXT, "more");
    EXPECT_TRUE(has_line(server.host(), "INFO", "ws: data 4 last=1 binary=0"));
    EXPECT_EQ(0U, server.host().count_log(" after websocket pong "));
}

TEST(WebSocket_Keep_Alive, a_threaded_plug_in_processes_what_comes_instead_of_the_pong)
{
    Probe_Server server(setup_with({"--ping-interval", "60", "--ping-timeout", "20"}));
    WebSocket_Client client(server.connect());
    ASSERT_TRUE(client.open("/ws/thread/ping-wait"));
    client.send(WS_TEXT, "wait");
    expect_ping(client.read());
    client.send(WS_TEXT, "instead");
    EXPECT_TRUE(has_line(server.host(), "INFO", "ws: send_ping 0"));
    const std::string log = server.host().log_text();
    EXPECT_LT(log.find("ws: data 7"), log.find("ws: send_ping 0")) << "a call within a call";
}

TEST(WebSocket_Keep_Alive, a_threaded_plug_in_is_told_that_no_pong_came)
{
    Probe_Server server(setup_with({"--ping-interval", "60", "--ping-timeout", "1"}));
    WebSocket_Client client(server.connect());
    ASSERT_TRUE(client.open("/ws/thread/ping-wait"));
    const Clock::time_point start = Clock::now();
    client.send(WS_TEXT, "wait");
    expect_ping(client.read());
    EXPECT_TRUE(has_line(server.host(), "INFO", "ws: send_ping -1"));
    EXPECT_LE(milliseconds(990), Clock::now() - start);
    EXPECT_TRUE(has_line(server.host(), "ERROR",
                         "WebSocket ping " + peer_text(client.wire()) + " timeout."));
    client.send(WS_TEXT, "the plug-in goes on");
    EXPECT_TRUE(has_line(server.host(), "INFO", "ws: data 19 last=1 binary=0"));
}

TEST(WebSocket_Keep_Alive, waiting_needs_a_ping_interval)
{
    Probe_Server server(setup_with({"--ping-timeout", "1"}));
    WebSocket_Client client(server.connect());
    ASSERT_TRUE(client.open("/ws/thread/ping-wait"));
    client.send(WS_TEXT, "wait");
    expect_ping(client.read());
    EXPECT_TRUE(has_line(server.host(), "INFO", "ws: send_ping -1"));
    EXPECT_TRUE(has_line(server.host(), "ERROR",
                         "Failed to handle HTTP_Svc_Handler_T<P,S> timeout, ping-interval is not "
                         "configured."));
}

TEST(WebSocket_Keep_Alive, waiting_fails_from_a_ping_to_the_next_message)
{
    Probe_Server server(setup_with({"--ping-interval", "60", "--ping-timeout", "20"}));
    WebSocket_Client client(server.connect());
    ASSERT_TRUE(client.open("/ws/thread/wait-when-handshaked/ping-wait"));
    expect_ping(client.read());
    EXPECT_TRUE(has_line(server.host(), "INFO", "ws: send_ping -1")) << "no message yet";
    // Within the pong's state a continuation reaches no plug-in, so handle_ping would have to call
    // it; the next message finds the state put back.
    client.send(WS_PING, "p");
    EXPECT_EQ(WS_PONG, client.read().opcode);
    client.send(WS_TEXT, "wait");
    expect_ping(client.read());
    client.send(WS_PONG, "");
    EXPECT_TRUE(has_line(server.host(), "INFO", "ws: send_ping 0"));
}

TEST(WebSocket_Keep_Alive, a_close_while_waiting_is_told_once)
{
    Probe_Server server(setup_with({"--ping-interval", "60", "--ping-timeout", "20"}));
    WebSocket_Client client(server.connect());
    ASSERT_TRUE(client.open("/ws/thread/ping-wait"));
    client.send(WS_TEXT, "wait"); // its plug-in does not look at the result
    expect_ping(client.read());
    client.send(WS_CLOSE, close_payload(1001, "bye"));
    const WebSocket_Frame answer = client.read();
    EXPECT_EQ(WS_CLOSE, answer.opcode);
    EXPECT_EQ(1000U, answer.close_status());
    EXPECT_TRUE(client.wire().is_closed_by_peer()) << "it does not wait for the client to close";
    ASSERT_TRUE(has_line(server.host(), "INFO", "ws: destroyed"));
    EXPECT_EQ(1U, server.host().count_log("ws: handle_close"));
    EXPECT_EQ(1U, server.host().count_log("ws: handle_close 1001 bye 3"));
    EXPECT_EQ(1U, server.host().count_log("ws: send_ping -1"));
}

TEST(WebSocket_Keep_Alive, an_end_while_waiting_is_told_once)
{
    Probe_Server server(setup_with({"--ping-interval", "60", "--ping-timeout", "20"}));
    WebSocket_Client client(server.connect());
    ASSERT_TRUE(client.open("/ws/thread/ping-wait"));
    client.send(WS_TEXT, "wait");
    expect_ping(client.read());
    client.wire().half_close();
    EXPECT_TRUE(client.wire().is_closed_by_peer());
    ASSERT_TRUE(has_line(server.host(), "INFO", "ws: destroyed"));
    EXPECT_EQ(1U, server.host().count_log("ws: handle_close"));
    EXPECT_EQ(1U, server.host().count_log("ws: handle_close 1006 (null) 0"));
}

TEST(WebSocket_Keep_Alive, waiting_within_handle_close_reads_nothing)
{
    Probe_Server server(setup_with({"--ping-interval", "60", "--ping-timeout", "20"}));
    WebSocket_Client client(server.connect());
    ASSERT_TRUE(client.open("/ws/thread/wait-in-close"));
    client.wire().send(websocket_frame(WS_TEXT, "x") +
                       websocket_frame(WS_CLOSE, close_payload(1001, "bye")));
    expect_ping(client.read());
    EXPECT_EQ(WS_CLOSE, client.read().opcode);
    EXPECT_TRUE(client.wire().is_closed_by_peer());
    ASSERT_TRUE(has_line(server.host(), "INFO", "ws: destroyed"));
    EXPECT_EQ(1U, server.host().count_log("ws: handle_close"));
    EXPECT_EQ(1U, server.host().count_log("ws: send_ping -1"));
}
