// Plug-ins that stop the reading of a connection and answer from another thread.

#include "tests/support/probe_server.h"
#include "tests/wire/host_log.h"

#include <gtest/gtest.h>

#include <csignal>
#include <fstream>
#include <string>
#include <vector>

namespace {

/// Where the connection is driven: by its loop, or by a worker thread.
const std::vector<std::string> PREFIXES = {"/probe", "/probe/thread"};

/// Lets every answer that waits for it pass.
void open_gate(Probe_Server& server)
{
    const auto client = server.connect();
    ASSERT_NE(nullptr, client);
    EXPECT_EQ(200, client->exchange(get_request("/probe/gate-open")).status);
}

/// The number of the first log line that holds `text`; beyond the last where there is none.
size_t place_of(const Host_Process& host, const std::string& text)
{
    const std::vector<std::string> lines = host.log();
    size_t place = 0;
    while (place < lines.size() && lines[place].find(text) == std::string::npos) {
        ++place;
    }
    return place;
}

} // namespace

TEST(Connection_Suspend, serves_the_next_request_after_the_answer_of_another_thread)
{
    for (const std::string& prefix : PREFIXES) {
        SCOPED_TRACE(prefix);
        Probe_Server server;
        const auto client = server.connect();
        ASSERT_NE(nullptr, client);
        for (int i = 0; i < 20; ++i) {
            const std::string body = "body " + std::to_string(i);
            ASSERT_EQ(body, client->exchange(body_request("POST", prefix + "/suspend", body)).body);
            ASSERT_EQ(body,
                      client->exchange(chunked_request("PUT", prefix + "/suspend", {body})).body);
            ASSERT_EQ("Hello, World!", client->exchange(get_request("/probe/hello")).body);
        }
        EXPECT_EQ(0, server.host().stop(SIGTERM));
        EXPECT_EQ(1U, server.host().count_log("probe: handle_close"));
    }
}

TEST(Connection_Suspend, serves_what_was_pipelined_behind_it)
{
    for (const std::string& prefix : PREFIXES) {
        SCOPED_TRACE(prefix);
        Probe_Server server;
        const auto client = server.connect();
        ASSERT_NE(nullptr, client);
        std::string requests;
        for (int i = 0; i < 20; ++i) {
            requests += body_request("POST", prefix + "/suspend", "body " + std::to_string(i));
            requests += i % 2 == 0 ? get_request("/probe/hello") : "";
        }
        client->send(requests);
        for (int i = 0; i < 20; ++i) {
            ASSERT_EQ("body " + std::to_string(i), client->read_response().body);
            if (i % 2 == 0) {
                ASSERT_EQ("Hello, World!", client->read_response().body);
            }
        }
    }
}

TEST(Connection_Suspend, reads_nothing_until_the_answer_is_complete)
{
    for (const std::string& prefix : PREFIXES) {
        SCOPED_TRACE(prefix);
        Probe_Server server;
        const auto client = server.connect();
        ASSERT_NE(nullptr, client);
        // One request lies in the buffer already, the other comes while reading is suspended.
        client->send(body_request("POST", prefix + "/gate", "Hello") +
                     get_request("/probe/describe?1"));
        EXPECT_TRUE(server.host().wait_for_log("probe: handle_body 5"));
        client->send(get_request("/probe/describe?2"));
        open_gate(server);
        EXPECT_EQ("Hello", client->read_response().body);
        EXPECT_EQ("GET /probe/describe /probe/describe?1 1 test", client->read_response().body);
        EXPECT_EQ("GET /probe/describe /probe/describe?2 2 test", client->read_response().body);
        flush_log(server);
        EXPECT_LT(place_of(server.host(), "probe: gate passed"),
                  place_of(server.host(), "probe: handle_request GET /probe/describe"));
    }
}

TEST(Connection_Suspend, holds_up_no_other_connection)
{
    Probe_Server server;
    const auto suspended = server.connect();
    ASSERT_NE(nullptr, suspended);
    suspended->send(body_request("POST", "/probe/gate", "Hello"));
    EXPECT_TRUE(server.host().wait_for_log("probe: handle_body 5"));
    const auto client = server.connect();
    ASSERT_NE(nullptr, client);
    EXPECT_EQ("World", client->exchange(body_request("POST", "/probe/suspend", "World")).body);
    open_gate(server);
    EXPECT_EQ("Hello", suspended->read_response().body);
}

TEST(Connection_Suspend, closes_behind_the_answer_without_keep_alive)
{
    for (const std::string& prefix : PREFIXES) {
        for (const std::string mode : {"/suspend", "/gate"}) {
            SCOPED_TRACE(prefix + mode);
            Probe_Server server;
            const auto client = server.connect();
            ASSERT_NE(nullptr, client);
            client->send(body_request("POST", prefix + mode, "Hello", {"Connection: close"}) +
                         get_request("/probe/never"));
            EXPECT_TRUE(server.host().wait_for_log("probe: handle_body 5"));
            open_gate(server);
            const Wire_Response response = client->read_response();
            EXPECT_EQ("close", response.field("connection"));
            EXPECT_EQ("Hello", response.body);
            EXPECT_TRUE(client->is_closed_by_peer());
            EXPECT_EQ(0U, count_log(server, "/probe/never"));
            EXPECT_EQ(1U, count_lines(server, "INFO", "probe: handle_close " + mode.substr(1)));
        }
    }
}

TEST(Connection_Suspend, outlives_a_client_that_disappears)
{
    for (const std::string& prefix : PREFIXES) {
        SCOPED_TRACE(prefix);
        Probe_Server server;
        auto client = server.connect();
        ASSERT_NE(nullptr, client);
        client->send(body_request("POST", prefix + "/gate", "Hello"));
        EXPECT_TRUE(server.host().wait_for_log("probe: handle_body 5"));
        client.reset();
        open_gate(server);
        EXPECT_TRUE(has_line(server.host(), "INFO", "probe: handle_close gate"));
        const auto next = server.connect();
        ASSERT_NE(nullptr, next);
        EXPECT_EQ(200, next->exchange(get_request("/probe/hello")).status);
        EXPECT_EQ(0, server.host().stop(SIGTERM));
        EXPECT_EQ(1U, count_lines_so_far(server.host(), "INFO", "probe: handle_close gate"));
    }
}

TEST(Connection_Suspend, may_be_closed_as_idle_before_the_answer)
{
    Probe_Server::Setup setup;
    setup.options = {"-i", "1"};
    Probe_Server server(setup);
    const auto client = server.connect();
    ASSERT_NE(nullptr, client);
    client->send(body_request("POST", "/probe/gate", "Hello"));
    EXPECT_TRUE(server.host().wait_for_log("probe: handle_body 5"));
    EXPECT_TRUE(has_line(server.host(), "INFO",
                         "HTTP connection " + peer_text(*client) + " is idle timeout."));
    EXPECT_TRUE(has_line(server.host(), "INFO", "probe: handle_close gate"));
    // The plug-in still holds the connection, and lets go of it now.
    open_gate(server);
    client->read_to_end();
    EXPECT_TRUE(client->at_end());
    EXPECT_EQ(0, server.host().stop(SIGTERM));
    EXPECT_EQ(1U, count_lines_so_far(server.host(), "INFO", "probe: handle_close gate"));
}

TEST(Connection_Suspend, leaves_one_access_line_for_each_request)
{
    for (const std::string& prefix : PREFIXES) {
        SCOPED_TRACE(prefix);
        const Temporary_Folder folder;
        const std::string path = folder.path() + "/access.log";
        Probe_Server::Setup setup;
        setup.options = {"-l", path};
        Probe_Server server(setup);
        const auto client = server.connect();
        ASSERT_NE(nullptr, client);
        std::string expected;
        for (int i = 0; i < 5; ++i) {
            EXPECT_EQ("Hello",
                      client->exchange(body_request("POST", prefix + "/suspend", "Hello")).body);
            client->send(body_request("POST", prefix + "/suspend", "Hello") +
                         get_request("/probe/hello"));
            EXPECT_EQ("Hello", client->read_response().body);
            EXPECT_EQ("Hello, World!", client->read_response().body);
            expected += "@POST " + prefix + "/suspend HTTP/1.1 200 5 5\n";
            expected += "@POST " + prefix + "/suspend HTTP/1.1 200 5 5\n";
            expected += "@GET /probe/hello HTTP/1.1 200 0 13\n";
        }
        EXPECT_EQ(0, server.host().stop(SIGTERM));
        std::ifstream file(path);
        std::string lines;
        for (std::string line; std::getline(file, line);) {
            lines += line.substr(line.rfind('@')) + "\n";
        }
        EXPECT_EQ(expected, lines);
    }
}
