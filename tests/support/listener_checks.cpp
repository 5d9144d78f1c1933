#include "tests/support/listener_checks.h"

#include "tests/support/exact_line.h"

#include <gtest/gtest.h>

#include <csignal>

namespace {

constexpr const char* HELLO = "Hello, World!";
constexpr size_t MEBIBYTE = 1024 * 1024;

void expect_hello(const Wire_Response& response)
{
    EXPECT_TRUE(response.complete);
    EXPECT_EQ("HTTP/1.1 200 OK", response.status_line);
    EXPECT_EQ(HELLO, response.body);
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

void gets_on_a_kept_connection(const Listener_Server& server)
{
    const auto client = server.connect();
    ASSERT_NE(nullptr, client);
    for (int i = 0; i < 20; ++i) {
        const Wire_Response response = client->exchange(get_request("/probe/hello"));
        expect_hello(response);
        EXPECT_EQ("Keep-Alive", response.field("connection"));
    }
}

void closes_when_it_is_asked_to(const Listener_Server& server)
{
    const auto client = server.connect();
    ASSERT_NE(nullptr, client);
    expect_hello(client->exchange(get_request("/probe/hello", {"Connection: close"})));
    EXPECT_TRUE(client->is_closed_by_peer());
}

void ends_with_the_client(const Listener_Server& server)
{
    const auto client = server.connect();
    ASSERT_NE(nullptr, client);
    expect_hello(client->exchange(get_request("/probe/hello")));
    client->half_close();
    EXPECT_TRUE(client->is_closed_by_peer());
}

void head_has_no_body(const Listener_Server& server)
{
    const auto client = server.connect();
    ASSERT_NE(nullptr, client);
    constexpr bool HEAD_ONLY = true;
    const Wire_Response head =
        client->exchange("HEAD /probe/hello HTTP/1.1\r\nHost: test\r\n\r\n", HEAD_ONLY);
    EXPECT_EQ(200, head.status);
    EXPECT_EQ("13", head.field("content-length"));
    expect_hello(client->exchange(get_request("/probe/hello")));
}

void posts_counted_and_chunked(const Listener_Server& server)
{
    const auto client = server.connect();
    ASSERT_NE(nullptr, client);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ("counted body",
                  client->exchange(body_request("POST", "/probe/collect", "counted body")).body);
        EXPECT_EQ("in four pieces", client
                                        ->exchange(chunked_request("POST", "/probe/collect",
                                                                   {"in ", "four", " pie", "ces"}))
                                        .body);
    }
}

void posts_in_small_messages(const Listener_Server& server)
{
    const auto client = server.connect();
    ASSERT_NE(nullptr, client);
    const std::string request = body_request("POST", "/probe/collect", "counted");
    for (const char byte : request) {
        ASSERT_TRUE(client->send(std::string(1, byte)));
    }
    EXPECT_EQ("counted", client->read_response().body);
}

void pipelined_requests_are_answered_in_order(const Listener_Server& server)
{
    const auto client = server.connect();
    ASSERT_NE(nullptr, client);
    ASSERT_TRUE(client->send(
        get_request("/probe/hello") + body_request("POST", "/probe/collect", "first") +
        get_request("/probe/chunked") + chunked_request("POST", "/probe/collect", {"sec", "ond"}) +
        "HEAD /probe/hello HTTP/1.1\r\nHost: test\r\n\r\n" + get_request("/probe/hello")));
    expect_hello(client->read_response());
    EXPECT_EQ("first", client->read_response().body);
    expect_hello(client->read_response());
    EXPECT_EQ("second", client->read_response().body);
    constexpr bool HEAD_ONLY = true;
    EXPECT_EQ(200, client->read_response(HEAD_ONLY).status);
    expect_hello(client->read_response());
}

void thread_plug_in_keeps_the_connection(const Listener_Server& server)
{
    const auto client = server.connect();
    ASSERT_NE(nullptr, client);
    expect_hello(client->exchange(get_request("/probe/hello")));
    expect_hello(client->exchange(get_request("/probe/thread")));
    expect_hello(client->exchange(get_request("/probe/hello")));
    EXPECT_EQ("body", client->exchange(body_request("POST", "/probe/thread/collect", "body")).body);
    ASSERT_TRUE(client->send(get_request("/probe/thread") +
                             chunked_request("POST", "/probe/collect", {"chunk", "ed"}) +
                             get_request("/probe/hello")));
    expect_hello(client->read_response());
    EXPECT_EQ("chunked", client->read_response().body);
    expect_hello(client->read_response());
}

void large_responses_arrive_whole(const Listener_Server& server)
{
    const auto client = server.connect();
    ASSERT_NE(nullptr, client);
    for (const char* target : {"/probe/large", "/probe/thread/large", "/probe/large"}) {
        const Wire_Response response = client->exchange(get_request(target));
        EXPECT_TRUE(response.complete) << target;
        EXPECT_EQ(std::string(MEBIBYTE, 'x'), response.body) << target;
    }
}

void bodies_larger_than_the_buffer_arrive_whole(const Listener_Server& server)
{
    // 8 KiB and its neighbours, and what a stream holds back above the socket.
    for (const char* target : {"/probe/collect", "/probe/thread/collect"}) {
        const auto client = server.connect();
        ASSERT_NE(nullptr, client);
        for (const size_t length : {8191U, 8192U, 8193U, 16384U, 20000U, 65536U}) {
            const std::string body = numbered_bytes(length);
            EXPECT_EQ(body, client->exchange(body_request("POST", target, body)).body)
                << target << " " << length;
            EXPECT_EQ(body, client->exchange(chunked_request("POST", target, {body})).body)
                << target << " " << length;
        }
        EXPECT_EQ(
            std::to_string(MEBIBYTE),
            client->exchange(body_request("POST", "/probe/count", numbered_bytes(MEBIBYTE))).body);
    }
}

void suspended_connections_go_on(const Listener_Server& server)
{
    for (const char* target : {"/probe/suspend", "/probe/thread-suspend"}) {
        const auto client = server.connect();
        ASSERT_NE(nullptr, client);
        ASSERT_TRUE(
            client->send(body_request("POST", target, "later") + get_request("/probe/hello")));
        EXPECT_EQ("later", client->read_response().body) << target;
        expect_hello(client->read_response());
    }
}

void serves_many_connections_at_once(const Listener_Server& server)
{
    std::vector<std::unique_ptr<Wire_Client>> clients;
    for (int i = 0; i < 20; ++i) {
        clients.push_back(server.connect());
        ASSERT_NE(nullptr, clients.back());
    }
    for (int round = 0; round < 3; ++round) {
        for (const auto& client : clients) {
            ASSERT_TRUE(client->send(get_request("/probe/hello")));
        }
        for (const auto& client : clients) {
            expect_hello(client->read_response());
        }
    }
}

} // namespace

const std::vector<Listener_Check>& listener_checks()
{
#define LISTENER_CHECK(NAME)                                                                       \
    {                                                                                              \
#NAME, NAME                                                                                \
    }
    static const std::vector<Listener_Check> checks = {
        LISTENER_CHECK(gets_on_a_kept_connection),
        LISTENER_CHECK(closes_when_it_is_asked_to),
        LISTENER_CHECK(ends_with_the_client),
        LISTENER_CHECK(head_has_no_body),
        LISTENER_CHECK(posts_counted_and_chunked),
        LISTENER_CHECK(posts_in_small_messages),
        LISTENER_CHECK(pipelined_requests_are_answered_in_order),
        LISTENER_CHECK(thread_plug_in_keeps_the_connection),
        LISTENER_CHECK(large_responses_arrive_whole),
        LISTENER_CHECK(bodies_larger_than_the_buffer_arrive_whole),
        LISTENER_CHECK(suspended_connections_go_on),
        LISTENER_CHECK(serves_many_connections_at_once),
    };
#undef LISTENER_CHECK
    return checks;
}

void run_listener_check(Listener_Kind kind, const Listener_Check& check)
{
    Listener_Server server(kind);
    check.run(server);
    EXPECT_EQ(0, server.host().stop(SIGTERM));
    EXPECT_EQ(std::vector<std::string>(), texts_of(server.host(), "ERROR"));
}
