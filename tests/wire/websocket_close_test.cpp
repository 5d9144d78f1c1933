#include "tests/support/listener_server.h"
#include "tests/support/websocket_client.h"

#include <gtest/gtest.h>

#include <sys/socket.h>

#include <cerrno>
#include <csignal>
#include <string>

namespace {

Listener_Server make_server(Listener_Kind kind)
{
    Probe_Server::Setup setup;
    setup.websockets = {{"/ws", "websocket_probe_plugin", "_make_WS_Probe"}};
    setup.options = {"-t", "2"};
    return Listener_Server(kind, setup);
}

} // namespace

/// A close with unread input is a reset, which can destroy the close frame on its way.
TEST(WebSocket_Close, of_the_plug_in_reaches_a_client_that_is_still_sending)
{
    // A frame of which the plug-in sees the first piece, and more than the receive buffer takes.
    const std::string frames = websocket_frame(WS_BINARY, std::string(300'000, 'x'));
    for (const Listener_Kind kind : {Listener_Kind::TCP, Listener_Kind::TLS}) {
        Listener_Server server = make_server(kind);
        for (const char* target : {"/ws/close-and-shutdown", "/ws/close-and-fail",
                                   "/ws/thread/close-and-shutdown", "/ws/thread/close-and-fail"}) {
            SCOPED_TRACE(testing::Message()
                         << target << (kind == Listener_Kind::TLS ? " TLS" : ""));
            WebSocket_Client client(server.connect());
            ASSERT_TRUE(client.open(target));
            EXPECT_TRUE(client.wire().send(frames));
            const WebSocket_Frame frame = client.read();
            EXPECT_EQ(WS_CLOSE, frame.opcode);
            EXPECT_EQ(1001U, frame.close_status());
            EXPECT_TRUE(client.send(WS_CLOSE, close_payload(1001)));
            EXPECT_TRUE(client.wire().is_closed_by_peer());
            int error = 0;
            socklen_t length = sizeof error;
            ::getsockopt(client.wire().handle(), SOL_SOCKET, SO_ERROR, &error, &length);
            EXPECT_EQ(0, error); // an end, and no reset
        }
        EXPECT_EQ(0, server.host().stop(SIGTERM));
        EXPECT_EQ(4U, server.host().count_log("ws: handle_close 1006"));
    }
}
