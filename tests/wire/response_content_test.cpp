// Responses with a counted body, or with one that ends with the connection.

#include "tests/support/log_lines.h"
#include "tests/support/probe_server.h"

#include <gtest/gtest.h>

#include <csignal>
#include <regex>

namespace {

Probe_Server::Setup both_plugins()
{
    Probe_Server::Setup setup;
    setup.handlers.push_back({"/response", "response_plugin", "_make_Response"});
    return setup;
}

std::string head_request(const std::string& target)
{
    return "HEAD " + target + " HTTP/1.1\r\nHost: test\r\n\r\n";
}

/// The connection serves another request, and nothing came in front of its response.
void expect_kept(Wire_Client& client)
{
    const Wire_Response next = client.exchange(get_request("/probe/hello"));
    EXPECT_EQ("HTTP/1.1 200 OK", next.status_line);
    EXPECT_EQ("Hello, World!", next.body);
}

constexpr bool HEAD_ONLY = true;

} // namespace

TEST(HTTP_Send, counted_head_is_the_header_alone_on_a_kept_connection)
{
    Probe_Server server(both_plugins());
    const auto client = server.connect();
    ASSERT_NE(nullptr, client);
    const Wire_Response response = client->exchange(head_request("/probe/hello"), HEAD_ONLY);
    EXPECT_EQ("HTTP/1.1 200 OK", response.status_line);
    EXPECT_EQ("13", response.field("content-length"));
    EXPECT_EQ("Keep-Alive", response.field("connection"));
    expect_kept(*client);
}

TEST(HTTP_Send, head_without_a_length_closes)
{
    Probe_Server server;
    const auto client = server.connect();
    ASSERT_NE(nullptr, client);
    const Wire_Response response = client->exchange(head_request("/probe/silent"), HEAD_ONLY);
    EXPECT_EQ("HTTP/1.1 200 OK", response.status_line);
    EXPECT_EQ("close", response.field("connection"));
    EXPECT_FALSE(response.has("content-length"));
    EXPECT_TRUE(client->is_closed_by_peer());
}

TEST(HTTP_Send, vector_with_the_header_goes_out_for_head_too)
{
    Probe_Server server(both_plugins());
    const auto client = server.connect();
    ASSERT_NE(nullptr, client);
    const Wire_Response response = client->exchange(head_request("/probe/vector"), HEAD_ONLY);
    EXPECT_EQ("13", response.field("content-length"));
    EXPECT_EQ("Keep-Alive", response.field("connection"));
    EXPECT_EQ("Hello, World!", client->read_exactly(13));
    expect_kept(*client);
}

TEST(HTTP_Send, body_without_a_length_ends_with_the_connection)
{
    Probe_Server server;
    const auto client = server.connect();
    ASSERT_NE(nullptr, client);
    const Wire_Response response = client->exchange(get_request("/probe/until-close"));
    EXPECT_EQ("close", response.field("connection"));
    EXPECT_FALSE(response.has("content-length"));
    EXPECT_FALSE(response.has("transfer-encoding"));
    EXPECT_EQ("Hello, World!", response.body);
    EXPECT_TRUE(response.complete);
    EXPECT_EQ(0, server.host().stop(SIGTERM));
    EXPECT_EQ(1U, count_log_lines(server.host(), "INFO", "probe: until-close result -1"));
}

TEST(HTTP_Send, client_that_asks_for_the_close_gets_it)
{
    const char* const requests[] = {
        "GET /probe/hello HTTP/1.1\r\nHost: test\r\nConnection: close\r\n\r\n",
        "GET /probe/hello HTTP/1.0\r\n\r\n",
        "GET /probe/vector HTTP/1.1\r\nHost: test\r\nConnection: close\r\n\r\n",
    };
    Probe_Server server;
    for (const char* const request : requests) {
        SCOPED_TRACE(request);
        const auto client = server.connect();
        ASSERT_NE(nullptr, client);
        const Wire_Response response = client->exchange(request);
        EXPECT_EQ("HTTP/1.1 200 OK", response.status_line);
        EXPECT_EQ("close", response.field("connection"));
        EXPECT_EQ("Hello, World!", response.body);
        EXPECT_TRUE(client->is_closed_by_peer());
    }
}

TEST(HTTP_Send, http_1_0_client_may_ask_to_be_kept)
{
    Probe_Server server(both_plugins());
    const auto client = server.connect();
    ASSERT_NE(nullptr, client);
    const Wire_Response response =
        client->exchange("GET /probe/hello HTTP/1.0\r\nConnection: keep-alive\r\n\r\n");
    EXPECT_EQ("Keep-Alive", response.field("connection"));
    EXPECT_EQ("Hello, World!", response.body);
    expect_kept(*client);
}

TEST(HTTP_Send, declared_length_ends_the_response_whatever_the_last_flag_says)
{
    Probe_Server server(both_plugins());
    const auto client = server.connect();
    ASSERT_NE(nullptr, client);
    for (const char* const target : {"/probe/pieces", "/probe/vector", "/probe/vector-body"}) {
        SCOPED_TRACE(target);
        const Wire_Response response = client->exchange(get_request(target));
        EXPECT_EQ("13", response.field("content-length"));
        EXPECT_EQ("Keep-Alive", response.field("connection"));
        EXPECT_EQ("Hello, World!", response.body);
        EXPECT_TRUE(response.complete);
    }
    expect_kept(*client);
}

TEST(HTTP_Send, call_behind_the_end_is_refused_and_logged)
{
    Probe_Server server(both_plugins());
    const auto client = server.connect();
    ASSERT_NE(nullptr, client);
    const Wire_Response response = client->exchange(get_request("/response/after-the-end"));
    EXPECT_EQ("HTTP/1.1 200 OK", response.status_line);
    EXPECT_EQ("Hello, World!", response.body);
    expect_kept(*client);
    EXPECT_EQ(0, server.host().stop(SIGTERM));
    const std::vector<std::string> expected = {
        "Call HTTP_Svc_Handler_T<P, S>::send with incorrect response state "
        "HTTP_SOCK_STATE_CONTENT_SENT",
        "Call HTTP_Svc_Handler_T<P, S>::sendv_n with incorrect response state "
        "HTTP_SOCK_STATE_CONTENT_SENT",
        "Call HTTP_Svc_Handler_T<P, S>::send with incorrect response state "
        "HTTP_SOCK_STATE_CONTENT_SENT"};
    EXPECT_EQ(expected, lines_of(server.host(), "ERROR"));
    EXPECT_EQ(1U, count_log_lines(server.host(), "INFO", "response: after the end 0 -1 -1 -1"));
}

TEST(HTTP_Send, piece_that_crosses_the_declared_length_goes_out_whole_and_ends_the_response)
{
    Probe_Server server(both_plugins());
    const auto client = server.connect();
    ASSERT_NE(nullptr, client);
    const Wire_Response response = client->exchange(get_request("/response/overrun"));
    EXPECT_EQ("5", response.field("content-length"));
    EXPECT_EQ("Hello", response.body);
    EXPECT_EQ(", World!", client->read_exactly(8));
    expect_kept(*client);
}

TEST(HTTP_Send, error_is_a_complete_response)
{
    Probe_Server server(both_plugins());
    const auto client = server.connect();
    ASSERT_NE(nullptr, client);
    const Wire_Response empty = client->exchange(get_request("/response/empty-error"));
    EXPECT_EQ("HTTP/1.1 404 Not Found", empty.status_line);
    EXPECT_EQ("0", empty.field("content-length"));
    EXPECT_EQ("Keep-Alive", empty.field("connection"));
    const Wire_Response teapot = client->exchange(get_request("/probe/teapot"));
    EXPECT_EQ(418, teapot.status);
    EXPECT_EQ("3", teapot.field("content-length"));
    EXPECT_EQ("tea", teapot.body);
    expect_kept(*client);
}

TEST(HTTP_Send, error_keeps_the_fields_and_drops_the_chunked_coding)
{
    Probe_Server server(both_plugins());
    const auto client = server.connect();
    ASSERT_NE(nullptr, client);
    const Wire_Response response = client->exchange(get_request("/response/error-over-fields"));
    EXPECT_EQ("HTTP/1.1 503 Service Unavailable", response.status_line);
    EXPECT_EQ("yes", response.field("x-kept"));
    EXPECT_FALSE(response.has("transfer-encoding"));
    EXPECT_EQ("4", response.field("content-length"));
    EXPECT_EQ("busy", response.body);
    expect_kept(*client);
}

TEST(HTTP_Send, fields_go_out_as_they_were_put_and_date_once)
{
    Probe_Server server(both_plugins());
    const auto client = server.connect();
    ASSERT_NE(nullptr, client);
    const Wire_Response response = client->exchange(get_request("/response/order"));
    const std::regex head("HTTP/1\\.1 200 OK\r\n"
                          "X-Zulu: 1\r\n"
                          "Location: /there\r\n"
                          "X-Alpha: 2\r\n"
                          "Content-Type: text/html\r\n"
                          "Content-Length: 13\r\n"
                          "Connection: Keep-Alive\r\n"
                          "Date: (Mon|Tue|Wed|Thu|Fri|Sat|Sun), \\d\\d [A-Z][a-z][a-z] \\d{4} "
                          "\\d\\d:\\d\\d:\\d\\d GMT\r\n"
                          "\r\n");
    EXPECT_TRUE(std::regex_match(response.raw_head, head)) << response.raw_head;
}

TEST(HTTP_Send, date_of_the_plugin_replaces_ours)
{
    Probe_Server server(both_plugins());
    const auto client = server.connect();
    ASSERT_NE(nullptr, client);
    const Wire_Response response = client->exchange(get_request("/response/dated"));
    EXPECT_EQ(1U, response.fields.count("date"));
    EXPECT_EQ("Sun, 06 Nov 1994 08:49:37 GMT", response.field("date"));
}

TEST(HTTP_Send, values_that_would_split_the_response_are_refused)
{
    Probe_Server server(both_plugins());
    const auto client = server.connect();
    ASSERT_NE(nullptr, client);
    const Wire_Response fields = client->exchange(get_request("/probe/bad-header"));
    EXPECT_EQ("-1 -1", fields.body);
    EXPECT_FALSE(fields.has("location"));
    EXPECT_FALSE(fields.has("x-evil"));
    EXPECT_FALSE(fields.has("x"));
    const Wire_Response reason = client->exchange(get_request("/response/reason"));
    EXPECT_EQ("HTTP/1.1 200 OK", reason.status_line);
    EXPECT_FALSE(reason.has("x-evil"));
    EXPECT_EQ(0, server.host().stop(SIGTERM));
    EXPECT_EQ(3U, lines_of(server.host(), "ERROR").size()) << server.host().log_text();
}

TEST(HTTP_Send, socket_options_are_accepted)
{
    Probe_Server server;
    const auto client = server.connect();
    ASSERT_NE(nullptr, client);
    const Wire_Response response = client->exchange(get_request("/probe/addresses"));
    EXPECT_NE(std::string::npos, response.body.find(" ssl=0 "));
    EXPECT_NE(std::string::npos, response.body.find(" inet=0 unix=-1 nodelay=0 timeout=0"))
        << response.body;
}
