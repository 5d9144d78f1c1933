// Request bodies: counted and chunked, whole and in pieces, awaited, unread and broken off.

#include "tests/support/probe_server.h"
#include "tests/wire/host_log.h"

#include <gtest/gtest.h>

#include <csignal>
#include <string>
#include <vector>

namespace {

/// A POST for "/probe/collect" with these bytes behind a header that announces chunks.
std::string chunked(const std::string& bytes)
{
    return "POST /probe/collect HTTP/1.1\r\nHost: test\r\nTransfer-Encoding: chunked\r\n\r\n" +
           bytes;
}

std::string expecting(const std::string& method, const std::string& mode, const std::string& rest,
                      const std::string& version = "HTTP/1.1")
{
    return method + " /probe/" + mode + " " + version +
           "\r\nHost: test\r\nExpect: 100-continue\r\n" + rest + "\r\n";
}

const std::string CONTINUE = "HTTP/1.1 100 Continue\r\n\r\n";

} // namespace

TEST(Request_Body, gives_a_counted_body_and_calls_for_no_end)
{
    Probe_Server server;
    const auto client = server.connect();
    ASSERT_NE(nullptr, client);
    EXPECT_EQ("Hello", client->exchange(body_request("POST", "/probe/collect", "Hello")).body);
    EXPECT_EQ(1U, count_log(server, "probe: handle_body "));
    EXPECT_EQ(1U, count_lines(server, "INFO", "probe: handle_body 5"));
}

TEST(Request_Body, skips_an_empty_counted_body)
{
    Probe_Server server;
    const auto client = server.connect();
    ASSERT_NE(nullptr, client);
    // "collect" answers in handle_body alone, which is not called: the server answers.
    const Wire_Response response = client->exchange(body_request("POST", "/probe/collect", ""));
    EXPECT_EQ(200, response.status);
    EXPECT_EQ("0", response.field("content-length"));
    EXPECT_EQ("Hello, World!", client->exchange(get_request("/probe/hello")).body);
    EXPECT_EQ(0U, count_log(server, "probe: handle_body"));
}

TEST(Request_Body, ends_a_chunked_body_with_one_call)
{
    Probe_Server server;
    const auto client = server.connect();
    ASSERT_NE(nullptr, client);
    const Wire_Response response =
        client->exchange(chunked_request("POST", "/probe/collect", {"Hello", ", ", "World!"}));
    EXPECT_EQ("Hello, World!", response.body);
    EXPECT_EQ(1U, count_lines(server, "INFO", "probe: handle_body 0 end"));
    EXPECT_EQ(4U, count_log(server, "probe: handle_body "));

    EXPECT_EQ("", client->exchange(chunked_request("POST", "/probe/collect", {})).body);
    EXPECT_EQ(2U, count_lines(server, "INFO", "probe: handle_body 0 end"));
    EXPECT_EQ(5U, count_log(server, "probe: handle_body "));
}

TEST(Request_Body, accepts_the_whole_grammar_of_chunks)
{
    const std::string letters = "abcdefghijklmnopqrstuvwxyz";
    struct Row {
        const char* name;
        std::string bytes;
        std::string body;
    };
    const Row rows[] = {
        {"extension", "4;name=value\r\nbody\r\n0\r\n\r\n", "body"},
        {"extension of the last chunk", "4\r\nbody\r\n0;a=\"b c\";d\r\n\r\n", "body"},
        {"empty extension", "4;\r\nbody\r\n0;\r\n\r\n", "body"},
        {"upper case", "1A\r\n" + letters + "\r\n0\r\n\r\n", letters},
        {"lower case", "1a\r\n" + letters + "\r\n0\r\n\r\n", letters},
        {"leading zeros", "00000000000000000000000000000004\r\nbody\r\n0000\r\n\r\n", "body"},
        {"CR LF in the data", "4\r\n\r\n\r\n\r\n0\r\n\r\n", "\r\n\r\n"},
        {"no digits are 0", "4\r\nbody\r\n\r\n\r\n", "body"},
    };
    Probe_Server server;
    const auto client = server.connect();
    ASSERT_NE(nullptr, client);
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        const Wire_Response response = client->exchange(chunked(row.bytes));
        EXPECT_EQ(200, response.status);
        EXPECT_EQ(row.body, response.body);
    }
    EXPECT_EQ(std::size(rows), count_lines(server, "INFO", "probe: handle_body 0 end"));
    EXPECT_EQ(0U, count_log(server, " ERROR "));
}

TEST(Request_Body, drops_a_connection_with_a_malformed_chunk)
{
    struct Row {
        const char* name;
        std::string bytes;
    };
    const Row rows[] = {
        {"trailer field", "4\r\nbody\r\n0\r\nX: y\r\n\r\n"},
        {"leading blank", " 4\r\nbody\r\n0\r\n\r\n"},
        {"trailing blank", "4 \r\nbody\r\n0\r\n\r\n"},
        {"size line without CR", "4\nbody\r\n0\r\n\r\n"},
        {"data without CR", "4\r\nbody\n0\r\n\r\n"},
        {"data without line end", "4\r\nbody0\r\n\r\n"},
        {"CR without LF", "4\r\nbody\r0\r\n\r\n"},
        {"size line's CR without LF", "4\rbody\r\n0\r\n\r\n"},
        {"more data than announced", "3\r\nbody\r\n0\r\n\r\n"},
        {"not hexadecimal", "g\r\nbody\r\n0\r\n\r\n"},
        {"0x", "0x4\r\nbody\r\n0\r\n\r\n"},
        {"sign", "-4\r\nbody\r\n0\r\n\r\n"},
        {"beyond 64 bits", "10000000000000004\r\nbody\r\n0\r\n\r\n"},
        {"far beyond 64 bits", std::string(64, 'f') + "\r\nbody\r\n0\r\n\r\n"},
        {"last chunk without CR LF", "4\r\nbody\r\n0\r\nGET / HTTP/1.1\r\n\r\n"},
    };
    Probe_Server server;
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        const auto client = server.connect();
        ASSERT_NE(nullptr, client);
        client->send(chunked(row.bytes));
        EXPECT_TRUE(client->is_closed_by_peer());
        EXPECT_TRUE(has_line(server.host(), "ERROR",
                             "Failed to parse HTTP chunk by " + peer_text(*client)));
    }
    EXPECT_TRUE(server.host().wait_for_log_count("probe: handle_close", std::size(rows)));
    EXPECT_EQ(std::size(rows), count_log(server, "probe: handle_close"));
    EXPECT_EQ(0U, count_log(server, "probe: handle_body 0 end"));
    EXPECT_EQ(std::size(rows), count_log(server, " ERROR "));
}

TEST(Request_Body, accepts_a_chunk_of_the_greatest_size)
{
    Probe_Server server;
    const auto client = server.connect();
    ASSERT_NE(nullptr, client);
    client->send(chunked("ffffffffffffffff\r\nbody"));
    EXPECT_TRUE(has_line(server.host(), "INFO", "probe: handle_body 4"));
    EXPECT_EQ(0U, count_log(server, " ERROR "));
}

TEST(Request_Body, gives_the_body_as_it_comes)
{
    Probe_Server server;
    const auto client = server.connect();
    ASSERT_NE(nullptr, client);
    client->send("POST /probe/collect HTTP/1.1\r\nHost: test\r\nContent-Length: 10\r\n\r\nHello");
    EXPECT_TRUE(server.host().wait_for_log_count("probe: handle_body 5", 1));
    client->send("World");
    EXPECT_EQ("HelloWorld", client->read_response().body);
    EXPECT_EQ(2U, count_lines(server, "INFO", "probe: handle_body 5"));

    client->send(chunked("A\r\nHello"));
    EXPECT_TRUE(server.host().wait_for_log_count("probe: handle_body 5", 3));
    client->send("World\r\n0\r\n\r\n");
    EXPECT_EQ("HelloWorld", client->read_response().body);
    EXPECT_EQ(4U, count_lines(server, "INFO", "probe: handle_body 5"));
}

TEST(Request_Body, may_be_larger_than_the_receive_buffer)
{
    const std::string body(1024 * 1024, 'x');
    std::vector<std::string> pieces;
    for (size_t at = 0; at < body.size(); at += 50000) {
        pieces.push_back(body.substr(at, 50000));
    }
    Probe_Server server;
    const auto client = server.connect();
    ASSERT_NE(nullptr, client);
    EXPECT_EQ("1048576", client->exchange(body_request("POST", "/probe/count", body)).body);
    EXPECT_EQ("1048576", client->exchange(chunked_request("POST", "/probe/count", pieces)).body);
    EXPECT_EQ("Hello, World!", client->exchange(get_request("/probe/hello")).body);
}

TEST(Request_Body, may_be_answered_before_it_is_complete)
{
    Probe_Server server;
    const auto client = server.connect();
    ASSERT_NE(nullptr, client);
    std::string body;
    for (int i = 0; i < 5000; ++i) {
        body += "line " + std::to_string(i) + "\n";
    }
    for (int i = 0; i < 2; ++i) {
        const Wire_Response response =
            client->exchange(body_request("POST", "/probe/stream-back", body));
        EXPECT_TRUE(response.complete);
        EXPECT_EQ(body, response.body);
    }
    client->send(
        "POST /probe/stream-back HTTP/1.1\r\nHost: test\r\nContent-Length: 10\r\n\r\nHello");
    const std::string begun = client->read_exactly(1);
    EXPECT_EQ("H", begun);
    client->send("World");
    EXPECT_EQ("TTP/1.1 200 OK", client->read_response().status_line);
}

TEST(Request_Body, is_left_unread_when_the_plug_in_has_answered)
{
    Probe_Server server;
    const auto kept = server.connect();
    ASSERT_NE(nullptr, kept);
    // Kept alive by a plug-in that does not look at the body: what follows is read as a request.
    EXPECT_EQ(
        "Hello, World!",
        kept->exchange(body_request("POST", "/probe/hello", get_request("/probe/describe"))).body);
    EXPECT_EQ("GET /probe/describe /probe/describe - test", kept->read_response().body);

    const auto closed = server.connect();
    ASSERT_NE(nullptr, closed);
    closed->send(body_request("POST", "/probe/until-close", get_request("/probe/never")));
    const Wire_Response response = closed->read_response();
    EXPECT_EQ("close", response.field("connection"));
    EXPECT_EQ("Hello, World!", response.body);
    EXPECT_TRUE(closed->at_end());
    EXPECT_EQ(0U, count_log(server, "/probe/never"));
}

TEST(Request_Body, that_breaks_off_closes_the_plug_in_once)
{
    for (const std::string& request :
         {std::string("POST /probe/collect HTTP/1.1\r\nHost: test\r\nContent-Length: 10\r\n\r\n"
                      "Hello"),
          chunked("A\r\nHello")}) {
        Probe_Server::Setup setup;
        setup.log_level = "trace";
        Probe_Server server(setup);
        auto client = server.connect();
        ASSERT_NE(nullptr, client);
        const std::string peer = peer_text(*client);
        client->send(request);
        EXPECT_TRUE(has_line(server.host(), "INFO", "probe: handle_body 5"));
        client.reset();
        EXPECT_TRUE(has_line(server.host(), "INFO", "probe: handle_close collect"));
        EXPECT_EQ(1U, count_lines(server, "ERROR", "HTTP connection is closed by " + peer));
        EXPECT_EQ(1U, count_lines(server, "DEBUG", "HTTP connection " + peer + " is closing."));
        EXPECT_EQ(0, server.host().stop(SIGTERM));
        EXPECT_EQ(1U, server.host().count_log("probe: handle_close"));
        EXPECT_EQ(0U, server.host().count_log("probe: handle_body 0 end"));
    }
}

TEST(Request_Body, that_breaks_off_is_no_error_line_without_debugging)
{
    Probe_Server server;
    auto client = server.connect();
    ASSERT_NE(nullptr, client);
    client->send("POST /probe/collect HTTP/1.1\r\nHost: test\r\nContent-Length: 10\r\n\r\nHello");
    EXPECT_TRUE(has_line(server.host(), "INFO", "probe: handle_body 5"));
    client.reset();
    EXPECT_TRUE(has_line(server.host(), "INFO", "probe: handle_close collect"));
    EXPECT_EQ(0U, count_log(server, " ERROR "));
}

// ---------------------------------------------------------------- Expect: 100-continue

TEST(Request_Continue, is_sent_before_the_body_is_awaited)
{
    Probe_Server server;
    const auto client = server.connect();
    ASSERT_NE(nullptr, client);
    client->send(expecting("POST", "collect", "Content-Length: 5\r\n"));
    EXPECT_EQ(CONTINUE, client->read_exactly(CONTINUE.size()));
    client->send("Hello");
    EXPECT_EQ("Hello", client->read_response().body);

    client->send(expecting("PUT", "collect", "Transfer-Encoding: chunked\r\n"));
    EXPECT_EQ(CONTINUE, client->read_exactly(CONTINUE.size()));
    client->send("5\r\nWorld\r\n0\r\n\r\n");
    EXPECT_EQ("World", client->read_response().body);
    EXPECT_EQ("Hello, World!", client->exchange(get_request("/probe/hello")).body);
}

TEST(Request_Continue, is_recognised_without_case)
{
    Probe_Server server;
    const auto client = server.connect();
    ASSERT_NE(nullptr, client);
    client->send("POST /probe/collect HTTP/1.1\r\nHost: test\r\nexpect: 100-CONTINUE\r\n"
                 "Content-Length: 5\r\n\r\n");
    EXPECT_EQ(CONTINUE, client->read_exactly(CONTINUE.size()));
}

TEST(Request_Continue, is_not_sent_where_no_body_is_awaited)
{
    struct Row {
        const char* name;
        std::string request;
        int status;
    };
    const Row rows[] = {
        {"body came along", expecting("POST", "collect", "Content-Length: 5\r\n") + "Hello", 200},
        {"begin of the body came along",
         expecting("POST", "count", "Transfer-Encoding: chunked\r\n") + "0\r\n\r\n", 200},
        {"empty body", expecting("POST", "collect", "Content-Length: 0\r\n"), 200},
        {"HTTP/1.0", expecting("POST", "collect", "Content-Length: 5\r\n", "HTTP/1.0") + "Hello",
         200},
        {"answered already", expecting("POST", "hello", "Content-Length: 5\r\n"), 200},
        {"refused by the plug-in", expecting("POST", "teapot", "Content-Length: 5\r\n"), 418},
        {"no handler", expecting("POST", "../nothing", "Content-Length: 5\r\n"), 400},
        {"no length", expecting("POST", "collect", ""), 411},
    };
    Probe_Server server;
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        const auto client = server.connect();
        ASSERT_NE(nullptr, client);
        client->send(row.request);
        // The first thing that comes is the response itself.
        EXPECT_EQ(row.status, client->read_response().status);
    }
}

TEST(Request_Continue, is_not_sent_to_a_client_of_http_1_0_that_waits)
{
    Probe_Server server;
    const auto client = server.connect();
    ASSERT_NE(nullptr, client);
    client->send(expecting("POST", "collect", "Content-Length: 5\r\n", "HTTP/1.0"));
    EXPECT_TRUE(server.host().wait_for_log("probe: handle_request"));
    client->send("Hello");
    EXPECT_EQ(200, client->read_response().status);
}

TEST(Request_Continue, is_not_sent_for_another_expectation)
{
    Probe_Server server;
    const auto client = server.connect();
    ASSERT_NE(nullptr, client);
    client->send("POST /probe/collect HTTP/1.1\r\nHost: test\r\nExpect: 200-ok\r\n"
                 "Content-Length: 5\r\n\r\n");
    EXPECT_TRUE(server.host().wait_for_log("probe: handle_request"));
    client->send("Hello");
    const Wire_Response response = client->read_response();
    EXPECT_EQ(200, response.status);
    EXPECT_EQ("Hello", response.body);
}
