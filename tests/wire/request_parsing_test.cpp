// What the server accepts as a request header, and what it drops without an answer.

#include "tests/support/probe_server.h"
#include "tests/wire/host_log.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

/// A request for "/probe/describe" with these bytes as its header fields.
std::string with_fields(const std::string& fields)
{
    return "GET /probe/describe HTTP/1.1\r\n" + fields + "\r\n";
}

std::string with_target(const std::string& target)
{
    return "GET " + target + " HTTP/1.1\r\nHost: test\r\n\r\n";
}

std::string field_lines(int count)
{
    std::string fields;
    for (int i = 0; i < count; ++i) {
        fields += "X-" + std::to_string(i) + ": y\r\n";
    }
    return fields;
}

struct Case {
    const char* name;
    std::string request;
};

std::vector<Case> malformed_requests()
{
    const std::string nul(1, '\0');
    return {
        {"bare LF behind the request line", "GET /probe/describe HTTP/1.1\nHost: test\r\n\r\n"},
        {"bare LF behind a field", with_fields("Host: test\nX: y\r\n")},
        {"bare LF as the empty line", "GET /probe/describe HTTP/1.1\r\nHost: test\r\n\n"},
        {"bare CR in a field", with_fields("Host: test\rX: y\r\n")},
        {"bare CR in the request line", "GET /probe/describe\r HTTP/1.1\r\n\r\n"},
        {"NUL in a value", with_fields("X: a" + nul + "b\r\n")},
        {"control character in a value", with_fields("X: a\x01"
                                                     "b\r\n")},
        {"DEL in a value", with_fields("X: a\x7F"
                                       "b\r\n")},
        {"blank before the colon", with_fields("Host : test\r\n")},
        {"tab before the colon", with_fields("Host\t: test\r\n")},
        {"continuation line", with_fields("X: a\r\n b\r\n")},
        {"continuation line with a tab", with_fields("X: a\r\n\tb\r\n")},
        {"blank in front of the first field", with_fields(" Host: test\r\n")},
        {"empty name", with_fields(": test\r\n")},
        {"field without a colon", with_fields("Host\r\n")},
        {"name that is no token", with_fields("X(y): z\r\n")},
        {"HTTP/2.0", "GET /probe/describe HTTP/2.0\r\n\r\n"},
        {"HTTP/0.9", "GET /probe/describe HTTP/0.9\r\n\r\n"},
        {"HTTP/1.10", "GET /probe/describe HTTP/1.10\r\n\r\n"},
        {"HTTP/1.x", "GET /probe/describe HTTP/1.x\r\n\r\n"},
        {"version in lower case", "GET /probe/describe http/1.1\r\n\r\n"},
        {"no version", "GET /probe/describe\r\n\r\n"},
        {"no target", "GET HTTP/1.1\r\n\r\n"},
        {"empty target", "GET  HTTP/1.1\r\n\r\n"},
        {"no method", " /probe/describe HTTP/1.1\r\n\r\n"},
        {"method that is no token", "G(T /probe/describe HTTP/1.1\r\n\r\n"},
        {"two blanks before the version", "GET /probe/describe  HTTP/1.1\r\n\r\n"},
        {"blank behind the version", "GET /probe/describe HTTP/1.1 \r\n\r\n"},
        {"blank in the target", with_target("/probe/ describe")},
        {"tab in the target", with_target("/probe/\tdescribe")},
        {"control character in the target", with_target("/probe/\x01")},
        {"byte above 0x7E in the target", with_target("/probe/\xC3\xA4")},
        {"%00 in the path", with_target("/probe/%00describe")},
        {"percent-encoding cut short", with_target("/probe/describe%4")},
        {"percent-encoding that is not hexadecimal", with_target("/probe/%zz/describe")},
        {"129 header lines", with_fields(field_lines(129))},
        {"Transfer-Encoding and Content-Length",
         with_fields("Transfer-Encoding: chunked\r\nContent-Length: 5\r\n")},
        {"Content-Length and Transfer-Encoding",
         with_fields("Content-Length: 5\r\nTransfer-Encoding: chunked\r\n")},
        {"Transfer-Encoding in HTTP/1.0",
         "GET /probe/describe HTTP/1.0\r\nTransfer-Encoding: chunked\r\n\r\n"},
        {"two lengths", with_fields("Content-Length: 5\r\nContent-Length: 6\r\n")},
        {"two lengths in one field", with_fields("Content-Length: 5, 6\r\n")},
        {"negative length", with_fields("Content-Length: -1\r\n")},
        {"length with a sign", with_fields("Content-Length: +1\r\n")},
        {"length that is no number", with_fields("Content-Length: abc\r\n")},
        {"empty length", with_fields("Content-Length:\r\n")},
        {"length beyond 64 bits", with_fields("Content-Length: 18446744073709551616\r\n")},
        {"two hosts", with_fields("Host: test\r\nHost: test\r\n")},
        {"three empty lines first", "\r\n\r\n\r\n" + with_target("/probe/describe")},
        {"bytes of a TLS client", std::string("\x16\x03\x01\x02\x00\x01\x00\x01\xFC\x03\x03", 11)},
    };
}

} // namespace

TEST(Request_Parsing, drops_each_malformed_header_without_an_answer)
{
    Probe_Server server;
    for (const Case& malformed : malformed_requests()) {
        SCOPED_TRACE(malformed.name);
        const auto client = server.connect();
        ASSERT_NE(nullptr, client);
        ASSERT_TRUE(client->send(malformed.request));
        EXPECT_TRUE(client->is_closed_by_peer());
        EXPECT_TRUE(
            has_line(server.host(), "ERROR",
                     "Failed to parse HTTP header by " + peer_text(*client) + ", parser state=-1"));
    }
    EXPECT_EQ(0U, count_log(server, "probe: handle_request"));
    EXPECT_EQ(0, server.host().stop(SIGTERM));
}

TEST(Request_Parsing, drops_a_malformed_header_behind_a_request_that_was_served)
{
    Probe_Server server;
    const auto client = server.connect();
    ASSERT_NE(nullptr, client);
    client->send(get_request("/probe/hello") + "GET /probe/hello HTTP/1.1\nHost: test\n\n");
    EXPECT_EQ("Hello, World!", client->read_response().body);
    EXPECT_TRUE(client->is_closed_by_peer());
    EXPECT_TRUE(
        has_line(server.host(), "ERROR",
                 "Failed to parse HTTP header by " + peer_text(*client) + ", parser state=-1"));
}

TEST(Request_Parsing, accepts_what_robust_servers_accept)
{
    struct Accepted {
        const char* name;
        std::string request;
        std::string body; ///< what "describe" says
    };
    const std::vector<Accepted> table = {
        {"two empty lines first", "\r\n\r\n" + with_target("/probe/describe"),
         "GET /probe/describe /probe/describe - test"},
        {"no host", with_fields(""), "GET /probe/describe /probe/describe - -"},
        {"HTTP/1.9", "GET /probe/describe HTTP/1.9\r\nHost: test\r\n\r\n",
         "GET /probe/describe /probe/describe - test"},
        {"128 header lines", with_fields(field_lines(128)),
         "GET /probe/describe /probe/describe - -"},
        {"tab and bytes above 0x7F in a value", with_fields("X: a\tb \xC3\xA4\r\nHost: test\r\n"),
         "GET /probe/describe /probe/describe - test"},
        {"blanks around a value", with_fields("Host: \t test \t\r\n"),
         "GET /probe/describe /probe/describe - test"},
        {"no blank behind the colon, name in any case", with_fields("hOST:test\r\n"),
         "GET /probe/describe /probe/describe - test"},
        {"query", with_target("/probe/describe?a=b&c=./d%00"),
         "GET /probe/describe /probe/describe?a=b&c=./d%00 a=b&c=./d%00 test"},
        {"empty query", with_target("/probe/describe?"),
         "GET /probe/describe /probe/describe?  test"},
        {"encoded unreserved characters", with_target("/%70robe/%64escribe"),
         "GET /probe/describe /%70robe/%64escribe - test"},
        {"other encoded characters stay", with_target("/probe/a%2Fb%20/describe"),
         "GET /probe/a%2Fb%20/describe /probe/a%2Fb%20/describe - test"},
        {"absolute form", "GET http://other:8080/probe/describe?q HTTP/1.1\r\nHost: test\r\n\r\n",
         "GET /probe/describe http://other:8080/probe/describe?q q other:8080"},
        {"a method that is not in the table",
         "PATCH /probe/describe HTTP/1.1\r\nHost: test\r\n\r\n",
         "PATCH /probe/describe /probe/describe - test"},
        {"methods are case-sensitive", "get /probe/describe HTTP/1.1\r\nHost: test\r\n\r\n",
         "get /probe/describe /probe/describe - test"},
        {"MKCOL", "MKCOL /probe/describe HTTP/1.1\r\nHost: test\r\n\r\n",
         "MKCOL /probe/describe /probe/describe - test"},
        {"equal lengths", with_fields("Content-Length: 0\r\nContent-Length: 0\r\n"),
         "GET /probe/describe /probe/describe - -"},
    };
    Probe_Server server;
    const auto client = server.connect();
    ASSERT_NE(nullptr, client);
    for (const Accepted& accepted : table) {
        SCOPED_TRACE(accepted.name);
        const Wire_Response response = client->exchange(accepted.request);
        EXPECT_EQ("HTTP/1.1 200 OK", response.status_line);
        EXPECT_EQ(accepted.body, response.body);
    }
    EXPECT_EQ(0U, count_log(server, " ERROR "));
}

TEST(Request_Parsing, takes_the_digits_that_a_length_begins_with)
{
    Probe_Server server;
    const auto client = server.connect();
    ASSERT_NE(nullptr, client);
    const Wire_Response response = client->exchange(
        "POST /probe/collect HTTP/1.1\r\nHost: test\r\nContent-Length: 12abc\r\n\r\nHello, World");
    EXPECT_EQ("Hello, World", response.body);
    EXPECT_EQ("Hello, World!", client->exchange(get_request("/probe/hello")).body);
}

TEST(Request_Parsing, routes_the_asterisk_and_the_authority_form_by_their_text)
{
    Probe_Server server;
    for (const std::string target : {"*", "test:443"}) {
        SCOPED_TRACE(target);
        const auto client = server.connect();
        ASSERT_NE(nullptr, client);
        const std::string method = target == "*" ? "OPTIONS " : "CONNECT ";
        const Wire_Response response =
            client->exchange(method + target + " HTTP/1.1\r\nHost: test\r\n\r\n");
        EXPECT_EQ(404, response.status);
        EXPECT_TRUE(has_line(server.host(), "DEBUG", "Not found HTTP uri '" + target + "'."));
    }
}

TEST(Request_Parsing, gives_a_plug_in_the_offset_behind_the_uri_that_it_is_bound_to)
{
    Probe_Server server;
    const auto client = server.connect();
    ASSERT_NE(nullptr, client);
    EXPECT_EQ(200, client->exchange(get_request("/probe/a/hello?q")).status);
    EXPECT_TRUE(
        has_line(server.host(), "INFO", "probe: handle_request GET /probe/a/hello off=6 params="));
}

TEST(Request_Parsing, does_not_take_the_beginning_of_a_segment_for_the_segment)
{
    Probe_Server server;
    const auto client = server.connect();
    ASSERT_NE(nullptr, client);
    EXPECT_EQ(404, client->exchange(get_request("/probes/hello")).status);
    EXPECT_TRUE(has_line(server.host(), "DEBUG", "Not found HTTP uri '/probes/hello'."));
}

// ---------------------------------------------------------------- the client behind a proxy

namespace {

std::string original_address(Wire_Client& client, const std::vector<std::string>& fields)
{
    const std::string body = client.exchange(get_request("/probe/addresses", fields)).body;
    const size_t begin = body.find("original=") + 9;
    return body.substr(begin, body.find(' ', begin) - begin);
}

std::string host_part(const std::string& address)
{
    return address.substr(0, address.rfind(':'));
}

} // namespace

TEST(Request_Origin, takes_the_first_address_that_the_trusted_proxy_names)
{
    struct Row {
        const char* forwarded;
        const char* original; ///< null: the peer itself
    };
    const Row rows[] = {
        {"203.0.113.7", "203.0.113.7"},
        {"203.0.113.7, 10.0.0.1, 10.0.0.2", "203.0.113.7"},
        {"203.0.113.7 \t,10.0.0.1", "203.0.113.7"},
        {"2001:db8::1", "2001:db8::1"},
        {"2001:db8::1, 203.0.113.7", "2001:db8::1"},
        {"", nullptr},
        {",203.0.113.7", nullptr},
        {"unknown", nullptr},
        {"unknown, 203.0.113.7", nullptr},
        {"203.0.113", nullptr},
        {"203.0.113.256", nullptr},
        {"203.0.113.7:80", nullptr},
        {"[2001:db8::1]", nullptr},
        {"2001:db8::1%lo", nullptr},
        {"client.example", nullptr},
        {"for=203.0.113.7", nullptr},
    };
    Probe_Server::Setup setup;
    setup.host = {"--proxy-from", "127.0.0.1"};
    Probe_Server server(setup);
    const auto client = server.connect();
    ASSERT_NE(nullptr, client);
    const std::string peer = host_part(peer_text(*client));
    ASSERT_EQ("127.0.0.1", peer);
    for (const Row& row : rows) {
        SCOPED_TRACE(row.forwarded);
        EXPECT_EQ(row.original != nullptr ? row.original : peer,
                  original_address(*client, {std::string("X-Forwarded-For: ") + row.forwarded}));
    }
    EXPECT_EQ("203.0.113.7", original_address(*client, {"X-Forwarded-For: 203.0.113.7",
                                                        "X-Forwarded-For: 10.0.0.1"}));
    // What one request said does not last for the next.
    EXPECT_EQ(peer, original_address(*client, {}));
}

TEST(Request_Origin, leaves_the_peer_address_as_it_is)
{
    Probe_Server::Setup setup;
    setup.host = {"--proxy-from", "127.0.0.1"};
    Probe_Server server(setup);
    const auto client = server.connect();
    ASSERT_NE(nullptr, client);
    const Wire_Response response =
        client->exchange(get_request("/probe/addresses", {"X-Forwarded-For: 203.0.113.7"}));
    EXPECT_EQ("remote=127.0.0.1 original=203.0.113.7 ssl=0 inet=0 unix=-1 nodelay=0 timeout=0",
              response.body);
}

TEST(Request_Origin, knows_a_proxy_by_its_IPv4_address_in_the_form_of_IPv6)
{
    Probe_Server::Setup setup;
    setup.host = {"--proxy-from", "::FFFF:127.0.0.1"};
    Probe_Server server(setup);
    const auto client = server.connect();
    ASSERT_NE(nullptr, client);
    EXPECT_EQ("203.0.113.7", original_address(*client, {"X-Forwarded-For: 203.0.113.7"}));
}

TEST(Request_Origin, trusts_no_other_peer_than_the_proxy)
{
    for (const std::string proxy : {"", "127.0.0.9", "::1"}) {
        SCOPED_TRACE(proxy);
        Probe_Server::Setup setup;
        if (!proxy.empty()) {
            setup.host = {"--proxy-from", proxy};
        }
        Probe_Server server(setup);
        const auto client = server.connect();
        ASSERT_NE(nullptr, client);
        EXPECT_EQ("127.0.0.1", original_address(*client, {"X-Forwarded-For: 203.0.113.7"}));
    }
}
