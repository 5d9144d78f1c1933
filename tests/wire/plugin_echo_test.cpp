#include "tests/support/probe_server.h"

#include <gtest/gtest.h>

#include <csignal>

namespace {

class Echo_Plug_In : public testing::Test {
protected:
    void SetUp() override
    {
        Probe_Server::Setup setup;
        setup.handlers = {{"/echo", "httpd_echo", "_make_Echo"}};
        setup.options = {"-t", "1"};
        server_ = std::make_unique<Probe_Server>(setup);
        client_ = server_->connect();
        ASSERT_NE(nullptr, client_);
    }

    void TearDown() override
    {
        client_.reset();
        EXPECT_EQ(0, server_->host().stop(SIGTERM));
    }

    /// What stands in front of the body.
    static std::string text(const std::string& method, const std::string& fields)
    {
        return "Method: " + method + "\nURI: /echo/a\nHost: test\n" + fields + "\n";
    }

    std::unique_ptr<Probe_Server> server_;
    std::unique_ptr<Wire_Client> client_;
};

} // namespace

TEST_F(Echo_Plug_In, shows_the_request)
{
    const Wire_Response response =
        client_->exchange(get_request("/echo/%61?b=c&d", {"X-One: 1", "X-Two: 2"}));
    EXPECT_EQ("HTTP/1.1 200 OK", response.status_line);
    EXPECT_EQ("Method: GET\nURI: /echo/a\nQuery: b=c&d\nHost: test\nX-One: 1\nX-Two: 2\n\n",
              response.body);
    EXPECT_EQ("text/plain", response.field("content-type"));
    EXPECT_EQ("no-store", response.field("cache-control"));
    EXPECT_EQ("nosniff", response.field("x-content-type-options"));
    EXPECT_EQ(std::to_string(response.body.size()), response.field("content-length"));
    EXPECT_EQ("Keep-Alive", response.field("connection"));
}

TEST_F(Echo_Plug_In, any_method_is_answered)
{
    for (const char* method : {"GET", "POST", "PUT", "DELETE", "OPTIONS", "PATCH", "MKCOL"}) {
        const Wire_Response response =
            client_->exchange(std::string(method) + " /echo/a HTTP/1.1\r\nHost: test\r\n\r\n");
        EXPECT_EQ(text(method, ""), response.body);
    }
    constexpr bool HEAD_ONLY = true;
    const Wire_Response head =
        client_->exchange("HEAD /echo/a HTTP/1.1\r\nHost: test\r\n\r\n", HEAD_ONLY);
    EXPECT_EQ(200, head.status);
    EXPECT_EQ(std::to_string(text("HEAD", "").size()), head.field("content-length"));
    EXPECT_EQ(text("GET", ""), client_->exchange(get_request("/echo/a")).body);
}

TEST_F(Echo_Plug_In, sends_bodies_of_all_kinds_back)
{
    for (const size_t length : {1U, 5000U, 9000U, 65536U, 65537U, 1048576U}) {
        const std::string body(length, 'b');
        EXPECT_EQ(text("POST", "Content-Length: " + std::to_string(length) + "\n") + body,
                  client_->exchange(body_request("POST", "/echo/a", body)).body)
            << length;
        EXPECT_EQ(text("PUT", "Transfer-Encoding: chunked\n") + body,
                  client_->exchange(chunked_request("PUT", "/echo/a", {body})).body)
            << length;
    }
    EXPECT_EQ(text("POST", "Content-Length: 0\n"),
              client_->exchange(body_request("POST", "/echo/a", "")).body);
    EXPECT_EQ(text("POST", "Transfer-Encoding: chunked\n"),
              client_->exchange(chunked_request("POST", "/echo/a", {})).body);
}

TEST_F(Echo_Plug_In, streams_back_before_the_body_is_complete)
{
    ASSERT_TRUE(
        client_->send("POST /echo/a HTTP/1.1\r\nHost: test\r\nContent-Length: 10\r\n\r\nfirst"));
    std::string received;
    while (received.find("first\r\n") == std::string::npos) {
        const std::string bytes = client_->receive();
        ASSERT_FALSE(bytes.empty());
        received += bytes;
    }
    ASSERT_TRUE(client_->send("later"));
    while (received.find("0\r\n\r\n") == std::string::npos) {
        const std::string bytes = client_->receive();
        ASSERT_FALSE(bytes.empty());
        received += bytes;
    }
    EXPECT_NE(std::string::npos, received.find("\r\n5\r\nlater\r\n0\r\n\r\n"));
    EXPECT_EQ(text("GET", ""), client_->exchange(get_request("/echo/a")).body);
}

TEST_F(Echo_Plug_In, streams_chunks_back_before_the_last_one)
{
    ASSERT_TRUE(client_->send("POST /echo/a HTTP/1.1\r\nHost: test\r\n"
                              "Transfer-Encoding: chunked\r\n\r\n5\r\nfirst\r\n"));
    std::string received;
    while (received.find("first\r\n") == std::string::npos) {
        const std::string bytes = client_->receive();
        ASSERT_FALSE(bytes.empty());
        received += bytes;
    }
    ASSERT_TRUE(client_->send("5\r\nlater\r\n0\r\n\r\n"));
    while (received.find("0\r\n\r\n") == std::string::npos) {
        const std::string bytes = client_->receive();
        ASSERT_FALSE(bytes.empty());
        received += bytes;
    }
    EXPECT_NE(std::string::npos, received.find("\r\n5\r\nlater\r\n0\r\n\r\n"));
    EXPECT_EQ(text("GET", ""), client_->exchange(get_request("/echo/a")).body);
}

TEST_F(Echo_Plug_In, waiting_client_is_told_to_go_on)
{
    ASSERT_TRUE(client_->send("POST /echo/a HTTP/1.1\r\nHost: test\r\n"
                              "Expect: 100-continue\r\nContent-Length: 4\r\n\r\n"));
    EXPECT_EQ("HTTP/1.1 100 Continue", client_->read_response().status_line);
    ASSERT_TRUE(client_->send("body"));
    EXPECT_EQ(text("POST", "Expect: 100-continue\nContent-Length: 4\n") + "body",
              client_->read_response().body);
}

TEST_F(Echo_Plug_In, old_client_gets_the_body_until_the_connection_ends)
{
    const std::string expected = "Method: POST\nURI: /echo/a\nContent-Length: 4\n\nbody";
    const Wire_Response response =
        client_->exchange("POST /echo/a HTTP/1.0\r\nContent-Length: 4\r\n\r\nbody");
    EXPECT_FALSE(response.has("transfer-encoding"));
    EXPECT_EQ(expected, response.body);
    EXPECT_TRUE(client_->is_closed_by_peer());
}
