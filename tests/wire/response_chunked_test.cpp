// Responses with a chunked body, and those written through a stream.

#include "tests/support/log_lines.h"
#include "tests/support/probe_server.h"

#include <gtest/gtest.h>

#include <csignal>

namespace {

constexpr bool HEAD_ONLY = true;

Probe_Server::Setup both_plugins()
{
    Probe_Server::Setup setup;
    setup.handlers.push_back({"/response", "response_plugin", "_make_Response"});
    return setup;
}

/// What follows the header when the client asks for the close: the chunks as they are.
std::string raw_chunks(const Probe_Server& server, const std::string& target)
{
    const auto client = server.connect();
    if (client == nullptr) {
        return "no connection";
    }
    const Wire_Response head =
        client->exchange(get_request(target, {"Connection: close"}), HEAD_ONLY);
    EXPECT_EQ("HTTP/1.1 200 OK", head.status_line);
    EXPECT_EQ("chunked", head.field("transfer-encoding"));
    EXPECT_EQ("close", head.field("connection"));
    EXPECT_FALSE(head.has("content-length"));
    return client->read_to_end();
}

void expect_kept(Wire_Client& client)
{
    const Wire_Response next = client.exchange(get_request("/probe/hello"));
    EXPECT_EQ("HTTP/1.1 200 OK", next.status_line);
    EXPECT_EQ("Hello, World!", next.body);
}

} // namespace

TEST(HTTP_Send, chunked_response_keeps_the_connection)
{
    Probe_Server server;
    const auto client = server.connect();
    ASSERT_NE(nullptr, client);
    for (const char* const target : {"/probe/chunked", "/probe/chunked-vector"}) {
        SCOPED_TRACE(target);
        const Wire_Response response = client->exchange(get_request(target));
        EXPECT_EQ("chunked", response.field("transfer-encoding"));
        EXPECT_EQ("Keep-Alive", response.field("connection"));
        EXPECT_FALSE(response.has("content-length"));
        EXPECT_EQ("Hello, World!", response.body);
        EXPECT_TRUE(response.complete);
    }
    expect_kept(*client);
}

TEST(HTTP_Send, chunked_head_keeps_its_body)
{
    Probe_Server server;
    const auto client = server.connect();
    ASSERT_NE(nullptr, client);
    const Wire_Response head =
        client->exchange("HEAD /probe/chunked HTTP/1.1\r\nHost: test\r\n\r\n", HEAD_ONLY);
    EXPECT_EQ("chunked", head.field("transfer-encoding"));
    const std::string chunks = "7\r\nHello, \r\n6\r\nWorld!\r\n0\r\n\r\n";
    EXPECT_EQ(chunks, client->read_exactly(chunks.size()));
    expect_kept(*client);
}

TEST(HTTP_Send, empty_piece_that_is_not_the_last_writes_nothing)
{
    Probe_Server server(both_plugins());
    EXPECT_EQ("2\r\nab\r\n1\r\nc\r\n0\r\n\r\n", raw_chunks(server, "/response/gaps"));
    EXPECT_EQ("2\r\nab\r\n1\r\nc\r\n0\r\n\r\n", raw_chunks(server, "/response/vector-gaps"));
    EXPECT_EQ(0, server.host().stop(SIGTERM));
    // The last piece asks for the close, which the client wanted.
    EXPECT_EQ(2U, count_log_lines(server.host(), "INFO", "response: gaps -1"));
    EXPECT_TRUE(lines_of(server.host(), "ERROR").empty());
}

TEST(HTTP_Send, chunked_response_to_http_1_0_closes)
{
    Probe_Server server;
    const auto client = server.connect();
    ASSERT_NE(nullptr, client);
    const Wire_Response response = client->exchange("GET /probe/chunked HTTP/1.0\r\n\r\n");
    EXPECT_EQ("close", response.field("connection"));
    EXPECT_EQ("Hello, World!", response.body);
    EXPECT_TRUE(client->is_closed_by_peer());
}

TEST(HTTP_IO_ostreambuf, sends_when_the_buffer_is_full_and_the_rest_at_the_end)
{
    Probe_Server server(both_plugins());
    EXPECT_EQ("5\r\nHello\r\n5\r\nWorld\r\n0\r\n\r\n", raw_chunks(server, "/response/stream-five"));
    EXPECT_EQ("2\r\nHe\r\n3\r\nllo\r\n0\r\n\r\n", raw_chunks(server, "/response/stream-flush"));
}

TEST(HTTP_IO_ostreambuf, keeps_the_connection)
{
    Probe_Server server;
    const auto client = server.connect();
    ASSERT_NE(nullptr, client);
    const Wire_Response response = client->exchange(get_request("/probe/stream"));
    EXPECT_EQ("chunked", response.field("transfer-encoding"));
    EXPECT_EQ("Hello, World!", response.body);
    expect_kept(*client);
}

TEST(HTTP_IO_ostreambuf, writes_a_counted_body)
{
    Probe_Server server(both_plugins());
    const auto client = server.connect();
    ASSERT_NE(nullptr, client);
    const Wire_Response response = client->exchange(get_request("/response/stream-counted"));
    EXPECT_EQ("13", response.field("content-length"));
    EXPECT_EQ("Hello, World!", response.body);
    expect_kept(*client);
    EXPECT_EQ(0, server.host().stop(SIGTERM));
    EXPECT_TRUE(lines_of(server.host(), "ERROR").empty());
}

TEST(HTTP_IO_ostreambuf, without_a_write_sends_the_header_alone)
{
    Probe_Server server(both_plugins());
    const auto client = server.connect();
    ASSERT_NE(nullptr, client);
    const Wire_Response response = client->exchange(get_request("/response/stream-nothing"));
    EXPECT_EQ("HTTP/1.1 200 OK", response.status_line);
    EXPECT_EQ("close", response.field("connection"));
    EXPECT_EQ("", response.body);
    EXPECT_TRUE(response.complete);
    EXPECT_EQ(0, server.host().stop(SIGTERM));
    EXPECT_TRUE(lines_of(server.host(), "ERROR").empty());
}

TEST(HTTP_IO_ostreambuf, behind_a_complete_response_is_a_wrong_state_call)
{
    Probe_Server server(both_plugins());
    const auto client = server.connect();
    ASSERT_NE(nullptr, client);
    EXPECT_EQ("done", client->exchange(get_request("/response/stream-after-the-end")).body);
    expect_kept(*client);
    EXPECT_EQ(0, server.host().stop(SIGTERM));
    EXPECT_EQ(std::vector<std::string>{"Call HTTP_Svc_Handler_T<P, S>::send with incorrect "
                                       "response state HTTP_SOCK_STATE_CONTENT_SENT"},
              lines_of(server.host(), "ERROR"));
}

TEST(HTTP_IO_ostreambuf, without_a_buffer_goes_bad_and_ends_the_response)
{
    Probe_Server server(both_plugins());
    const auto client = server.connect();
    ASSERT_NE(nullptr, client);
    const Wire_Response response = client->exchange(get_request("/response/stream-without-buffer"));
    EXPECT_EQ("", response.body);
    EXPECT_TRUE(response.complete);
    expect_kept(*client);
    EXPECT_EQ(0, server.host().stop(SIGTERM));
    EXPECT_EQ(1U, count_log_lines(server.host(), "INFO", "response: stream is bad"));
    const std::vector<std::string> emergencies = lines_of(server.host(), "EMERGENCY");
    ASSERT_EQ(1U, emergencies.size());
    EXPECT_EQ(0U, emergencies[0].find("Unexpected error in httpd/http_io_ostreambuf.cpp:"))
        << emergencies[0];
    EXPECT_NE(std::string::npos, emergencies[0].find(", size_(0) <= 0(0):")) << emergencies[0];
}
