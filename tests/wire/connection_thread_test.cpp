// Connections that a plug-in asked to be served by a thread of their own.

#include "tests/support/probe_server.h"
#include "tests/wire/host_log.h"

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <memory>
#include <string>
#include <vector>

namespace {

Probe_Server::Setup with_options(const std::vector<std::string>& options)
{
    Probe_Server::Setup setup;
    setup.options = options;
    return setup;
}

} // namespace

TEST(Connection_Thread, serves_every_later_request_too)
{
    Probe_Server server;
    const auto reactive = server.connect();
    const auto threaded = server.connect();
    const auto other = server.connect();
    ASSERT_NE(nullptr, reactive);
    ASSERT_NE(nullptr, threaded);
    ASSERT_NE(nullptr, other);
    const std::string loop = reactive->exchange(get_request("/probe/tid")).body;
    EXPECT_EQ(loop, threaded->exchange(get_request("/probe/tid")).body);
    const std::string worker = threaded->exchange(get_request("/probe/thread/tid")).body;
    EXPECT_NE(loop, worker);
    // Also for a plug-in that would have been served by the loop, and behind a body.
    EXPECT_EQ(worker, threaded->exchange(get_request("/probe/tid")).body);
    EXPECT_EQ("Hello", threaded->exchange(body_request("POST", "/probe/collect", "Hello")).body);
    EXPECT_EQ(worker, threaded->exchange(get_request("/probe/thread/tid")).body);
    EXPECT_EQ(loop, reactive->exchange(get_request("/probe/tid")).body);
    // Every connection has a thread of its own.
    const std::string another = other->exchange(get_request("/probe/thread/tid")).body;
    EXPECT_NE(worker, another);
    EXPECT_NE(loop, another);
    EXPECT_EQ(0, server.host().stop(SIGTERM));
}

TEST(Connection_Thread, is_told_in_the_debug_log)
{
    Probe_Server::Setup setup = with_options({"-i", "60"});
    setup.log_level = "trace";
    Probe_Server server(setup);
    auto client = server.connect();
    ASSERT_NE(nullptr, client);
    const std::string peer = peer_text(*client);
    EXPECT_EQ(200, client->exchange(get_request("/probe/thread/hello")).status);
    EXPECT_TRUE(has_line(server.host(), "DEBUG",
                         "Cancelled 1 timers for spawning worker thread " + peer + "."));
    EXPECT_EQ(200, client->exchange(get_request("/probe/thread/hello")).status);
    client.reset();
    EXPECT_TRUE(has_line(server.host(), "DEBUG", "HTTP connection " + peer + " is closing."));
    EXPECT_TRUE(has_line(server.host(), "INFO", "probe: handle_close hello"));
    // The worker has no timer to cancel, and is started once.
    EXPECT_EQ(0U, count_log(server, "timers by handle_close " + peer));
    EXPECT_EQ(1U, count_log(server, "for spawning worker thread"));
    EXPECT_EQ(1U, count_log(server, "HTTP connection " + peer + " is closing."));
}

TEST(Connection_Thread, has_no_timer_to_cancel_without_an_idle_time)
{
    Probe_Server::Setup setup;
    setup.log_level = "trace";
    Probe_Server server(setup);
    const auto client = server.connect();
    ASSERT_NE(nullptr, client);
    EXPECT_EQ(200, client->exchange(get_request("/probe/thread/hello")).status);
    EXPECT_TRUE(
        has_line(server.host(), "DEBUG",
                 "Cancelled 0 timers for spawning worker thread " + peer_text(*client) + "."));
}

TEST(Connection_Thread, serves_pipelined_requests)
{
    Probe_Server server;
    const auto client = server.connect();
    ASSERT_NE(nullptr, client);
    std::string requests;
    for (int i = 0; i < 20; ++i) {
        requests += get_request("/probe/thread/describe?" + std::to_string(i));
        requests += body_request("POST", "/probe/collect", "body " + std::to_string(i));
    }
    client->send(requests);
    for (int i = 0; i < 20; ++i) {
        const std::string number = std::to_string(i);
        EXPECT_EQ("GET /probe/thread/describe /probe/thread/describe?" + number + " " + number +
                      " test",
                  client->read_response().body);
        EXPECT_EQ("body " + number, client->read_response().body);
    }
}

TEST(Connection_Thread, begins_behind_requests_that_the_loop_served)
{
    Probe_Server server;
    const auto client = server.connect();
    ASSERT_NE(nullptr, client);
    client->send(get_request("/probe/tid") + get_request("/probe/tid") +
                 get_request("/probe/thread/tid") + get_request("/probe/tid"));
    const std::string loop = client->read_response().body;
    EXPECT_EQ(loop, client->read_response().body);
    const std::string worker = client->read_response().body;
    EXPECT_NE(loop, worker);
    EXPECT_EQ(worker, client->read_response().body);
}

TEST(Connection_Thread, awaits_a_body)
{
    Probe_Server server;
    const auto client = server.connect();
    ASSERT_NE(nullptr, client);
    client->send("POST /probe/thread/collect HTTP/1.1\r\nContent-Length: 10\r\n\r\nHello");
    EXPECT_TRUE(server.host().wait_for_log_count("probe: handle_body 5", 1));
    client->send("World");
    EXPECT_EQ("HelloWorld", client->read_response().body);
    client->send("POST /probe/thread/collect HTTP/1.1\r\nExpect: 100-continue\r\n"
                 "Transfer-Encoding: chunked\r\n\r\n");
    const std::string expected = "HTTP/1.1 100 Continue\r\n\r\n";
    EXPECT_EQ(expected, client->read_exactly(expected.size()));
    client->send("5\r\nHello\r\n0\r\n\r\n");
    EXPECT_EQ("Hello", client->read_response().body);
}

TEST(Connection_Thread, refuses_as_the_loop_does)
{
    Probe_Server::Setup setup;
    setup.handlers.push_back({"/guarded", "probe_plugin", "_make_Probe"});
    setup.authenticators = {{"/guarded", "probe_plugin", "_make_Probe_Auth"}};
    Probe_Server server(setup);
    struct Row {
        std::string request;
        int status;
    };
    const Row rows[] = {
        {get_request("/guarded/thread/hello", {"X-Pass: 401"}), 401},
        {get_request("/probe/thread/silent"), 411},
        {get_request("/probe/../x"), 400},
        {get_request("/nothing"), 404},
        {get_request("/probe/reactive/hello"), 500},
        {get_request("/probe/hello", {"Upgrade: h2c"}), 501},
        {get_request("/probe/hello", {"Upgrade: websocket"}), 400},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.request);
        const auto client = server.connect();
        ASSERT_NE(nullptr, client);
        EXPECT_EQ(200, client->exchange(get_request("/probe/thread/hello")).status);
        client->send(row.request + get_request("/probe/never"));
        EXPECT_EQ(row.status, client->read_response().status);
        EXPECT_TRUE(client->is_closed_by_peer());
    }
    EXPECT_EQ(0U, count_log(server, "/probe/never"));
}

TEST(Connection_Thread, may_be_the_first_and_only_request)
{
    Probe_Server server;
    for (const std::string& request : {get_request("/probe/thread/hello", {"Connection: close"}),
                                       get_request("/probe/thread/until-close")}) {
        const auto client = server.connect();
        ASSERT_NE(nullptr, client);
        client->send(request);
        EXPECT_EQ("Hello, World!", client->read_response().body);
        EXPECT_TRUE(client->at_end() || client->is_closed_by_peer());
    }
    const auto failed = server.connect();
    ASSERT_NE(nullptr, failed);
    failed->send(get_request("/probe/thread/fail"));
    EXPECT_TRUE(failed->is_closed_by_peer());
    EXPECT_EQ(1U, count_log(server, "probe: handle_close fail"));
}

TEST(Connection_Thread, drops_malformed_input_without_an_answer)
{
    Probe_Server server;
    const auto header = server.connect();
    ASSERT_NE(nullptr, header);
    EXPECT_EQ(200, header->exchange(get_request("/probe/thread/hello")).status);
    header->send("GET /probe/hello HTTP/1.1\nHost: test\n\n");
    EXPECT_TRUE(header->is_closed_by_peer());
    EXPECT_TRUE(
        has_line(server.host(), "ERROR",
                 "Failed to parse HTTP header by " + peer_text(*header) + ", parser state=-1"));

    const auto chunk = server.connect();
    ASSERT_NE(nullptr, chunk);
    chunk->send("POST /probe/thread/collect HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\nx\r\n");
    EXPECT_TRUE(chunk->is_closed_by_peer());
    EXPECT_TRUE(
        has_line(server.host(), "ERROR", "Failed to parse HTTP chunk by " + peer_text(*chunk)));
}

TEST(Connection_Thread, closes_the_plug_in_once_when_the_client_disappears)
{
    for (const std::string request :
         {"GET /probe/thread/hello HTTP/1.1\r\n\r\n",
          "POST /probe/thread/count HTTP/1.1\r\nContent-Length: 10\r\n\r\nHello"}) {
        SCOPED_TRACE(request);
        Probe_Server server;
        auto client = server.connect();
        ASSERT_NE(nullptr, client);
        client->send(request);
        EXPECT_TRUE(server.host().wait_for_log("probe: handle_request"));
        client.reset();
        EXPECT_TRUE(server.host().wait_for_log("probe: handle_close"));
        EXPECT_EQ(0, server.host().stop(SIGTERM));
        EXPECT_EQ(1U, server.host().count_log("probe: handle_close"));
    }
}

TEST(Connection_Thread, is_closed_when_it_is_idle)
{
    using Clock = std::chrono::steady_clock;
    Probe_Server server(with_options({"-i", "1"}));
    const auto served = server.connect();
    const auto unfinished = server.connect();
    ASSERT_NE(nullptr, served);
    ASSERT_NE(nullptr, unfinished);
    const Clock::time_point sent = Clock::now();
    unfinished->send("POST /probe/thread/collect HTTP/1.1\r\nContent-Length: 10\r\n\r\nHello");
    EXPECT_EQ(200, served->exchange(get_request("/probe/thread/hello")).status);
    EXPECT_TRUE(served->is_closed_by_peer());
    EXPECT_TRUE(unfinished->is_closed_by_peer());
    EXPECT_GE(Clock::now() - sent, std::chrono::seconds(1));
    EXPECT_TRUE(has_line(server.host(), "INFO",
                         "HTTP connection " + peer_text(*served) + " is idle timeout."));
    EXPECT_TRUE(has_line(server.host(), "INFO",
                         "HTTP connection " + peer_text(*unfinished) + " is idle timeout."));
    EXPECT_EQ(0, server.host().stop(SIGTERM));
    EXPECT_EQ(1U, server.host().count_log("probe: handle_close hello"));
    EXPECT_EQ(1U, server.host().count_log("probe: handle_close collect"));
    EXPECT_EQ(0U, server.host().count_log(" ERROR "));
}

TEST(Connection_Thread, serves_many_connections_at_once)
{
    Probe_Server server;
    std::vector<std::unique_ptr<Wire_Client>> clients;
    for (int i = 0; i < 50; ++i) {
        clients.push_back(server.connect());
        ASSERT_NE(nullptr, clients.back());
        clients.back()->send(
            "POST /probe/thread/collect HTTP/1.1\r\nContent-Length: 10\r\n\r\nHello");
    }
    for (const auto& client : clients) {
        client->send("World" + get_request("/probe/hello"));
    }
    for (const auto& client : clients) {
        EXPECT_EQ("HelloWorld", client->read_response().body);
        EXPECT_EQ("Hello, World!", client->read_response().body);
    }
    // Ends also while the threads wait for their next requests.
    EXPECT_EQ(0, server.host().stop(SIGTERM));
    EXPECT_EQ(50U, server.host().count_log("probe: handle_close"));
}
