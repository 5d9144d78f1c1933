// Clients that go away, or do not read, while their response is sent.

#include "tests/support/log_lines.h"
#include "tests/support/probe_server.h"

#include <gtest/gtest.h>

#include <sys/socket.h>

#include <algorithm>
#include <csignal>
#include <fstream>
#include <iterator>

namespace {

Probe_Server::Setup with_options(const std::vector<std::string>& options)
{
    Probe_Server::Setup setup;
    setup.options = options;
    setup.handlers.push_back({"/response", "response_plugin", "_make_Response"});
    return setup;
}

/// Ends the connection with a reset.
void reset(std::unique_ptr<Wire_Client>& client)
{
    const linger at_once = {1, 0};
    ::setsockopt(client->handle(), SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
    client.reset();
}

std::string content_of(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

struct Large_Response {
    const char* how;  ///< the query of the plug-in's "large"
    const char* part; ///< what the error line calls the part that could not be sent
    const char* state;
};

/// What the test runner prints of it.
[[maybe_unused]] void PrintTo(const Large_Response& response, std::ostream* out)
{
    *out << response.how;
}

constexpr Large_Response LARGE_RESPONSES[] = {
    {"head", "headers", "HTTP_SOCK_STATE_HEADER_SENDING"},
    {"head-vector", "headers", "HTTP_SOCK_STATE_HEADER_SENDING"},
    {"head-chunked", "headers", "HTTP_SOCK_STATE_HEADER_SENDING"},
    {"head-chunked-vector", "headers", "HTTP_SOCK_STATE_HEADER_SENDING"},
    {"body", "body", "HTTP_SOCK_STATE_CONTENT_SENDING"},
    {"body-vector", "body", "HTTP_SOCK_STATE_CONTENT_SENDING"},
    {"body-chunked", "body", "HTTP_SOCK_STATE_CONTENT_SENDING"},
    {"body-chunked-vector", "body", "HTTP_SOCK_STATE_CONTENT_SENDING"},
};

class HTTP_Send_Large : public testing::TestWithParam<Large_Response> {};

} // namespace

TEST_P(HTTP_Send_Large, failure_is_logged_and_leaves_the_state)
{
    const Large_Response& response = GetParam();
    Probe_Server server(with_options({}));
    auto client = server.connect();
    ASSERT_NE(nullptr, client);
    const std::string name = client_name(*client);
    ASSERT_TRUE(client->send(get_request("/response/thread/large?" + std::string(response.how))));
    ASSERT_EQ("HTTP/1.1 200 OK\r\n", client->read_exactly(17));
    reset(client);
    EXPECT_TRUE(server.host().wait_for_log("response: handle_close"));
    EXPECT_EQ(0, server.host().stop(SIGTERM));

    std::vector<std::string> expected = {"Failed to send " + std::string(response.part) +
                                         " to HTTP client " + name + ": Connection reset by peer"};
    if (std::string(response.part) == "headers") { // the plug-in tries once more
        const bool vector = std::string(response.how).find("vector") != std::string::npos;
        expected.push_back(std::string("Call HTTP_Svc_Handler_T<P, S>::") +
                           (vector ? "sendv_n" : "send") + " with incorrect response state " +
                           response.state);
    }
    EXPECT_EQ(expected, lines_of(server.host(), "ERROR"));
    EXPECT_EQ(1U, count_log_lines(server.host(), "INFO",
                                  "response: large -1 " + std::string(response.state)));
}

INSTANTIATE_TEST_SUITE_P(Ways, HTTP_Send_Large, testing::ValuesIn(LARGE_RESPONSES),
                         [](const testing::TestParamInfo<Large_Response>& row) {
                             std::string name = row.param.how;
                             std::replace(name.begin(), name.end(), '-', '_');
                             return name;
                         });

TEST(HTTP_Send_Failure, in_the_reactor_closes_the_connection_and_serves_on)
{
    Probe_Server server(with_options({}));
    auto client = server.connect();
    ASSERT_NE(nullptr, client);
    const std::string name = client_name(*client);
    ASSERT_TRUE(client->send(get_request("/response/large?body")));
    ASSERT_EQ("HTTP/1.1 200 OK\r\n", client->read_exactly(17));
    reset(client);
    EXPECT_TRUE(wait_for_log_line(server.host(), "ERROR",
                                  "Failed to send body to HTTP client " + name +
                                      ": Connection reset by peer"));
    EXPECT_TRUE(server.host().wait_for_log("response: handle_close"));
    const auto next = server.connect();
    ASSERT_NE(nullptr, next);
    EXPECT_EQ("Hello, World!", next->exchange(get_request("/probe/hello")).body);
}

TEST(HTTP_Send_Failure, of_a_client_that_never_reads_comes_after_the_send_timeout)
{
    Probe_Server server(with_options({"--socket-send-timeout=1"}));
    const auto client = server.connect();
    ASSERT_NE(nullptr, client);
    const std::string name = client_name(*client);
    ASSERT_TRUE(client->send(get_request("/response/thread/large?body")));
    EXPECT_TRUE(wait_for_log_line(
        server.host(), "ERROR", "Failed to send body to HTTP client " + name + ": Timer expired"));
    const Wire_Response response = client->read_response();
    EXPECT_EQ("HTTP/1.1 200 OK", response.status_line);
    EXPECT_FALSE(response.complete);
    EXPECT_TRUE(client->at_end());
    EXPECT_TRUE(server.host().wait_for_log("response: handle_close"));
    EXPECT_EQ(0, server.host().stop(SIGTERM));
    EXPECT_EQ(1U, lines_of(server.host(), "ERROR").size()) << server.host().log_text();
    EXPECT_EQ(1U, count_log_lines(server.host(), "INFO",
                                  "response: large -1 HTTP_SOCK_STATE_CONTENT_SENDING"));
}

TEST(HTTP_Send_Failure, client_that_never_reads_holds_up_only_the_thread_of_its_response)
{
    Probe_Server server(with_options({}));
    auto client = server.connect();
    ASSERT_NE(nullptr, client);
    ASSERT_TRUE(client->send(get_request("/response/thread/large?body")));
    ASSERT_EQ("HTTP/1.1 200 OK\r\n", client->read_exactly(17)); // the thread has begun to send
    const auto next = server.connect();
    ASSERT_NE(nullptr, next);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ("Hello, World!", next->exchange(get_request("/probe/hello")).body);
    }
    EXPECT_EQ(0U, server.host().count_log("response: large"));
    reset(client);
    EXPECT_TRUE(server.host().wait_for_log("response: large -1"));
}

TEST(HTTP_Send_Failure, response_larger_than_the_buffers_arrives_whole)
{
    Probe_Server server(with_options({"--socket-send-timeout=1"}));
    const auto client = server.connect();
    ASSERT_NE(nullptr, client);
    ASSERT_TRUE(client->send(get_request("/response/thread/large?head-vector")));
    const Wire_Response response = client->read_response();
    EXPECT_TRUE(response.complete);
    EXPECT_EQ(64U * 1024 * 1024, response.body.size());
    EXPECT_EQ("Hello, World!", client->exchange(get_request("/probe/hello")).body);
    EXPECT_EQ(0, server.host().stop(SIGTERM));
    EXPECT_TRUE(lines_of(server.host(), "ERROR").empty());
}

TEST(HTTP_Send_Failure, partial_response_is_in_the_access_log)
{
    Temporary_Folder folder;
    const std::string path = folder.path() + "/access.log";
    Probe_Server server(with_options({"-l", path}));
    auto client = server.connect();
    ASSERT_NE(nullptr, client);
    ASSERT_TRUE(client->send(get_request("/response/thread/large?body")));
    ASSERT_EQ("HTTP/1.1 200 OK\r\n", client->read_exactly(17));
    reset(client);
    EXPECT_TRUE(server.host().wait_for_log("response: handle_close"));
    EXPECT_EQ(0, server.host().stop(SIGTERM));
    // A piece counts when all of it has been taken.
    EXPECT_TRUE(content_of(path).ends_with("@GET /response/thread/large HTTP/1.1 200 0 0\n"))
        << content_of(path);
}
