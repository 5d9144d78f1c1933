#include "tests/support/probe_server.h"
#include "tests/support/websocket_client.h"
#include "tests/wire/host_log.h"

#include <gtest/gtest.h>

#include <csignal>
#include <string>
#include <vector>

namespace {

const std::vector<Plugin_Record> PLUG_INS = {
    {"/ws", "websocket_probe_plugin", "_make_WS_Probe"},
    {"/empty", "websocket_probe_plugin", "_make_WS_Empty"},
};

Probe_Server::Setup websocket_setup()
{
    Probe_Server::Setup setup;
    setup.websockets = PLUG_INS;
    return setup;
}

/// The fields of a proper upgrade request, without the one of that name.
std::vector<std::string> fields_without(const std::string& name)
{
    std::vector<std::string> fields;
    for (const std::string& field : upgrade_fields()) {
        if (field.compare(0, name.size() + 1, name + ":") != 0) {
            fields.push_back(field);
        }
    }
    return fields;
}

/// The same with `field` in its place.
std::vector<std::string> fields_with(const std::string& name, const std::string& value)
{
    std::vector<std::string> fields = fields_without(name);
    fields.push_back(name + ": " + value);
    return fields;
}

/// Sends an upgrade request that is refused. @return the status, after the connection has ended.
int refused(Probe_Server& server, const std::string& target, const std::vector<std::string>& fields)
{
    const auto client = server.connect();
    const Wire_Response response = client->exchange(get_request(target, fields));
    EXPECT_TRUE(response.complete);
    EXPECT_TRUE(client->is_closed_by_peer());
    return response.status;
}

/// The calls that the plug-in has logged, each without its "ws: ".
std::vector<std::string> calls(const Host_Process& host)
{
    std::vector<std::string> texts;
    for (const std::string& line : host.log()) {
        const size_t at = line.find(" INFO ws: ");
        if (at != std::string::npos) {
            texts.push_back(line.substr(at + 10));
        }
    }
    return texts;
}

using Texts = std::vector<std::string>;

} // namespace

TEST(WebSocket_Handshake, answers_101_with_the_accept_value)
{
    Probe_Server server(websocket_setup());
    WebSocket_Client client(server.connect());
    ASSERT_TRUE(client.open("/ws/echo"));
    EXPECT_EQ("HTTP/1.1 101 Switching Protocols", client.response().status_line);
    EXPECT_EQ("websocket", client.response().field("upgrade"));
    EXPECT_EQ("Upgrade", client.response().field("connection"));
    EXPECT_EQ("s3pPLMBiTxaQ9kYGzzhZRbK+xOo=", client.response().field("sec-websocket-accept"));
    EXPECT_EQ("seen", client.response().field("x-probe")) << "the plug-in's own field";
    EXPECT_FALSE(client.response().has("sec-websocket-protocol"));
    EXPECT_FALSE(client.response().has("content-length"));
    EXPECT_FALSE(client.response().has("transfer-encoding"));
    EXPECT_TRUE(has_line(server.host(), "INFO", "ws: handle_handshaked"));
    const std::string peer = peer_text(client.wire());
    EXPECT_TRUE(server.host().wait_for_log("| WebSocket " + peer + " handshaked."));
    EXPECT_EQ((Texts{"handle_handshaking off=3", "concurrency", "handle_handshaked"}),
              calls(server.host()));
}

TEST(WebSocket_Handshake, logs_the_end_and_gives_the_object_back)
{
    Probe_Server server(websocket_setup());
    std::string peer;
    {
        WebSocket_Client client(server.connect());
        ASSERT_TRUE(client.open("/ws"));
        peer = peer_text(client.wire());
        client.wire().half_close();
        EXPECT_TRUE(client.wire().is_closed_by_peer());
    }
    EXPECT_TRUE(server.host().wait_for_log("| WebSocket " + peer + " closed."));
    ASSERT_TRUE(has_line(server.host(), "INFO", "ws: destroyed"));
    EXPECT_EQ((Texts{"handle_handshaking off=3", "concurrency", "handle_handshaked",
                     "handle_close 1006 (null) 0", "destroyed"}),
              calls(server.host()));
}

TEST(WebSocket_Handshake, finds_the_token_in_the_list_of_connection)
{
    Probe_Server server(websocket_setup());
    for (const std::string value :
         {"keep-alive, Upgrade", "Upgrade,keep-alive", "upgrade", "UPGRADE", "a,\t Upgrade ,b"}) {
        const auto client = server.connect();
        EXPECT_EQ(101,
                  client->exchange(get_request("/ws", fields_with("Connection", value))).status)
            << value;
    }
}

TEST(WebSocket_Handshake, refuses_a_connection_without_the_token)
{
    Probe_Server server(websocket_setup());
    for (const std::string value :
         {"upgrade-please", "keep-alive", "Up grade", "keep-alive Upgrade"}) {
        EXPECT_EQ(400, refused(server, "/ws", fields_with("Connection", value))) << value;
        EXPECT_TRUE(has_line(server.host(), "ERROR",
                             "HTTP head 'Connection' is '" + value +
                                 "' rather than 'Upgrade' when handshaking WebSocket."));
    }
    EXPECT_EQ(0U, count_log(server, "ws: ")) << "the plug-in is not asked";
}

TEST(WebSocket_Handshake, refuses_a_request_without_connection)
{
    Probe_Server server(websocket_setup());
    EXPECT_EQ(400, refused(server, "/ws", fields_without("Connection")));
    EXPECT_TRUE(has_line(server.host(), "ERROR",
                         "Lack of 'Connection: Upgrade' when handshaking WebSocket."));
}

TEST(WebSocket_Handshake, refuses_a_request_without_version)
{
    Probe_Server server(websocket_setup());
    EXPECT_EQ(400, refused(server, "/ws", fields_without("Sec-WebSocket-Version")));
    EXPECT_TRUE(has_line(server.host(), "ERROR",
                         "Lack of HTTP head 'Sec-WebSocket-Version' when handshaking WebSocket."));
}

TEST(WebSocket_Handshake, answers_501_to_every_other_version)
{
    Probe_Server server(websocket_setup());
    for (const std::string value : {"8", "13, 8", "013", "13.0", "14", "0"}) {
        EXPECT_EQ(501, refused(server, "/ws", fields_with("Sec-WebSocket-Version", value)))
            << value;
        EXPECT_TRUE(has_line(server.host(), "ERROR",
                             "Not supported WebSocket (Sec-WebSocket-Version: " + value + ")."));
    }
}

TEST(WebSocket_Handshake, refuses_a_request_without_key)
{
    Probe_Server server(websocket_setup());
    EXPECT_EQ(400, refused(server, "/ws", fields_without("Sec-WebSocket-Key")));
    EXPECT_TRUE(has_line(server.host(), "ERROR",
                         "Lack of HTTP head 'Sec-WebSocket-Key' when handshaking WebSocket."));
}

TEST(WebSocket_Handshake, does_not_judge_the_form_of_the_key)
{
    Probe_Server server(websocket_setup());
    const auto client = server.connect();
    const Wire_Response response =
        client->exchange(get_request("/ws", fields_with("Sec-WebSocket-Key", "not base64!")));
    EXPECT_EQ(101, response.status);
    EXPECT_EQ(28U, response.field("sec-websocket-accept").size());
}

TEST(WebSocket_Handshake, checks_in_order_and_stops_at_the_first_failure)
{
    Probe_Server server(websocket_setup());
    // Each request lacks what the next one has; all of them ask for a URI that no plug-in has.
    EXPECT_EQ(400, refused(server, "/none", {"Upgrade: websocket"}));
    EXPECT_EQ(400, refused(server, "/none", {"Upgrade: websocket", "Connection: close"}));
    EXPECT_EQ(400, refused(server, "/none", {"Upgrade: websocket", "Connection: Upgrade"}));
    EXPECT_EQ(501,
              refused(server, "/none",
                      {"Upgrade: websocket", "Connection: Upgrade", "Sec-WebSocket-Version: 12"}));
    EXPECT_EQ(400,
              refused(server, "/none",
                      {"Upgrade: websocket", "Connection: Upgrade", "Sec-WebSocket-Version: 13"}));
    EXPECT_EQ(404, refused(server, "/none", upgrade_fields()));
    ASSERT_TRUE(has_line(server.host(), "DEBUG", "Not found WebSocket uri '/none'."));
    size_t errors = 0;
    for (const std::string& line : server.host().log()) {
        errors += line.find(" ERROR ") != std::string::npos ? 1U : 0U;
    }
    EXPECT_EQ(5U, errors) << server.host().log_text();
}

TEST(WebSocket_Handshake, answers_404_to_an_unknown_uri_and_logs_for_debugging_only)
{
    Probe_Server server(websocket_setup());
    EXPECT_EQ(404, refused(server, "/probe/hello", upgrade_fields())) << "an HTTP plug-in's";
    EXPECT_EQ(404, refused(server, "/wsx?a=b", upgrade_fields()));
    EXPECT_EQ(1U, count_lines(server, "DEBUG", "Not found WebSocket uri '/probe/hello'."));
    EXPECT_EQ(1U, count_lines(server, "DEBUG", "Not found WebSocket uri '/wsx'."));
    EXPECT_EQ(0U, count_log(server, " ERROR "));
    EXPECT_EQ(0U, count_log(server, "| WebSocket ")) << "no plug-in object, no close to tell";
}

TEST(WebSocket_Handshake, answers_404_when_the_plug_in_makes_no_object)
{
    Probe_Server server(websocket_setup());
    EXPECT_EQ(404, refused(server, "/empty", upgrade_fields()));
    EXPECT_EQ(0U, count_log(server, "Not found WebSocket uri"));
    EXPECT_EQ(0U, count_log(server, " ERROR "));
}

TEST(WebSocket_Handshake, a_plug_in_that_refuses_gets_one_close)
{
    Probe_Server server(websocket_setup());
    EXPECT_EQ(400, refused(server, "/ws/refuse", upgrade_fields()));
    ASSERT_TRUE(has_line(server.host(), "INFO", "ws: destroyed"));
    EXPECT_EQ((Texts{"handle_handshaking off=3", "handle_close 1006 (null) 0", "destroyed"}),
              calls(server.host()));
    EXPECT_EQ(0U, count_log(server, " ERROR "));
}

TEST(WebSocket_Handshake, a_plug_in_that_fails_after_the_101_is_closed_silently)
{
    for (const std::string target : {"/ws/handshaked-fails", "/ws/thread/handshaked-fails"}) {
        Probe_Server server(websocket_setup());
        WebSocket_Client client(server.connect());
        EXPECT_TRUE(client.open(target));
        EXPECT_TRUE(client.wire().is_closed_by_peer());
        ASSERT_TRUE(has_line(server.host(), "INFO", "ws: destroyed"));
        EXPECT_EQ((Texts{"handle_handshaking off=3", "concurrency", "handle_handshaked",
                         "handle_close 1006 (null) 0", "destroyed"}),
                  calls(server.host()));
        EXPECT_EQ(0U, count_log(server, " handshaked."));
        EXPECT_EQ(0U, count_log(server, " ERROR "));
    }
}

TEST(WebSocket_Handshake, refuses_every_other_concurrency_after_handshaked)
{
    const struct {
        const char* target;
        const char* number;
    } cases[] = {{"/ws/reactive", "1"}, {"/ws/proactive", "3"}};
    for (const auto& entry : cases) {
        Probe_Server server(websocket_setup());
        WebSocket_Client client(server.connect());
        EXPECT_TRUE(client.open(entry.target));
        EXPECT_TRUE(client.wire().is_closed_by_peer());
        EXPECT_TRUE(has_line(server.host(), "ERROR",
                             std::string("WebSocket handler concurrency ") + entry.number +
                                 " is not supported."));
        ASSERT_TRUE(has_line(server.host(), "INFO", "ws: destroyed"));
        EXPECT_EQ((Texts{"handle_handshaking off=3", "concurrency", "handle_handshaked",
                         "handle_close 1006 (null) 0", "destroyed"}),
                  calls(server.host()));
        EXPECT_EQ(1U, count_log(server, " handshaked."));
    }
}

TEST(WebSocket_Handshake, takes_the_first_sub_protocol_that_is_offered)
{
    const struct {
        const char* offer;
        const char* choice;
        const char* list;
    } cases[] = {
        {"chat, superchat", "chat", "[chat][superchat]"},
        {",,chat", "chat", "[chat]"},
        {"chat , superchat", "chat ", "[chat ][superchat]"},
        {"one", "one", "[one]"},
    };
    for (const auto& entry : cases) {
        Probe_Server server(websocket_setup());
        WebSocket_Client client(server.connect());
        ASSERT_TRUE(client.open("/ws", {std::string("Sec-WebSocket-Protocol: ") + entry.offer}));
        EXPECT_EQ(entry.choice, client.response().field("sec-websocket-protocol")) << entry.offer;
        ASSERT_TRUE(server.host().wait_for_log("ws: handle_handshaked"));
        EXPECT_EQ((Texts{"handle_handshaking off=3", std::string("select_protocol ") + entry.list,
                         "concurrency", "handle_handshaked"}),
                  calls(server.host()));
    }
}

TEST(WebSocket_Handshake, needs_no_sub_protocol)
{
    Probe_Server server(websocket_setup());
    WebSocket_Client client(server.connect());
    ASSERT_TRUE(client.open("/ws/no-protocol/echo", {"Sec-WebSocket-Protocol: chat"}));
    EXPECT_FALSE(client.response().has("sec-websocket-protocol"));
    client.send(WS_TEXT, "open");
    EXPECT_EQ("open", client.read().payload);
    WebSocket_Client nothing(server.connect());
    ASSERT_TRUE(nothing.open("/ws/echo", {"Sec-WebSocket-Protocol: ,"})) << "an offer of nothing";
    EXPECT_FALSE(nothing.response().has("sec-websocket-protocol"));
}

TEST(WebSocket_Handshake, tells_the_plug_in_where_its_uri_ends)
{
    Probe_Server::Setup setup = websocket_setup();
    setup.websockets.push_back({"/ws/deep/er", "websocket_probe_plugin", "_make_WS_Probe"});
    Probe_Server server(setup);
    WebSocket_Client client(server.connect());
    EXPECT_TRUE(client.open("/ws/deep/er/echo?query"));
    EXPECT_TRUE(has_line(server.host(), "INFO", "ws: handle_handshaking off=11"));
}

TEST(WebSocket_Handshake, takes_websocket_in_any_case_and_nothing_else)
{
    Probe_Server server(websocket_setup());
    const auto client = server.connect();
    EXPECT_EQ(101,
              client->exchange(get_request("/ws", fields_with("Upgrade", "WebSocket"))).status);
    EXPECT_EQ(501, refused(server, "/ws", fields_with("Upgrade", "h2c")));
    EXPECT_TRUE(has_line(server.host(), "ERROR",
                         "HTTP client wants to upgrade to 'h2c' that is not implemented."));
}

TEST(WebSocket_Handshake, asks_the_authenticator_after_the_101)
{
    for (const std::string target : {"/ws/greet/echo", "/ws/thread/greet/echo"}) {
        Probe_Server::Setup setup = websocket_setup();
        setup.authenticators = {{"/ws", "probe_plugin", "_make_Probe_Auth"}};
        Probe_Server server(setup);
        WebSocket_Client client(server.connect());
        ASSERT_TRUE(client.open(target)) << "200 passes";
        EXPECT_FALSE(client.response().has("x-authenticated")) << "the 101 has gone out before";
        EXPECT_EQ("hello", client.read().payload);
        client.send(WS_TEXT, "x");
        EXPECT_EQ("x", client.read().payload);
        flush_log(server);
        std::vector<std::string> order;
        for (const std::string& line : server.host().log()) {
            if (line.find("probe: authenticate") != std::string::npos) {
                order.push_back("authenticate");
            }
            if (line.find("ws: handle_handsh") != std::string::npos) {
                order.push_back(line.substr(line.find("handle_")));
            }
        }
        EXPECT_EQ((Texts{"handle_handshaking off=3", "authenticate", "handle_handshaked"}), order);
    }
}

TEST(WebSocket_Handshake, closes_when_the_authenticator_refuses)
{
    for (const std::string target : {"/ws/greet", "/ws/thread/greet"}) {
        Probe_Server::Setup setup = websocket_setup();
        setup.authenticators = {{"/ws", "probe_plugin", "_make_Probe_Auth"}};
        Probe_Server server(setup);
        WebSocket_Client client(server.connect());
        EXPECT_TRUE(client.open(target, {"X-Pass: 401"})) << "the 101 has gone out before";
        EXPECT_TRUE(client.wire().is_closed_by_peer()) << "no second response behind the 101";
        ASSERT_TRUE(has_line(server.host(), "INFO", "ws: destroyed"));
        EXPECT_EQ((Texts{"handle_handshaking off=3", "concurrency", "handle_close 1006 (null) 0",
                         "destroyed"}),
                  calls(server.host()));
        EXPECT_EQ(0U, count_log(server, " handshaked."));
    }
}

TEST(WebSocket_Handshake, handles_frames_that_come_with_the_request)
{
    for (const std::string target : {"/ws/echo", "/ws/thread/echo"}) {
        Probe_Server server(websocket_setup());
        WebSocket_Client client(server.connect());
        ASSERT_TRUE(client.open(target, {},
                                websocket_frame(WS_TEXT, "one") + websocket_frame(WS_PING, "two") +
                                    websocket_frame(WS_BINARY, "three") +
                                    websocket_frame(WS_CLOSE, close_payload(1000))));
        EXPECT_EQ("one", client.read().payload);
        EXPECT_EQ("two", client.read().payload);
        EXPECT_EQ("three", client.read().payload);
        EXPECT_EQ(WS_CLOSE, client.read().opcode);
        EXPECT_TRUE(client.wire().is_closed_by_peer());
    }
}

TEST(WebSocket_Handshake, completes_a_frame_whose_start_comes_with_the_request)
{
    const std::string frame = websocket_frame(WS_TEXT, "Hello");
    for (const std::string target : {"/ws/echo", "/ws/thread/echo"}) {
        Probe_Server server(websocket_setup());
        for (size_t cut = 1; cut < frame.size(); ++cut) {
            WebSocket_Client client(server.connect());
            ASSERT_TRUE(client.open(target, {}, frame.substr(0, cut)));
            ASSERT_TRUE(client.wire().send(frame.substr(cut)));
            std::string echoed;
            while (echoed.size() < 5) { // in the pieces that have come
                const WebSocket_Frame piece = client.read();
                ASSERT_TRUE(piece.complete);
                echoed += piece.payload;
            }
            EXPECT_EQ("Hello", echoed) << cut;
        }
    }
}

TEST(WebSocket_Handshake, follows_requests_on_the_same_connection)
{
    for (const std::string first : {"/probe/hello", "/probe/thread"}) {
        for (const std::string second : {"/ws/echo", "/ws/thread/echo"}) {
            Probe_Server server(websocket_setup());
            auto wire = server.connect();
            EXPECT_EQ(200, wire->exchange(get_request(first)).status);
            WebSocket_Client client(std::move(wire));
            ASSERT_TRUE(client.open(second, {}, websocket_frame(WS_TEXT, "with")));
            EXPECT_EQ("with", client.read().payload);
            client.send(WS_TEXT, "behind");
            EXPECT_EQ("behind", client.read().payload);
            client.send(WS_CLOSE, "");
            EXPECT_EQ(WS_CLOSE, client.read().opcode);
            EXPECT_TRUE(client.wire().is_closed_by_peer());
            ASSERT_TRUE(has_line(server.host(), "INFO", "ws: destroyed"));
            EXPECT_EQ((Texts{"handle_handshaking off=3", "concurrency", "handle_handshaked",
                             "data 4 last=1 binary=0", "data 6 last=1 binary=0",
                             "handle_close 1005 (null) 0", "destroyed"}),
                      calls(server.host()));
        }
    }
}

TEST(WebSocket_Handshake, a_plug_in_may_send_at_once)
{
    Probe_Server server(websocket_setup());
    for (const std::string target : {"/ws/greet", "/ws/thread/greet"}) {
        WebSocket_Client client(server.connect());
        ASSERT_TRUE(client.open(target));
        const WebSocket_Frame frame = client.read();
        EXPECT_EQ(WS_TEXT, frame.opcode);
        EXPECT_EQ("hello", frame.payload);
    }
}

TEST(WebSocket_Handshake, a_shutdown_before_the_101_closes_once)
{
    Probe_Server server(websocket_setup());
    WebSocket_Client client(server.connect());
    EXPECT_FALSE(client.open("/ws/shutdown-handshaking"));
    ASSERT_TRUE(has_line(server.host(), "INFO", "ws: destroyed"));
    EXPECT_EQ((Texts{"handle_handshaking off=3", "handle_close 1006 (null) 0", "destroyed"}),
              calls(server.host()));
    EXPECT_EQ(1U, count_log(server, " ERROR Failed to send WebSocket handshaking response to HTTP "
                                    "client " +
                                        peer_text(client.wire()) + ": "));
}

TEST(WebSocket_Handshake, a_shutdown_behind_the_101_closes_once)
{
    for (const std::string target : {"/ws/shutdown-handshaked", "/ws/thread/shutdown-handshaked"}) {
        Probe_Server server(websocket_setup());
        WebSocket_Client client(server.connect());
        client.open(target, {}, websocket_frame(WS_TEXT, "not delivered"));
        client.wire().read_to_end();
        ASSERT_TRUE(has_line(server.host(), "INFO", "ws: destroyed"));
        EXPECT_EQ((Texts{"handle_handshaking off=3", "concurrency", "handle_handshaked",
                         "handle_close 1006 (null) 0", "destroyed"}),
                  calls(server.host()));
    }
}

TEST(WebSocket_Handshake, a_stopping_server_closes_its_websocket_connections)
{
    for (const std::string target : {"/ws/echo", "/ws/thread/echo"}) {
        Probe_Server server(websocket_setup());
        WebSocket_Client client(server.connect());
        ASSERT_TRUE(client.open(target));
        client.send(WS_TEXT, "x");
        EXPECT_EQ("x", client.read().payload);
        EXPECT_EQ(0, server.host().stop(SIGTERM));
        EXPECT_TRUE(client.wire().is_closed_by_peer());
        EXPECT_EQ(1U, server.host().count_log("ws: handle_close 1006 (null) 0"));
        EXPECT_EQ(1U, server.host().count_log("ws: destroyed"));
    }
}
