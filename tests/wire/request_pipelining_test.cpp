// Requests that come together, or cut anywhere, and their lines in the access log.

#include "tests/support/probe_server.h"
#include "tests/wire/host_log.h"

#include <gtest/gtest.h>

#include <netinet/in.h>
#include <netinet/tcp.h>

#include <csignal>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

namespace {

struct Exchange {
    std::string request;
    std::string body; ///< of the response, whose status is 200
    bool head_only = false;
};

/// One request of each kind that leaves the connection open.
std::vector<Exchange> mixed_requests(const std::string& prefix)
{
    const std::string head = "HEAD " + prefix + "/hello HTTP/1.1\r\nHost: test\r\n\r\n";
    const std::string bare_head = "HEAD " + prefix + "/length-only HTTP/1.1\r\nHost: test\r\n\r\n";
    return {
        {get_request(prefix + "/hello"), "Hello, World!"},
        {body_request("POST", prefix + "/collect", "counted"), "counted"},
        {chunked_request("POST", prefix + "/collect", {"chun", "ked"}), "chunked"},
        {head, "", true},
        {bare_head, "", true},
        {body_request("POST", prefix + "/silent", "x"), ""},
        {body_request("PUT", prefix + "/collect", ""), ""},
        {get_request(prefix + "/chunked"), "Hello, World!"},
        {get_request(prefix + "/hello", {"Connection: Keep-Alive"}), "Hello, World!"},
    };
}

std::string all_requests(const std::vector<Exchange>& exchanges)
{
    std::string text;
    for (const Exchange& exchange : exchanges) {
        text += exchange.request;
    }
    return text;
}

void expect_answers(Wire_Client& client, const std::vector<Exchange>& exchanges)
{
    for (const Exchange& exchange : exchanges) {
        const Wire_Response response = client.read_response(exchange.head_only);
        ASSERT_EQ(200, response.status) << exchange.request;
        ASSERT_TRUE(response.complete) << exchange.request;
        ASSERT_EQ(exchange.body, response.body) << exchange.request;
    }
}

/// A server whose log tells of every read, so that a test can see each piece taken by itself.
class Read_By_Read {
public:
    Read_By_Read() : server_(setup()) {}

    std::unique_ptr<Wire_Client> connect() const
    {
        std::unique_ptr<Wire_Client> client = server_.connect();
        const int on = 1;
        if (client != nullptr) { // a piece is not to wait for the one before
            ::setsockopt(client->handle(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        }
        return client;
    }

    /// Sends a piece; returns when the server has read it.
    bool send(Wire_Client& client, const std::string& piece)
    {
        return client.send(piece) &&
               server_.host().wait_for_log_count("HTTP connection received", ++reads_);
    }

private:
    static Probe_Server::Setup setup()
    {
        Probe_Server::Setup setup;
        setup.log_level = "trace";
        return setup;
    }

    Probe_Server server_;
    size_t reads_ = 0;
};

/// Cuts the requests at each position, every time on a connection of its own: answers that follow
/// one another on one connection may wait for the client's acknowledgement, all at once do not.
void cut_everywhere(const std::vector<Exchange>& exchanges)
{
    Read_By_Read reads;
    const std::string text = all_requests(exchanges);
    std::vector<std::unique_ptr<Wire_Client>> clients;
    for (size_t cut = 1; cut < text.size(); ++cut) {
        clients.push_back(reads.connect());
        ASSERT_NE(nullptr, clients.back());
        ASSERT_TRUE(reads.send(*clients.back(), text.substr(0, cut)));
        ASSERT_TRUE(reads.send(*clients.back(), text.substr(cut)));
    }
    for (size_t cut = 1; cut < text.size(); ++cut) {
        SCOPED_TRACE("cut behind " + std::to_string(cut) + " bytes");
        ASSERT_NO_FATAL_FAILURE(expect_answers(*clients[cut - 1], exchanges));
    }
}

std::vector<std::string> lines_of(const std::string& path)
{
    std::vector<std::string> lines;
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);) {
        lines.push_back(line);
    }
    return lines;
}

/// The text with every digit made 0.
std::string masked(std::string text)
{
    for (char& c : text) {
        c = c >= '0' && c <= '9' ? '0' : c;
    }
    return text;
}

/// A server with an access log.
class Logging_Server {
public:
    Logging_Server() : server_(setup(folder_.path() + "/access.log")) {}

    Probe_Server& server() { return server_; }

    /// Stops the server. @return the lines without date, peer and duration, which are checked.
    std::vector<std::string> access_lines()
    {
        EXPECT_EQ(0, server_.host().stop(SIGTERM)) << server_.host().log_text();
        std::vector<std::string> rest;
        for (const std::string& line : lines_of(folder_.path() + "/access.log")) {
            const size_t peer = line.find("@127.0.0.1@");
            const size_t request = line.rfind('@');
            EXPECT_EQ("0000-00-00 00:00:00.000000", masked(line.substr(0, peer))) << line;
            EXPECT_EQ("0.000000", masked(line.substr(peer + 11, request - peer - 11))) << line;
            rest.push_back(line.substr(request + 1));
        }
        return rest;
    }

private:
    static Probe_Server::Setup setup(const std::string& path)
    {
        Probe_Server::Setup setup;
        setup.options = {"-l", path};
        return setup;
    }

    Temporary_Folder folder_;
    Probe_Server server_;
};

using Lines = std::vector<std::string>;

} // namespace

TEST(Request_Pipelining, serves_two_posts_of_one_write)
{
    Probe_Server server;
    const auto client = server.connect();
    ASSERT_NE(nullptr, client);
    client->send(body_request("POST", "/probe/collect", "first") +
                 body_request("POST", "/probe/collect", "second"));
    EXPECT_EQ("first", client->read_response().body);
    EXPECT_EQ("second", client->read_response().body);
}

TEST(Request_Pipelining, serves_twenty_gets_of_one_write_without_further_input)
{
    Probe_Server server;
    const auto client = server.connect();
    ASSERT_NE(nullptr, client);
    std::string requests;
    for (int i = 0; i < 20; ++i) {
        requests += get_request("/probe/describe?" + std::to_string(i));
    }
    client->send(requests);
    for (int i = 0; i < 20; ++i) {
        const std::string number = std::to_string(i);
        EXPECT_EQ("GET /probe/describe /probe/describe?" + number + " " + number + " test",
                  client->read_response().body);
    }
}

TEST(Request_Pipelining, serves_more_requests_than_the_buffer_holds)
{
    Probe_Server server;
    const auto client = server.connect();
    ASSERT_NE(nullptr, client);
    std::string requests;
    for (int i = 0; i < 1000; ++i) {
        requests += get_request("/probe/describe?" + std::to_string(i));
    }
    ASSERT_GT(requests.size(), 5U * 8192U);
    client->send(requests);
    for (int i = 0; i < 1000; ++i) {
        const std::string number = std::to_string(i);
        ASSERT_EQ("GET /probe/describe /probe/describe?" + number + " " + number + " test",
                  client->read_response().body);
    }
}

TEST(Request_Pipelining, serves_requests_of_every_kind_in_order)
{
    Probe_Server server;
    const auto client = server.connect();
    ASSERT_NE(nullptr, client);
    std::vector<Exchange> exchanges;
    for (int i = 0; i < 3; ++i) {
        for (const Exchange& exchange : mixed_requests("/probe")) {
            exchanges.push_back(exchange);
        }
    }
    client->send(all_requests(exchanges));
    expect_answers(*client, exchanges);
    EXPECT_EQ(0U, count_log(server, " ERROR "));
}

TEST(Request_Pipelining, serves_a_request_behind_a_head)
{
    Probe_Server server;
    const auto client = server.connect();
    ASSERT_NE(nullptr, client);
    constexpr bool HEAD_ONLY = true;
    for (const char* const mode : {"hello", "length-only"}) {
        client->send("HEAD /probe/" + std::string(mode) + " HTTP/1.1\r\nHost: test\r\n\r\n" +
                     get_request("/probe/describe"));
        EXPECT_EQ("13", client->read_response(HEAD_ONLY).field("content-length"));
        EXPECT_EQ("GET /probe/describe /probe/describe - test", client->read_response().body);
    }
}

TEST(Request_Pipelining, ends_with_the_request_that_asks_for_the_close)
{
    Probe_Server server;
    for (const std::string& last :
         {get_request("/probe/hello", {"Connection: close"}),
          body_request("POST", "/probe/collect", "Hello, World!", {"Connection: close"}),
          get_request("/probe/until-close")}) {
        const auto client = server.connect();
        ASSERT_NE(nullptr, client);
        client->send(get_request("/probe/hello") + last + get_request("/probe/never"));
        EXPECT_EQ("Hello, World!", client->read_response().body);
        EXPECT_EQ("Hello, World!", client->read_response().body);
        EXPECT_TRUE(client->at_end() || client->is_closed_by_peer());
    }
    EXPECT_EQ(0U, count_log(server, "/probe/never"));
}

TEST(Request_Pipelining, serves_what_came_before_the_client_closed_its_side)
{
    Probe_Server server;
    const auto client = server.connect();
    ASSERT_NE(nullptr, client);
    client->send(all_requests(mixed_requests("/probe")));
    client->half_close();
    expect_answers(*client, mixed_requests("/probe"));
    EXPECT_TRUE(client->is_closed_by_peer());
}

TEST(Request_Pipelining, takes_requests_cut_at_every_byte)
{
    cut_everywhere({{get_request("/probe/hello", {"X-Name: value"}), "Hello, World!"}});
    cut_everywhere({{body_request("POST", "/probe/collect", "counted"), "counted"}});
    cut_everywhere({{chunked_request("POST", "/probe/collect", {"chun", "ked"}), "chunked"}});
}

TEST(Request_Pipelining, takes_pipelined_requests_cut_at_every_byte)
{
    cut_everywhere({{body_request("POST", "/probe/collect", "one"), "one"},
                    {get_request("/probe/hello"), "Hello, World!"},
                    {chunked_request("POST", "/probe/collect", {"two"}), "two"}});
}

TEST(Request_Pipelining, takes_requests_byte_by_byte)
{
    for (const std::string prefix : {"/probe", "/probe/thread"}) {
        Read_By_Read reads;
        const auto client = reads.connect();
        ASSERT_NE(nullptr, client);
        const std::vector<Exchange> exchanges = mixed_requests(prefix);
        for (const char byte : all_requests(exchanges)) {
            ASSERT_TRUE(reads.send(*client, std::string(1, byte)));
        }
        expect_answers(*client, exchanges);
    }
}

// ---------------------------------------------------------------- access log

TEST(Request_Access_Log, has_one_line_for_each_pipelined_request)
{
    Logging_Server logging;
    const auto client = logging.server().connect();
    ASSERT_NE(nullptr, client);
    client->send(all_requests(mixed_requests("/probe")));
    expect_answers(*client, mixed_requests("/probe"));
    EXPECT_EQ((Lines{"GET /probe/hello HTTP/1.1 200 0 13", "POST /probe/collect HTTP/1.1 200 7 7",
                     "POST /probe/collect HTTP/1.1 200 7 7", "HEAD /probe/hello HTTP/1.1 200 0 0",
                     "HEAD /probe/length-only HTTP/1.1 200 0 0",
                     "POST /probe/silent HTTP/1.1 200 1 0", "PUT /probe/collect HTTP/1.1 200 0 0",
                     "GET /probe/chunked HTTP/1.1 200 0 13", "GET /probe/hello HTTP/1.1 200 0 13"}),
              logging.access_lines());
}

TEST(Request_Access_Log, has_one_line_for_each_of_two_pipelined_posts)
{
    Logging_Server logging;
    const auto client = logging.server().connect();
    ASSERT_NE(nullptr, client);
    client->send(body_request("POST", "/probe/collect", "first") +
                 body_request("POST", "/probe/collect?q", "second", {"Connection: close"}));
    EXPECT_EQ("first", client->read_response().body);
    EXPECT_EQ("second", client->read_response().body);
    EXPECT_TRUE(client->is_closed_by_peer());
    EXPECT_EQ(
        (Lines{"POST /probe/collect HTTP/1.1 200 5 5", "POST /probe/collect HTTP/1.1 200 6 6"}),
        logging.access_lines());
}

TEST(Request_Access_Log, has_one_line_for_each_request_of_a_worker_thread)
{
    Logging_Server logging;
    const auto client = logging.server().connect();
    ASSERT_NE(nullptr, client);
    const std::vector<Exchange> exchanges = mixed_requests("/probe/thread");
    client->send(all_requests(exchanges));
    expect_answers(*client, exchanges);
    EXPECT_EQ(exchanges.size(), logging.access_lines().size());
}

TEST(Request_Access_Log, has_the_refused_and_the_broken_off_but_not_the_unanswered)
{
    Logging_Server logging;
    const std::vector<std::string> requests = {
        get_request("/nothing"),
        get_request("/probe/../x"),
        get_request("/probe/silent"),
        get_request("/probe/until-close"),
        get_request("/probe/half"),
        get_request("/probe/fail"),                             // no response
        "GET /probe/hello HTTP/1.1\nHost: test\r\n\r\n",        // no response
        chunked_request("POST", "/probe/collect", {"x"}) + "x", // served, then malformed
    };
    for (const std::string& request : requests) {
        const auto client = logging.server().connect();
        ASSERT_NE(nullptr, client);
        client->send(request);
        client->half_close();
        client->read_to_end();
    }
    EXPECT_EQ(
        (Lines{"GET /nothing HTTP/1.1 404 0 0", "GET /probe/../x HTTP/1.1 400 0 0",
               "GET /probe/silent HTTP/1.1 411 0 0", "GET /probe/until-close HTTP/1.1 200 0 13",
               "GET /probe/half HTTP/1.1 200 0 5", "POST /probe/collect HTTP/1.1 200 1 1"}),
        logging.access_lines());
}
