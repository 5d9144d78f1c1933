#include "tests/support/probe_server.h"
#include "tests/support/temp_dir.h"
#include "tests/support/websocket_client.h"
#include "tests/wire/host_log.h"

#include <gtest/gtest.h>

#include <sys/socket.h>

#include <csignal>
#include <memory>
#include <string>
#include <vector>

// Clients that send and do not read. What they are answered fills the socket; the event loop goes
// on without them.

namespace {

constexpr size_t FILE_SIZE = 100 * 1024;
constexpr int REQUESTS = 300; // their answers fill no buffer of any system by less

class Server {
public:
    explicit Server(const std::vector<std::string>& options)
        : server_({options,
                   {{"/probe", "probe_plugin", "_make_Probe"}},
                   {},
                   {{"/ws", "websocket_probe_plugin", "_make_WS_Probe"}},
                   {},
                   "trace"})
    {
        request_ = get_request("/probe/file?" +
                               server_.folder().write("file.txt", std::string(FILE_SIZE, 'f')));
    }

    Probe_Server& probe() { return server_; }

    /// Asks for much more than the sockets hold, and reads nothing.
    std::unique_ptr<Wire_Client> greedy_client() const
    {
        auto client = server_.connect();
        std::string requests;
        for (int i = 0; i < REQUESTS; ++i) {
            requests += request_;
        }
        EXPECT_TRUE(client != nullptr && client->send(requests));
        return client;
    }

    bool serves_others() const
    {
        const auto client = server_.connect();
        return client != nullptr && client->exchange(get_request("/probe/hello")).status == 200;
    }

private:
    Probe_Server server_;
    std::string request_;
};

/// A send that waits does so for longer than any client of these tests.
const std::vector<std::string> LONG_SENDS = {"--socket-send-timeout", "60"};

} // namespace

TEST(Connection_Room, a_client_that_does_not_read_its_answers_holds_up_nobody)
{
    Server server(LONG_SENDS);
    const auto greedy = server.greedy_client();
    // The first answer says that the loop is at it.
    EXPECT_EQ(FILE_SIZE, greedy->read_response().body.size());
    for (int i = 0; i < 20; ++i) {
        ASSERT_TRUE(server.serves_others());
    }
}

TEST(Connection_Room, a_large_answer_finds_room_in_a_small_socket)
{
    // More than a UNIX-domain socket takes by itself; a new connection over a network takes less.
    Temp_Dir folder;
    const std::string file = folder.write("file.txt", std::string(300 * 1024, 'f'));
    const std::string path = folder.path("socket");
    Probe_Server::Setup setup;
    setup.options = {"-p", path, "--socket-send-timeout", "60"};
    Probe_Server server(setup);
    ASSERT_TRUE(server.host().wait_for_log_count(" is listening.", 2));
    const auto deaf = Wire_Client::unix_domain(path);
    ASSERT_NE(nullptr, deaf);
    ASSERT_TRUE(deaf->send(get_request("/probe/file?" + file)));
    ASSERT_EQ('H', deaf->read_exactly(1)[0]); // the loop is at it
    const auto client = server.connect();
    ASSERT_NE(nullptr, client);
    EXPECT_EQ(200, client->exchange(get_request("/probe/hello")).status);
    EXPECT_NE(std::string::npos, deaf->read_exactly(300 * 1024).find("fff"));
}

TEST(Connection_Room, answers_that_were_held_back_come_whole_and_in_order)
{
    Server server(LONG_SENDS);
    const auto greedy = server.greedy_client();
    ASSERT_TRUE(server.serves_others());
    for (int i = 0; i < REQUESTS; ++i) {
        const Wire_Response response = greedy->read_response();
        ASSERT_EQ(200, response.status) << i;
        ASSERT_EQ(std::string(FILE_SIZE, 'f'), response.body) << i;
    }
    EXPECT_EQ("Hello, World!", greedy->exchange(get_request("/probe/hello")).body);
}

TEST(Connection_Room, a_client_that_takes_nothing_for_the_send_timeout_is_cut)
{
    Server server({"--socket-send-timeout", "1"});
    const auto greedy = server.greedy_client();
    EXPECT_TRUE(server.probe().host().wait_for_log("HTTP connection " + peer_text(*greedy) +
                                                   " takes nothing of what is sent"));
    EXPECT_TRUE(server.probe().host().wait_for_log("HTTP connection " + peer_text(*greedy) +
                                                   " is closing."));
    EXPECT_TRUE(server.serves_others());
}

TEST(Connection_Room, a_client_that_leaves_without_reading_is_closed)
{
    Server server(LONG_SENDS);
    auto greedy = server.greedy_client();
    const std::string peer = peer_text(*greedy);
    ASSERT_TRUE(server.serves_others());
    greedy.reset(); // with unread input, which resets the connection
    EXPECT_TRUE(server.probe().host().wait_for_log("HTTP connection " + peer + " is closing."));
    EXPECT_TRUE(server.serves_others());
}

TEST(Connection_Room, the_end_of_the_server_does_not_wait_for_such_a_client)
{
    Server server(LONG_SENDS);
    const auto greedy = server.greedy_client();
    ASSERT_TRUE(server.serves_others());
    EXPECT_EQ(0, server.probe().host().stop(SIGTERM));
}

TEST(Connection_Room, pongs_that_nobody_reads_hold_up_nobody_and_come_later)
{
    constexpr int PINGS = 2000; // in one write
    const std::string payload(125, 'p');
    std::string pings;
    for (int i = 0; i < PINGS; ++i) {
        pings += websocket_frame(WS_PING, payload);
    }
    Server server(LONG_SENDS);
    WebSocket_Client client(server.probe().connect());
    ASSERT_TRUE(client.open("/ws/echo"));
    // Until the server takes no more; the rest of the last write is sent at the end.
    std::string rest;
    int sent = 0;
    for (; rest.empty() && sent < 100 * PINGS; sent += PINGS) {
        size_t done = 0;
        while (done < pings.size()) {
            const ssize_t taken = ::send(client.wire().handle(), pings.data() + done,
                                         pings.size() - done, MSG_DONTWAIT | MSG_NOSIGNAL);
            if (taken > 0) {
                done += static_cast<size_t>(taken);
                continue;
            }
            // The loop has had its turn when it has served another client.
            ASSERT_TRUE(server.serves_others());
            if (::send(client.wire().handle(), pings.data() + done, 1,
                       MSG_DONTWAIT | MSG_NOSIGNAL) == 1) {
                ++done;
                continue;
            }
            rest = pings.substr(done);
            break;
        }
    }
    ASSERT_FALSE(rest.empty()) << "all was taken";
    ASSERT_TRUE(server.serves_others());
    // Nothing of it is lost.
    const size_t whole = static_cast<size_t>(sent) - rest.size() / (pings.size() / PINGS) - 1;
    for (size_t i = 0; i < whole; ++i) {
        const WebSocket_Frame pong = client.read();
        ASSERT_TRUE(pong.complete) << i;
        ASSERT_EQ(WS_PONG, pong.opcode) << i;
        ASSERT_EQ(payload, pong.payload) << i;
    }
}
