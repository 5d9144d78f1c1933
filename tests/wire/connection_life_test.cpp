// A connection from its accept to its end: what keeps it, what closes it, and what the log tells.

#include "tests/support/probe_server.h"
#include "tests/wire/host_log.h"

#include <gtest/gtest.h>

#include <sys/socket.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

Probe_Server::Setup traced(const std::vector<std::string>& options = {})
{
    Probe_Server::Setup setup;
    setup.log_level = "trace";
    setup.options = options;
    return setup;
}

/// A line of that priority whose text has this begin and this end.
bool has_line_like(const Host_Process& host, const std::string& priority, const std::string& begin,
                   const std::string& end)
{
    for (const std::string& line : host.log()) {
        const std::string rest = line.substr(line.find(' ') + 1);
        if (rest.starts_with(priority + " " + begin) && rest.ends_with(end)) {
            return true;
        }
    }
    return false;
}

/// Reads to the end. @return how the connection ended: 0 or the errno of the last receive.
int end_of(const Wire_Client& client, std::string& bytes)
{
    char buffer[4096];
    ssize_t count;
    while ((count = ::recv(client.handle(), buffer, sizeof buffer, 0)) > 0) {
        bytes.append(buffer, static_cast<size_t>(count));
    }
    return count == 0 ? 0 : errno;
}

} // namespace

// ---------------------------------------------------------------- keep-alive

TEST(Connection_Keep_Alive, follows_version_and_connection_field)
{
    struct Row {
        const char* version;
        const char* field; ///< "" for none
        bool kept;
    };
    const Row rows[] = {
        {"HTTP/1.1", "", true},
        {"HTTP/1.1", "Connection: close", false},
        {"HTTP/1.1", "Connection: CLOSE", false},
        {"HTTP/1.1", "Connection: keep-alive", true},
        {"HTTP/1.1", "Connection: close, Keep-Alive", false},
        {"HTTP/1.1", "Connection: Keep-Alive, close", false},
        {"HTTP/1.1", "Connection: Keep-Alive\r\nConnection: close", false},
        {"HTTP/1.1", "Connection: closed", true},
        {"HTTP/1.1", "Connection: TE", true},
        {"HTTP/1.1", "Connection:", true},
        {"HTTP/1.2", "", true},
        {"HTTP/1.0", "", false},
        {"HTTP/1.0", "Connection: close", false},
        {"HTTP/1.0", "Connection: Keep-Alive", true},
        {"HTTP/1.0", "Connection: keep-alive", true},
        {"HTTP/1.0", "Connection: TE, Keep-Alive", true},
        {"HTTP/1.0", "Connection: close, Keep-Alive", false},
        {"HTTP/1.0", "Connection: TE", false},
    };
    Probe_Server server;
    for (const Row& row : rows) {
        const std::string field =
            row.field[0] == '\0' ? std::string() : std::string(row.field) + "\r\n";
        const std::string head = std::string(" ") + row.version + "\r\nHost: test\r\n" + field;
        for (const std::string& request :
             {"GET /probe/hello" + head + "\r\n",
              "POST /probe/collect" + head + "Content-Length: 13\r\n\r\nHello, World!",
              "POST /probe/thread/collect" + head + "Content-Length: 13\r\n\r\nHello, World!"}) {
            SCOPED_TRACE(request);
            const auto client = server.connect();
            ASSERT_NE(nullptr, client);
            const Wire_Response response = client->exchange(request);
            EXPECT_EQ("HTTP/1.1 200 OK", response.status_line);
            EXPECT_EQ("Hello, World!", response.body);
            EXPECT_EQ(row.kept ? "Keep-Alive" : "close", response.field("connection"));
            if (row.kept) {
                EXPECT_EQ(200, client->exchange(get_request("/probe/hello")).status);
            } else {
                EXPECT_TRUE(client->is_closed_by_peer());
            }
        }
    }
}

TEST(Connection_Keep_Alive, of_the_response_decides_when_it_was_completed_at_once)
{
    Probe_Server server;
    const auto client = server.connect();
    ASSERT_NE(nullptr, client);
    client->send(get_request("/probe/until-close", {"Connection: Keep-Alive"}));
    const Wire_Response response = client->read_response();
    EXPECT_EQ("close", response.field("connection"));
    EXPECT_EQ("Hello, World!", response.body);
    EXPECT_TRUE(client->at_end());
}

TEST(Connection_Keep_Alive, gives_each_request_a_fresh_request_and_response)
{
    Probe_Server server;
    const auto client = server.connect();
    ASSERT_NE(nullptr, client);
    EXPECT_EQ("POST /probe/describe /probe/describe?q q test",
              client->exchange(body_request("POST", "/probe/describe?q", "")).body);
    EXPECT_EQ(204, client->exchange(body_request("POST", "/probe/silent-204", "x")).status);
    const Wire_Response response =
        client->exchange("GET /probe/describe HTTP/1.1\r\nX-Other: y\r\n\r\n");
    EXPECT_EQ("HTTP/1.1 200 OK", response.status_line);
    EXPECT_EQ("GET /probe/describe /probe/describe - -", response.body);
}

// ---------------------------------------------------------------- the log of a life

TEST(Connection_Life, is_told_in_the_debug_log)
{
    Probe_Server server(traced({"-i", "60"}));
    auto client = server.connect();
    ASSERT_NE(nullptr, client);
    const std::string peer = peer_text(*client);
    EXPECT_EQ(200, client->exchange(get_request("/probe/hello")).status);
    EXPECT_TRUE(has_line(server.host(), "DEBUG", "HTTP connection is established by " + peer));
    EXPECT_TRUE(server.host().wait_for_log("HTTP connection received"));
    EXPECT_TRUE(has_line_like(server.host(), "DEBUG", "Scheduled HTTP idle timer ",
                              " after HTTP established."));
    EXPECT_TRUE(has_line_like(server.host(), "TRACE", "HTTP connection received", ""));
    client.reset();
    EXPECT_TRUE(
        has_line(server.host(), "DEBUG", "Cancelled 1 timers by handle_close " + peer + "."));
    EXPECT_TRUE(has_line(server.host(), "DEBUG", "HTTP connection " + peer + " is closing."));
    EXPECT_TRUE(has_line(server.host(), "INFO", "probe: handle_close hello"));
    EXPECT_EQ(0, server.host().stop(SIGTERM));
    EXPECT_EQ(1U, server.host().count_log("probe: handle_close"));
}

TEST(Connection_Life, has_no_timer_without_an_idle_time)
{
    for (const std::vector<std::string>& options :
         {std::vector<std::string>(), std::vector<std::string>{"-i", "0"}}) {
        Probe_Server server(traced(options));
        auto client = server.connect();
        ASSERT_NE(nullptr, client);
        const std::string peer = peer_text(*client);
        EXPECT_EQ(200, client->exchange(get_request("/probe/hello")).status);
        client.reset();
        EXPECT_TRUE(
            has_line(server.host(), "DEBUG", "Cancelled 0 timers by handle_close " + peer + "."));
        EXPECT_EQ(0U, count_log(server, "Scheduled HTTP idle timer"));
    }
}

TEST(Connection_Life, is_not_told_without_debugging)
{
    Probe_Server server;
    auto client = server.connect();
    ASSERT_NE(nullptr, client);
    EXPECT_EQ(200, client->exchange(get_request("/probe/hello")).status);
    client.reset();
    EXPECT_TRUE(has_line(server.host(), "INFO", "probe: handle_close hello"));
    EXPECT_EQ(0U, count_log(server, "HTTP connection"));
    EXPECT_EQ(0U, count_log(server, " timers by "));
}

TEST(Connection_Life, ends_without_an_error_line_behind_a_complete_response)
{
    Probe_Server server(traced());
    for (const std::string& request :
         {get_request("/probe/hello"), body_request("POST", "/probe/collect", "Hello, World!"),
          get_request("/probe/thread/hello")}) {
        auto client = server.connect();
        ASSERT_NE(nullptr, client);
        const std::string peer = peer_text(*client);
        EXPECT_EQ(200, client->exchange(request).status);
        client.reset();
        EXPECT_TRUE(has_line(server.host(), "DEBUG", "HTTP connection " + peer + " is closing."));
    }
    EXPECT_EQ(0U, count_log(server, "connection is closed by"));
}

TEST(Connection_Life, ends_with_an_error_line_in_the_middle_of_a_request)
{
    Probe_Server server(traced());
    for (const std::string request :
         {"", "GET /probe/hello HTTP/1.1\r\nHos",
          "POST /probe/collect HTTP/1.1\r\nContent-Length: 10\r\n\r\nHello",
          "POST /probe/thread/collect HTTP/1.1\r\nContent-Length: 10\r\n\r\nHello"}) {
        SCOPED_TRACE(request);
        auto client = server.connect();
        ASSERT_NE(nullptr, client);
        const std::string peer = peer_text(*client);
        client->send(request);
        client.reset();
        EXPECT_TRUE(has_line(server.host(), "ERROR", "HTTP connection is closed by " + peer));
        EXPECT_TRUE(has_line(server.host(), "DEBUG", "HTTP connection " + peer + " is closing."));
    }
}

TEST(Connection_Life, that_the_client_resets_is_logged_and_closed_once)
{
    for (const std::string prefix : {"/probe", "/probe/thread"}) {
        Probe_Server server;
        auto client = server.connect();
        ASSERT_NE(nullptr, client);
        const std::string peer = peer_text(*client);
        client->send("POST " + prefix + "/collect HTTP/1.1\r\nContent-Length: 10\r\n\r\nHello");
        EXPECT_TRUE(has_line(server.host(), "INFO", "probe: handle_body 5"));
        const linger reset = {1, 0};
        ::setsockopt(client->handle(), SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
        client.reset();
        EXPECT_TRUE(has_line(server.host(), "ERROR",
                             "Failed to receive data from HTTP client " + peer + ", errno=" +
                                 std::to_string(ECONNRESET) + ", Connection reset by peer"));
        EXPECT_TRUE(has_line(server.host(), "INFO", "probe: handle_close collect"));
        EXPECT_EQ(0, server.host().stop(SIGTERM));
        EXPECT_EQ(1U, server.host().count_log("probe: handle_close"));
    }
}

TEST(Connection_Life, serves_others_while_a_client_says_nothing)
{
    Probe_Server server;
    std::vector<std::unique_ptr<Wire_Client>> silent;
    for (int i = 0; i < 100; ++i) {
        silent.push_back(server.connect());
        ASSERT_NE(nullptr, silent.back());
        silent.back()->send(i % 2 == 0 ? "" : "GET /probe/he");
    }
    const auto client = server.connect();
    ASSERT_NE(nullptr, client);
    EXPECT_EQ("Hello, World!", client->exchange(get_request("/probe/hello")).body);
    for (int i = 1; i < 100; i += 2) {
        silent[static_cast<size_t>(i)]->send("llo HTTP/1.1\r\n\r\n");
        EXPECT_EQ("Hello, World!", silent[static_cast<size_t>(i)]->read_response().body);
    }
    EXPECT_EQ(0, server.host().stop(SIGTERM));
}

// ---------------------------------------------------------------- idle time

TEST(Connection_Idle, closes_a_silent_connection)
{
    Probe_Server::Setup setup;
    setup.options = {"-i", "1"};
    Probe_Server server(setup);
    const auto client = server.connect();
    ASSERT_NE(nullptr, client);
    EXPECT_TRUE(client->is_closed_by_peer());
    EXPECT_TRUE(has_line(server.host(), "INFO",
                         "HTTP connection " + peer_text(*client) + " is idle timeout."));
}

TEST(Connection_Idle, counts_from_the_last_input_and_closes_without_a_response)
{
    Probe_Server::Setup setup;
    setup.options = {"-i", "1"};
    Probe_Server server(setup);
    const auto served = server.connect();
    const auto unfinished = server.connect();
    ASSERT_NE(nullptr, served);
    ASSERT_NE(nullptr, unfinished);
    const Clock::time_point sent = Clock::now();
    unfinished->send("POST /probe/collect HTTP/1.1\r\nContent-Length: 10\r\n\r\nHello");
    EXPECT_EQ(200, served->exchange(get_request("/probe/hello")).status);
    EXPECT_TRUE(unfinished->is_closed_by_peer());
    EXPECT_TRUE(served->is_closed_by_peer());
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

TEST(Connection_Idle, leaves_a_connection_open_that_goes_on)
{
    Probe_Server::Setup setup;
    setup.options = {"-i", "2"};
    Probe_Server server(setup);
    const auto silent = server.connect();
    const auto busy = server.connect();
    ASSERT_NE(nullptr, silent);
    ASSERT_NE(nullptr, busy);
    // Requests go on until the silent one, which is as old, has been closed.
    while (silent->is_silent(std::chrono::milliseconds(100))) {
        ASSERT_EQ(200, busy->exchange(get_request("/probe/hello")).status);
    }
    EXPECT_EQ(200, busy->exchange(get_request("/probe/hello")).status);
    EXPECT_TRUE(has_line(server.host(), "INFO",
                         "HTTP connection " + peer_text(*silent) + " is idle timeout."));
    EXPECT_EQ(0U, count_log(server, peer_text(*busy) + " is idle timeout."));
}

// ---------------------------------------------------------------- lingering close

TEST(Connection_Lingering_Close, lets_the_client_read_the_refusal_of_a_large_request)
{
    Probe_Server server;
    const std::string request = body_request("POST", "/nothing", std::string(4 * 1024 * 1024, 'x'));
    for (int i = 0; i < 20; ++i) {
        const auto client = server.connect();
        ASSERT_NE(nullptr, client);
        client->send(request); // fails when the server has had enough
        const Wire_Response response = client->read_response();
        ASSERT_EQ(404, response.status);
        ASSERT_EQ("0", response.field("content-length"));
    }
}

TEST(Connection_Lingering_Close, takes_all_that_a_client_sends_before_it_reads)
{
    Probe_Server server;
    const std::string body(10 * 1024 * 1024, 'x');
    for (const std::string target : {"/nothing", "/probe/thread/until-close"}) {
        SCOPED_TRACE(target);
        const auto client = server.connect();
        ASSERT_NE(nullptr, client);
        ASSERT_TRUE(client->send(body_request("POST", target, body)));
        std::string response;
        EXPECT_EQ(0, end_of(*client, response)) << std::strerror(errno);
        EXPECT_EQ(0U, response.find("HTTP/1.1 ")) << response;
    }
}

TEST(Connection_Lingering_Close, takes_the_rest_of_a_request_and_ends_in_order)
{
    Probe_Server server;
    const std::string body(512 * 1024, 'x');
    for (const std::string target :
         {"/nothing", "/probe/until-close", "/probe/thread/until-close", "/probe/../x"}) {
        SCOPED_TRACE(target);
        const auto client = server.connect();
        ASSERT_NE(nullptr, client);
        ASSERT_TRUE(client->send(body_request("POST", target, body)));
        std::string response;
        EXPECT_EQ(0, end_of(*client, response)) << std::strerror(errno);
        EXPECT_EQ(0U, response.find("HTTP/1.1 ")) << response;
    }
}

TEST(Connection_Lingering_Close, holds_up_no_other_connection)
{
    Probe_Server server;
    const auto refused = server.connect();
    ASSERT_NE(nullptr, refused);
    refused->send("POST /nothing HTTP/1.1\r\nContent-Length: 1000000\r\n\r\nHello");
    EXPECT_EQ(404, refused->read_response().status);
    // The server still waits for the rest.
    const Clock::time_point begin = Clock::now();
    const auto client = server.connect();
    ASSERT_NE(nullptr, client);
    EXPECT_EQ("Hello, World!", client->exchange(get_request("/probe/hello")).body);
    EXPECT_LT(Clock::now() - begin, std::chrono::seconds(2));
    EXPECT_TRUE(refused->is_closed_by_peer());
}

TEST(Connection_Lingering_Close, does_not_hold_up_the_end_of_the_server)
{
    Probe_Server server;
    const auto refused = server.connect();
    ASSERT_NE(nullptr, refused);
    refused->send("POST /nothing HTTP/1.1\r\nContent-Length: 1000000\r\n\r\nHello");
    EXPECT_EQ(404, refused->read_response().status);
    const Clock::time_point begin = Clock::now();
    EXPECT_EQ(0, server.host().stop(SIGTERM));
    EXPECT_LT(Clock::now() - begin, std::chrono::seconds(2));
}
