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

    std::unique_ptr<Wire_Client> connect() const { return server_.connect(); }

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

namespace {

/// Sends pings whose pongs it does not read, until the server takes no more.
class Deaf_Pinger {
public:
    explicit Deaf_Pinger(const Server& server) : client_(server.connect())
    {
        EXPECT_TRUE(client_.open("/ws/echo"));
        const std::string ping = websocket_frame(WS_PING, PAYLOAD);
        constexpr size_t MOST = 100'000'000;
        for (bool again = true; again && sent_ < MOST;) {
            while (send_now(ping) && sent_ < MOST) {
            }
            // The loop has had its turn when it has served another client.
            EXPECT_TRUE(server.serves_others());
            again = send_now(ping);
        }
        EXPECT_LT(sent_, MOST) << "all was taken";
    }

    /// What the server has begun to take without the last, which may be cut.
    size_t pings() const { return sent_ / websocket_frame(WS_PING, PAYLOAD).size(); }

    WebSocket_Client& client() { return client_; }

    static inline const std::string PAYLOAD = std::string(125, 'p');

private:
    bool send_now(const std::string& ping)
    {
        const size_t done = sent_ % ping.size();
        const ssize_t taken = ::send(client_.wire().handle(), ping.data() + done,
                                     ping.size() - done, MSG_DONTWAIT | MSG_NOSIGNAL);
        sent_ += taken > 0 ? static_cast<size_t>(taken) : 0U;
        return taken > 0;
    }

    WebSocket_Client client_;
    size_t sent_ = 0;
};

} // namespace

TEST(Connection_Room, pongs_that_nobody_reads_hold_up_nobody_and_come_later)
{
    Server server(LONG_SENDS);
    Deaf_Pinger pinger(server);
    EXPECT_TRUE(server.serves_others());
    for (size_t i = 0; i < pinger.pings(); ++i) {
        const WebSocket_Frame pong = pinger.client().read();
        ASSERT_TRUE(pong.complete) << i;
        ASSERT_EQ(WS_PONG, pong.opcode) << i;
        ASSERT_EQ(Deaf_Pinger::PAYLOAD, pong.payload) << i;
    }
}

TEST(Connection_Room, a_websocket_client_that_reads_nothing_gets_no_ping_and_its_time_runs_out)
{
    Server server(
        {"--socket-send-timeout", "60", "-i", "60", "--ping-interval", "2", "--ping-timeout", "1"});
    Deaf_Pinger pinger(server);
    const std::string peer = peer_text(pinger.client().wire());
    EXPECT_TRUE(server.probe().host().wait_for_log("WebSocket ping " + peer + " timeout."));
    EXPECT_EQ(0U, server.probe().host().count_log("WebSocket ping " + peer + "."));
    EXPECT_TRUE(server.serves_others());
}
