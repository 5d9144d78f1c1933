// Requests to change the protocol, up to the point where a WebSocket plug-in is needed.

#include "tests/support/probe_server.h"
#include "tests/wire/host_log.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

const std::string UPGRADE = "Upgrade: websocket";
const std::string CONNECTION = "Connection: Upgrade";
const std::string VERSION = "Sec-WebSocket-Version: 13";
const std::string KEY = "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==";

struct Refused {
    const char* name;
    std::vector<std::string> fields;
    int status;
    const char* priority;
    const char* text;
};

void expect_refused(const Probe_Server& server, const Refused& row)
{
    SCOPED_TRACE(row.name);
    const auto client = server.connect();
    ASSERT_NE(nullptr, client);
    client->send(get_request("/probe/hello", row.fields) + get_request("/probe/hello"));
    const Wire_Response response = client->read_response();
    EXPECT_EQ(row.status, response.status);
    EXPECT_EQ("0", response.field("content-length"));
    EXPECT_TRUE(client->is_closed_by_peer());
}

} // namespace

TEST(Request_Upgrade, answers_501_to_every_protocol_but_websocket)
{
    Probe_Server server;
    for (const std::string protocol : {"h2c", "TLS/1.0", "websockets", "websocket, h2c", "web"}) {
        expect_refused(server,
                       {protocol.c_str(), {"Upgrade: " + protocol, CONNECTION}, 501, "", ""});
        EXPECT_TRUE(has_line(server.host(), "ERROR",
                             "HTTP client wants to upgrade to '" + protocol +
                                 "' that is not implemented."));
    }
    EXPECT_EQ(0U, count_log(server, "probe: handle_request"));
}

TEST(Request_Upgrade, refuses_an_incomplete_websocket_handshake)
{
    const Refused rows[] = {
        {"nothing but the protocol",
         {UPGRADE},
         400,
         "ERROR",
         "Lack of 'Connection: Upgrade' when handshaking WebSocket."},
        {"no Connection",
         {UPGRADE, VERSION, KEY},
         400,
         "ERROR",
         "Lack of 'Connection: Upgrade' when handshaking WebSocket."},
        {"other option",
         {UPGRADE, "Connection: keep-alive", VERSION, KEY},
         400,
         "ERROR",
         "HTTP head 'Connection' is 'keep-alive' rather than 'Upgrade' when handshaking "
         "WebSocket."},
        {"longer option",
         {UPGRADE, "Connection: upgrade-please", VERSION, KEY},
         400,
         "ERROR",
         "HTTP head 'Connection' is 'upgrade-please' rather than 'Upgrade' when handshaking "
         "WebSocket."},
        {"no version",
         {UPGRADE, CONNECTION, KEY},
         400,
         "ERROR",
         "Lack of HTTP head 'Sec-WebSocket-Version' when handshaking WebSocket."},
        {"version 8",
         {UPGRADE, CONNECTION, "Sec-WebSocket-Version: 8", KEY},
         501,
         "ERROR",
         "Not supported WebSocket (Sec-WebSocket-Version: 8)."},
        {"two versions",
         {UPGRADE, CONNECTION, "Sec-WebSocket-Version: 13, 8", KEY},
         501,
         "ERROR",
         "Not supported WebSocket (Sec-WebSocket-Version: 13, 8)."},
        {"no key",
         {UPGRADE, CONNECTION, VERSION},
         400,
         "ERROR",
         "Lack of HTTP head 'Sec-WebSocket-Key' when handshaking WebSocket."},
        {"no plug-in",
         {UPGRADE, CONNECTION, VERSION, KEY},
         404,
         "DEBUG",
         "Not found WebSocket uri '/probe/hello'."},
    };
    for (const Refused& row : rows) {
        Probe_Server server;
        expect_refused(server, row);
        EXPECT_TRUE(has_line(server.host(), row.priority, row.text)) << row.name;
        EXPECT_EQ(0U, count_log(server, "probe: handle_request")) << row.name;
        if (std::string(row.priority) == "DEBUG") {
            EXPECT_EQ(0U, count_log(server, " ERROR ")) << row.name;
        }
    }
}

TEST(Request_Upgrade, compares_names_without_case_and_finds_the_option_in_a_list)
{
    Probe_Server server;
    const std::vector<std::vector<std::string>> accepted = {
        {"Upgrade: WebSocket", CONNECTION, VERSION, KEY},
        {"UPGRADE: WEBSOCKET", "Connection: upgrade", VERSION, KEY},
        {UPGRADE, "Connection: keep-alive, Upgrade", VERSION, KEY},
        {UPGRADE, "Connection: Upgrade,close", VERSION, KEY},
        {UPGRADE, "Connection: keep-alive", "Connection: Upgrade", VERSION, KEY},
    };
    for (const std::vector<std::string>& fields : accepted) {
        // All checks pass, up to the plug-in that is not there.
        expect_refused(server, {fields[0].c_str(), fields, 404, "", ""});
    }
    EXPECT_TRUE(server.host().wait_for_log_count("Not found WebSocket uri '/probe/hello'.",
                                                 accepted.size()));
    EXPECT_EQ(0U, count_log(server, " ERROR "));
}

TEST(Request_Upgrade, checks_path_referer_and_authenticator_first)
{
    Probe_Server::Setup setup;
    setup.authenticators = {{"/locked", "probe_plugin", "_make_Empty_Auth"}};
    setup.options = {"-s", "a.example"};
    Probe_Server server(setup);
    struct Row {
        const char* target;
        std::vector<std::string> fields;
        int status;
    };
    const Row rows[] = {{"/probe/../x", {UPGRADE}, 400},
                        {"/probe/x", {UPGRADE, "Referer: http://evil/"}, 403},
                        {"/locked/x", {UPGRADE}, 500}};
    for (const Row& row : rows) {
        const auto client = server.connect();
        ASSERT_NE(nullptr, client);
        EXPECT_EQ(row.status, client->exchange(get_request(row.target, row.fields)).status);
        EXPECT_TRUE(client->is_closed_by_peer());
    }
    EXPECT_EQ(0U, count_log(server, " ERROR "));
}
