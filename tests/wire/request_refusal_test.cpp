// Requests that the server refuses by itself, and the statuses that it answers for a plug-in.

#include "tests/support/probe_server.h"
#include "tests/wire/host_log.h"

#include <gtest/gtest.h>

#include <csignal>
#include <string>
#include <vector>

namespace {

Probe_Server::Setup guarded_setup()
{
    Probe_Server::Setup setup;
    setup.handlers = {{"/probe", "probe_plugin", "_make_Probe"},
                      {"/guarded", "probe_plugin", "_make_Probe"},
                      {"/locked", "probe_plugin", "_make_Probe"},
                      {"/empty", "probe_plugin", "_make_Empty"}};
    setup.authenticators = {{"/guarded", "probe_plugin", "_make_Probe_Auth"},
                            {"/locked", "probe_plugin", "_make_Empty_Auth"}};
    return setup;
}

/// The request is answered with that status and an empty body, and the connection is closed.
Wire_Response expect_refused(const Probe_Server& server, const std::string& request, int status)
{
    const auto client = server.connect();
    if (client == nullptr) {
        ADD_FAILURE() << "no connection";
        return {};
    }
    // What stands behind a refused request is not served.
    client->send(request + get_request("/probe/hello"));
    const Wire_Response response = client->read_response();
    EXPECT_EQ(status, response.status) << request;
    EXPECT_EQ("0", response.field("content-length"));
    EXPECT_TRUE(response.complete);
    EXPECT_TRUE(client->is_closed_by_peer());
    return response;
}

} // namespace

TEST(Request_Refusal, answers_400_to_a_step_to_the_same_or_the_parent_folder)
{
    Probe_Server server;
    for (const char* const target :
         {"/a/../b", "/probe/../hello", "/probe/./hello", "/./probe/hello", "/../",
          "/probe/a./hello", "/probe/%2e%2e/hello", "/probe/%2E./hello", "/probe/..\\hello",
          "/probe/.\\hello", "/probe/%2e%2e\\hello", "http://test/probe/../hello"}) {
        expect_refused(server, get_request(target), 400);
    }
    EXPECT_EQ(0U, count_log(server, "probe: handle_request"));
    EXPECT_EQ(0U, count_log(server, " ERROR "));
}

TEST(Request_Refusal, lets_dots_pass_that_are_no_step)
{
    Probe_Server server;
    const auto client = server.connect();
    ASSERT_NE(nullptr, client);
    for (const char* const target :
         {"/probe/.hidden/hello", "/probe/a.b/hello", "/probe/.../x/hello", "/probe/hello?a=../b",
          "/probe/..%2Fhello/hello", "/probe/%252e%252e/hello"}) {
        const int expected = std::string(target).find(".../") != std::string::npos ? 400 : 200;
        if (expected == 200) {
            EXPECT_EQ(200, client->exchange(get_request(target)).status) << target;
        } else {
            expect_refused(server, get_request(target), expected);
        }
    }
}

TEST(Request_Refusal, answers_403_to_a_referer_of_another_server)
{
    Probe_Server::Setup setup;
    setup.options = {"-s", "a.example,b.example"};
    Probe_Server server(setup);
    for (const char* const referer :
         {"http://evil.example/", "http://a.example.evil/", "http://evil/a.example",
          "http://a.example@evil/", "http://", "/relative", "a.example", "about:blank", "",
          "http://a.example:x/"}) {
        expect_refused(server, get_request("/probe/hello", {std::string("Referer: ") + referer}),
                       403);
    }
    EXPECT_EQ(0U, count_log(server, "probe: handle_request"));
    EXPECT_EQ(0U, count_log(server, " ERROR "));
}

TEST(Request_Refusal, serves_requests_without_a_referer_or_with_a_configured_one)
{
    Probe_Server::Setup setup;
    setup.options = {"-s", "a.example,b.example"};
    Probe_Server server(setup);
    const auto client = server.connect();
    ASSERT_NE(nullptr, client);
    EXPECT_EQ(200, client->exchange(get_request("/probe/hello")).status);
    for (const char* const referer :
         {"http://a.example/", "https://b.example/x?y#z", "http://a.example",
          "http://a.example:8080/x", "http://A.Example/", "http://user@b.example/"}) {
        EXPECT_EQ(
            200, client->exchange(get_request("/probe/hello", {std::string("Referer: ") + referer}))
                     .status)
            << referer;
    }
}

TEST(Request_Refusal, looks_at_no_referer_without_configured_servers)
{
    Probe_Server server;
    const auto client = server.connect();
    ASSERT_NE(nullptr, client);
    EXPECT_EQ(200, client->exchange(get_request("/probe/hello", {"Referer: http://evil/"})).status);
    EXPECT_EQ(200, client->exchange(get_request("/probe/hello", {"Referer: ///"})).status);
}

TEST(Request_Refusal, answers_404_where_no_handler_is_bound)
{
    Probe_Server server;
    expect_refused(server, get_request("/nothing/here?q"), 404);
    EXPECT_TRUE(has_line(server.host(), "DEBUG", "Not found HTTP uri '/nothing/here'."));
    expect_refused(server, get_request("/"), 404);
    EXPECT_TRUE(has_line(server.host(), "DEBUG", "Not found HTTP uri '/'."));
    EXPECT_EQ(0U, count_log(server, " ERROR "));
}

TEST(Request_Refusal, answers_500_where_a_factory_gives_no_object)
{
    Probe_Server server(guarded_setup());
    expect_refused(server, get_request("/empty"), 500);
    expect_refused(server, get_request("/locked/hello"), 500);
    EXPECT_EQ(0U, count_log(server, "probe: "));
    EXPECT_EQ(0U, count_log(server, " ERROR "));
}

TEST(Request_Refusal, answers_500_to_a_concurrency_that_it_does_not_offer)
{
    Probe_Server server;
    expect_refused(server, get_request("/probe/reactive/hello"), 500);
    EXPECT_TRUE(has_line(server.host(), "ERROR", "Header handler concurrency 1 is not supported."));
    expect_refused(server, get_request("/probe/proactive/hello"), 500);
    EXPECT_TRUE(has_line(server.host(), "ERROR", "Header handler concurrency 3 is not supported."));
    EXPECT_EQ(0U, count_log(server, "probe: handle_request"));
}

TEST(Request_Refusal, answers_what_the_authenticator_says)
{
    Probe_Server server(guarded_setup());
    for (const int status : {401, 403, 407, 429, 503}) {
        const Wire_Response response = expect_refused(
            server, get_request("/guarded/hello", {"X-Pass: " + std::to_string(status)}), status);
        // What the authenticator put into the response stays.
        EXPECT_EQ("yes", response.field("x-authenticated"));
    }
    EXPECT_EQ(0U, count_log(server, "probe: handle_request"));

    const auto client = server.connect();
    ASSERT_NE(nullptr, client);
    const Wire_Response passed = client->exchange(get_request("/guarded/hello"));
    EXPECT_EQ(200, passed.status);
    EXPECT_EQ("yes", passed.field("x-authenticated"));
    EXPECT_EQ("Hello, World!", passed.body);
}

TEST(Request_Refusal, asks_the_authenticator_for_every_request_of_a_connection)
{
    Probe_Server server(guarded_setup());
    const auto client = server.connect();
    ASSERT_NE(nullptr, client);
    EXPECT_EQ(200, client->exchange(get_request("/guarded/hello")).status);
    EXPECT_EQ(200, client->exchange(get_request("/probe/hello")).status);
    EXPECT_EQ(401, client->exchange(get_request("/guarded/hello", {"X-Pass: 401"})).status);
    EXPECT_TRUE(client->is_closed_by_peer());
    EXPECT_EQ(2U, count_log(server, "probe: authenticate"));
}

TEST(Request_Refusal, checks_in_a_fixed_order)
{
    Probe_Server::Setup setup = guarded_setup();
    setup.options = {"-s", "a.example"};
    Probe_Server server(setup);
    const std::string evil = "Referer: http://evil/";
    const std::string upgrade = "Upgrade: h2c";
    const std::string pass = "X-Pass: 401";
    // Path, referer, authenticator's object, upgrade, handler, concurrency, authenticator.
    expect_refused(server, get_request("/locked/../x", {evil, upgrade}), 400);
    expect_refused(server, get_request("/locked/x", {evil, upgrade}), 403);
    expect_refused(server, get_request("/locked/x", {upgrade}), 500);
    expect_refused(server, get_request("/nothing", {upgrade}), 501);
    expect_refused(server, get_request("/guarded/reactive/hello", {pass}), 500);
    expect_refused(server, get_request("/guarded/silent", {pass}), 401);
}

TEST(Request_Refusal, answers_411_to_an_unfinished_request_without_a_length)
{
    Probe_Server server;
    size_t refused = 0;
    for (const char* const method : {"GET", "POST", "PUT", "DELETE", "PATCH"}) {
        const auto client = server.connect();
        ASSERT_NE(nullptr, client);
        const Wire_Response response =
            client->exchange(method + std::string(" /probe/silent HTTP/1.1\r\nHost: test\r\n\r\n"));
        EXPECT_EQ("HTTP/1.1 411 Length Required", response.status_line) << method;
        EXPECT_TRUE(client->is_closed_by_peer());
        ++refused;
        EXPECT_TRUE(server.host().wait_for_log_count(
            " ERROR HTTP request is lack of Content-Length.", refused));
    }
    EXPECT_EQ(refused, count_lines(server, "ERROR", "HTTP request is lack of Content-Length."));
    EXPECT_EQ(0U, count_log(server, "probe: handle_body"));
}

TEST(Request_Refusal, answers_411_to_a_coding_that_it_does_not_decode)
{
    Probe_Server server;
    for (const char* const coding : {"gzip", "gzip, chunked", "Chunked", "identity"}) {
        SCOPED_TRACE(coding);
        const auto client = server.connect();
        ASSERT_NE(nullptr, client);
        const Wire_Response response =
            client->exchange("POST /probe/silent HTTP/1.1\r\nHost: test\r\nTransfer-Encoding: " +
                             std::string(coding) + "\r\n\r\n0\r\n\r\n");
        EXPECT_EQ(411, response.status);
        EXPECT_TRUE(client->is_closed_by_peer());
    }
}

TEST(Request_Refusal, takes_nothing_behind_a_coding_that_it_does_not_decode_for_a_request)
{
    Probe_Server server;
    const auto client = server.connect();
    ASSERT_NE(nullptr, client);
    client->send("POST /probe/hello HTTP/1.1\r\nHost: test\r\nTransfer-Encoding: gzip, chunked\r\n"
                 "\r\n" +
                 get_request("/probe/describe"));
    EXPECT_EQ("Hello, World!", client->read_response().body);
    EXPECT_TRUE(client->is_closed_by_peer());
    EXPECT_EQ(0U, count_log(server, "/probe/describe"));
}

TEST(Request_Refusal, answers_for_a_plug_in_that_sent_nothing_and_goes_on)
{
    struct Row {
        const char* name;
        std::string request;
        int status;
    };
    const Row rows[] = {
        {"counted", body_request("POST", "/probe/silent", "Hello"), 200},
        {"GET with a body", body_request("GET", "/probe/silent", "Hello"), 200},
        {"empty", body_request("POST", "/probe/silent", ""), 200},
        {"GET with an empty body", body_request("GET", "/probe/silent", ""), 200},
        {"chunked", chunked_request("POST", "/probe/silent", {"Hel", "lo"}), 200},
        {"empty and chunked", chunked_request("POST", "/probe/silent", {}), 200},
        {"other status", body_request("POST", "/probe/silent-204", "Hello"), 204},
    };
    Probe_Server server;
    const auto client = server.connect();
    ASSERT_NE(nullptr, client);
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        const Wire_Response response = client->exchange(row.request);
        EXPECT_EQ(row.status, response.status);
        EXPECT_EQ("0", response.field("content-length"));
        EXPECT_EQ("Keep-Alive", response.field("connection"));
    }
    EXPECT_EQ("Hello, World!", client->exchange(get_request("/probe/hello")).body);
}

TEST(Request_Refusal, closes_without_an_answer_when_the_plug_in_fails)
{
    Probe_Server server;
    const auto in_request = server.connect();
    ASSERT_NE(nullptr, in_request);
    in_request->send(get_request("/probe/fail"));
    EXPECT_TRUE(in_request->is_closed_by_peer());

    const auto in_body = server.connect();
    ASSERT_NE(nullptr, in_body);
    in_body->send(body_request("POST", "/probe/body-fail", "Hello"));
    EXPECT_TRUE(in_body->is_closed_by_peer());

    const auto at_end = server.connect();
    ASSERT_NE(nullptr, at_end);
    at_end->send(chunked_request("POST", "/probe/body-fail", {}));
    EXPECT_TRUE(at_end->is_closed_by_peer());

    EXPECT_TRUE(server.host().wait_for_log_count("probe: handle_close", 3));
    EXPECT_EQ(1U, count_log(server, "probe: handle_close fail"));
    EXPECT_EQ(2U, count_log(server, "probe: handle_close body-fail"));
}

TEST(Request_Refusal, answers_head_with_headers_only_when_the_plug_in_sent_nothing)
{
    Probe_Server server;
    const auto client = server.connect();
    ASSERT_NE(nullptr, client);
    constexpr bool HEAD_ONLY = true;
    client->send("HEAD /probe/silent HTTP/1.1\r\nHost: test\r\n\r\n");
    const Wire_Response response = client->read_response(HEAD_ONLY);
    EXPECT_EQ("HTTP/1.1 200 OK", response.status_line);
    EXPECT_FALSE(response.has("content-length"));
    // Without a length the end of the response is the end of the connection.
    EXPECT_EQ("close", response.field("connection"));
    EXPECT_TRUE(client->is_closed_by_peer());
    EXPECT_EQ(0U, count_log(server, "lack of Content-Length"));
}

TEST(Request_Refusal, keeps_a_connection_whose_head_it_answered_with_a_length)
{
    Probe_Server server;
    const auto client = server.connect();
    ASSERT_NE(nullptr, client);
    constexpr bool HEAD_ONLY = true;
    for (int i = 0; i < 3; ++i) {
        const Wire_Response response =
            client->exchange("HEAD /probe/length-only HTTP/1.1\r\nHost: test\r\n\r\n", HEAD_ONLY);
        EXPECT_EQ(200, response.status);
        EXPECT_EQ("13", response.field("content-length"));
        EXPECT_EQ("Keep-Alive", response.field("connection"));
    }
    EXPECT_EQ("Hello, World!", client->exchange(get_request("/probe/hello")).body);
}

TEST(Request_Refusal, closes_behind_a_head_that_carried_a_body)
{
    Probe_Server server;
    const auto client = server.connect();
    ASSERT_NE(nullptr, client);
    constexpr bool HEAD_ONLY = true;
    client->send(body_request("HEAD", "/probe/length-only", get_request("/probe/describe")));
    EXPECT_EQ(200, client->read_response(HEAD_ONLY).status);
    EXPECT_TRUE(client->is_closed_by_peer());
    EXPECT_EQ(0U, count_log(server, "/probe/describe"));
}

TEST(Request_Refusal, refuses_head_without_a_body)
{
    Probe_Server server;
    const auto client = server.connect();
    ASSERT_NE(nullptr, client);
    client->send("HEAD /nothing HTTP/1.1\r\nHost: test\r\n\r\n");
    const std::string all = client->read_to_end();
    EXPECT_EQ(0U, all.find("HTTP/1.1 404 Not Found\r\n"));
    EXPECT_EQ(all.size() - 4, all.find("\r\n\r\n"));
}
