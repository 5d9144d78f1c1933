// The receive buffer of a connection, which never grows.

#include "tests/support/probe_server.h"
#include "tests/wire/host_log.h"

#include <gtest/gtest.h>

#include <string>

namespace {

Probe_Server::Setup with_buffer(const std::string& bytes, const std::string& log_level = "debug")
{
    Probe_Server::Setup setup;
    setup.options = {"--http-receive-buffer-size", bytes};
    setup.log_level = log_level;
    return setup;
}

/// A request for "/probe/<mode>" whose header has `size` bytes.
std::string header_of(size_t size, const std::string& mode = "hello")
{
    const std::string begin = "GET /probe/" + mode + " HTTP/1.1\r\nX: ";
    return begin + std::string(size - begin.size() - 4, 'y') + "\r\n\r\n";
}

std::string warning(const std::string& peer, size_t length)
{
    return "No buffer space for receiving data from HTTP client " + peer + ", buffer length " +
           std::to_string(length) + ".";
}

std::string error(size_t length)
{
    return "No buffer space even after crunching, buffer length " + std::to_string(length) + ".";
}

} // namespace

TEST(Connection_Buffer, serves_a_header_that_just_fits)
{
    Probe_Server server(with_buffer("256"));
    const auto client = server.connect();
    ASSERT_NE(nullptr, client);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ("Hello, World!", client->exchange(header_of(256)).body);
    }
    EXPECT_EQ(0U, count_log(server, "No buffer space"));
}

TEST(Connection_Buffer, closes_without_an_answer_on_a_header_that_does_not_fit)
{
    for (const std::string prefix : {"", "thread/"}) {
        Probe_Server server(with_buffer("256"));
        const auto client = server.connect();
        ASSERT_NE(nullptr, client);
        if (!prefix.empty()) {
            EXPECT_EQ(200, client->exchange(get_request("/probe/thread/hello")).status);
        }
        client->send(header_of(257));
        EXPECT_TRUE(client->is_closed_by_peer());
        EXPECT_TRUE(has_line(server.host(), "WARNING", warning(peer_text(*client), 256)));
        EXPECT_TRUE(has_line(server.host(), "ERROR", error(256)));
        EXPECT_EQ(1U, count_log(server, "No buffer space for"));
        EXPECT_EQ(1U, count_log(server, " ERROR "));
    }
}

TEST(Connection_Buffer, has_8_KiB_when_nothing_else_is_configured)
{
    for (const std::string size : {"", "0"}) {
        SCOPED_TRACE(size);
        Probe_Server server(size.empty() ? Probe_Server::Setup() : with_buffer(size));
        const auto client = server.connect();
        ASSERT_NE(nullptr, client);
        EXPECT_EQ("Hello, World!", client->exchange(header_of(8192)).body);
        client->send(header_of(8193));
        EXPECT_TRUE(client->is_closed_by_peer());
        EXPECT_TRUE(has_line(server.host(), "WARNING", warning(peer_text(*client), 8192)));
        EXPECT_TRUE(has_line(server.host(), "ERROR", error(8192)));
    }
}

TEST(Connection_Buffer, may_be_larger)
{
    Probe_Server server(with_buffer("64K"));
    const auto client = server.connect();
    ASSERT_NE(nullptr, client);
    EXPECT_EQ("Hello, World!", client->exchange(header_of(65536)).body);
}

TEST(Connection_Buffer, moves_the_begin_of_a_request_to_the_front_when_it_is_full)
{
    Probe_Server server(with_buffer("256"));
    const auto client = server.connect();
    ASSERT_NE(nullptr, client);
    // The first request leaves 156 bytes of the second one at the end of the buffer.
    client->send(header_of(100) + header_of(200, "describe"));
    EXPECT_EQ("Hello, World!", client->read_response().body);
    EXPECT_EQ("GET /probe/describe /probe/describe - -", client->read_response().body);
    EXPECT_TRUE(has_line(server.host(), "WARNING", warning(peer_text(*client), 156)));
    EXPECT_EQ("Hello, World!", client->exchange(get_request("/probe/hello")).body);
    EXPECT_EQ(0U, count_log(server, "even after crunching"));
}

TEST(Connection_Buffer, shows_what_it_holds_when_debugging)
{
    Probe_Server server(with_buffer("256", "trace"));
    const auto client = server.connect();
    ASSERT_NE(nullptr, client);
    client->send(header_of(257));
    EXPECT_TRUE(client->is_closed_by_peer());
    EXPECT_TRUE(server.host().wait_for_log("The remaining buffer data."));
    bool found = false;
    for (const std::string& line : server.host().log()) {
        found = found || (line.find(" DEBUG ") != std::string::npos &&
                          line.find("The remaining buffer data.") != std::string::npos);
    }
    EXPECT_TRUE(found);
}

TEST(Connection_Buffer, takes_bodies_of_any_size_through_a_small_one)
{
    Probe_Server server(with_buffer("128"));
    const auto client = server.connect();
    ASSERT_NE(nullptr, client);
    const std::string body(10000, 'x');
    for (const std::string prefix : {"/probe", "/probe/thread"}) {
        EXPECT_EQ("10000", client->exchange(body_request("POST", prefix + "/count", body)).body);
        EXPECT_EQ("10000",
                  client
                      ->exchange(chunked_request("POST", prefix + "/count",
                                                 {body.substr(0, 5000), body.substr(5000)}))
                      .body);
    }
    EXPECT_EQ(0U, count_log(server, " ERROR "));
}

TEST(Connection_Buffer, takes_pipelined_requests_through_a_small_one)
{
    Probe_Server server(with_buffer("128"));
    const auto client = server.connect();
    ASSERT_NE(nullptr, client);
    std::string requests;
    for (int i = 0; i < 50; ++i) {
        requests += get_request("/probe/describe?" + std::to_string(i));
        requests += body_request("POST", "/probe/collect", "body " + std::to_string(i));
        requests += chunked_request("POST", "/probe/collect", {"chunk ", std::to_string(i)});
    }
    client->send(requests);
    for (int i = 0; i < 50; ++i) {
        const std::string number = std::to_string(i);
        ASSERT_EQ("GET /probe/describe /probe/describe?" + number + " " + number + " test",
                  client->read_response().body);
        ASSERT_EQ("body " + number, client->read_response().body);
        ASSERT_EQ("chunk " + number, client->read_response().body);
    }
    EXPECT_EQ(0U, count_log(server, " ERROR "));
}
