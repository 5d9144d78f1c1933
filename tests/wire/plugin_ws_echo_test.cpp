#include "tests/support/exact_line.h"
#include "tests/support/listener_server.h"
#include "tests/wire/host_log.h"
#include "tests/wire/websocket_messages.h"

#include <gtest/gtest.h>

#include <poll.h>
#include <sys/socket.h>

#include <csignal>
#include <tuple>

namespace {

constexpr size_t MEBIBYTE = 1024 * 1024;

Probe_Server::Setup echo_setup()
{
    Probe_Server::Setup setup;
    setup.websockets = {{"/loop", "httpd_ws_echo", "_make_WS_Echo"},
                        {"/thread", "httpd_ws_echo", "_make_WS_Echo", "--thread"},
                        {"/chosen", "httpd_ws_echo", "_make_WS_Echo", "--protocol chat,v2.chat"}};
    setup.options = {"-t", "1"};
    return setup;
}

/// Every kind of listener, and both threads that a connection may live in.
class WS_Echo_Listener
    : public testing::TestWithParam<std::tuple<Listener_Kind, const char* /* target */>> {
protected:
    WS_Echo_Listener() : server_(std::get<0>(GetParam()), echo_setup()) {}

    void SetUp() override
    {
        client_ = std::make_unique<WebSocket_Client>(server_.connect());
        ASSERT_TRUE(client_->open(std::get<1>(GetParam())));
    }

    void TearDown() override
    {
        client_.reset();
        EXPECT_EQ(0, server_.host().stop(SIGTERM));
        EXPECT_EQ(std::vector<std::string>(), texts_of(server_.host(), "ERROR"));
    }

    void close()
    {
        EXPECT_TRUE(client_->send(WS_CLOSE, close_payload(1000)));
        EXPECT_EQ(1000U, client_->read().close_status());
        EXPECT_TRUE(client_->wire().is_closed_by_peer());
    }

    /// Sends the parts of one binary message in steps and expects it back.
    void expect_echo(const std::string& payload, const std::vector<std::string>& parts,
                     const std::vector<size_t>& payloads)
    {
        const WebSocket_Message message = exchange_in_steps(*client_, parts, payloads);
        EXPECT_TRUE(message.complete);
        EXPECT_EQ(WS_BINARY, message.opcode);
        EXPECT_EQ(payload.size(), message.payload.size());
        EXPECT_TRUE(payload == message.payload);
    }

    Listener_Server server_;
    std::unique_ptr<WebSocket_Client> client_;
};

std::string name_of(const testing::TestParamInfo<WS_Echo_Listener::ParamType>& info)
{
    static const char* const KINDS[] = {"TCP", "TLS", "UNIX", "MEM"};
    return std::string(KINDS[static_cast<int>(std::get<0>(info.param))]) + "_" +
           (std::get<1>(info.param) + 1);
}

} // namespace

TEST_P(WS_Echo_Listener, sends_messages_back_as_they_were)
{
    for (int round = 0; round < 3; ++round) {
        EXPECT_TRUE(client_->send(WS_TEXT, "Gr\xC3\xBC\xC3\x9F Gott"));
        expect_message(*client_, WS_TEXT, "Gr\xC3\xBC\xC3\x9F Gott");
        EXPECT_TRUE(client_->send(WS_BINARY, numbered_bytes(1000)));
        expect_message(*client_, WS_BINARY, numbered_bytes(1000));
        for (const WebSocket_Opcode opcode : {WS_TEXT, WS_BINARY}) {
            EXPECT_TRUE(client_->send(opcode, ""));
            expect_message(*client_, opcode, "");
        }
    }
    this->close();
}

TEST_P(WS_Echo_Listener, sends_fragments_back_as_they_come)
{
    for (const std::string& frame : fragments(WS_TEXT, "one message", 4)) {
        EXPECT_TRUE(client_->wire().send(frame));
    }
    EXPECT_TRUE(client_->wire().send(websocket_fragment(WS_BINARY, "") +
                                     websocket_frame(WS_CONTINUATION, "")));
    const WebSocket_Message message = read_message(*client_);
    EXPECT_EQ("one message", message.payload);
    EXPECT_EQ(3U, message.frames);
    expect_message(*client_, WS_BINARY, "");

    EXPECT_TRUE(client_->wire().send(websocket_fragment(WS_TEXT, "first")));
    const WebSocket_Frame first = client_->read();
    EXPECT_EQ("first", first.payload) << "while the message is still open";
    EXPECT_FALSE(first.final);
    EXPECT_TRUE(client_->wire().send(websocket_frame(WS_CONTINUATION, "rest")));
    const WebSocket_Frame rest = client_->read();
    EXPECT_EQ("rest", rest.payload);
    EXPECT_TRUE(rest.final);
    this->close();
}

TEST_P(WS_Echo_Listener, sends_a_long_message_back_in_one_frame_or_in_many)
{
    const std::string payload = numbered_bytes(MEBIBYTE);
    const std::string frame = websocket_frame(WS_BINARY, payload);
    const size_t header = frame.size() - payload.size();
    std::vector<std::string> parts = {frame.substr(0, header)};
    std::vector<size_t> payloads = {0};
    for (const std::string& piece : pieces(frame.substr(header), 30'000)) {
        parts.push_back(piece);
        payloads.push_back(piece.size());
    }
    this->expect_echo(payload, parts, payloads);

    parts = fragments(WS_BINARY, payload, 10'000);
    payloads.assign(parts.size(), 10'000);
    payloads.back() = payload.size() % 10'000;
    this->expect_echo(payload, parts, payloads);
    this->close();
}

TEST_P(WS_Echo_Listener, answers_pings_between_the_fragments)
{
    const std::vector<std::string> parts = fragments(WS_TEXT, "abcdefghi", 3);
    EXPECT_TRUE(client_->wire().send(parts[0] + websocket_frame(WS_PING, "one") + parts[1] +
                                     websocket_frame(WS_PING, "two") + parts[2] +
                                     websocket_frame(WS_TEXT, "the next one")));
    const WebSocket_Message message = read_message(*client_);
    EXPECT_EQ("abcdefghi", message.payload);
    EXPECT_EQ((std::vector<std::string>{"one", "two"}), message.pongs);
    expect_message(*client_, WS_TEXT, "the next one");
    this->close();
}

TEST_P(WS_Echo_Listener, serves_on_when_a_client_leaves_within_a_message)
{
    EXPECT_TRUE(client_->wire().send(websocket_fragment(WS_TEXT, "begun") +
                                     websocket_frame(WS_CONTINUATION, "never ends").substr(0, 10)));
    EXPECT_EQ("begun", client_->read().payload);
    EXPECT_EQ("neve", client_->read().payload);
    client_.reset();
    ASSERT_TRUE(server_.host().wait_for_log(" closed."));

    client_ = std::make_unique<WebSocket_Client>(server_.connect());
    ASSERT_TRUE(client_->open(std::get<1>(GetParam())));
    EXPECT_TRUE(client_->send(WS_TEXT, "Hello"));
    expect_message(*client_, WS_TEXT, "Hello");
    EXPECT_TRUE(client_->wire().send(websocket_fragment(WS_TEXT, "begun")));
    EXPECT_EQ("begun", client_->read().payload);
    this->close();
}

INSTANTIATE_TEST_SUITE_P(Every, WS_Echo_Listener,
                         testing::Combine(testing::Values(Listener_Kind::TCP, Listener_Kind::TLS,
                                                          Listener_Kind::UNIX, Listener_Kind::MEM),
                                          testing::Values("/loop", "/thread")),
                         name_of);

// ---------------------------------------------------------------- sub-protocols

TEST(WS_Echo, chooses_the_sub_protocol)
{
    const struct {
        const char* target;
        const char* offers; ///< null: no field
        const char* choice; ///< null: no field
    } rows[] = {
        {"/loop", nullptr, nullptr},
        {"/loop", "chat", "chat"},
        {"/loop", "x, chat", "x"},
        {"/loop", "superchat,chat", "superchat"},
        {"/thread", "superchat, chat", "superchat"},
        {"/chosen", nullptr, nullptr},
        {"/chosen", "chat", "chat"},
        {"/chosen", "x, chat", "chat"},
        {"/chosen", "v2.chat,chat", "v2.chat"},
        {"/chosen", "chat ,v2.chat", "chat"},
        {"/chosen", "x,\tv2.chat\t , chat", "v2.chat"},
        {"/chosen", "x", nullptr},
        {"/chosen", "CHAT, chat2", nullptr},
    };
    Probe_Server server(echo_setup());
    for (const auto& row : rows) {
        SCOPED_TRACE(std::string(row.target) + " " + (row.offers != nullptr ? row.offers : "-"));
        WebSocket_Client client(server.connect());
        std::vector<std::string> fields;
        if (row.offers != nullptr) {
            fields.push_back(std::string("Sec-WebSocket-Protocol: ") + row.offers);
        }
        ASSERT_TRUE(client.open(row.target, fields));
        EXPECT_EQ(row.choice != nullptr, client.response().has("sec-websocket-protocol"));
        EXPECT_EQ(row.choice != nullptr ? row.choice : "",
                  client.response().field("sec-websocket-protocol"));
        EXPECT_TRUE(client.send(WS_TEXT, "open all the same"));
        expect_message(client, WS_TEXT, "open all the same");
    }
}

TEST(WS_Echo, a_record_with_a_wrong_parameter_is_not_loaded)
{
    Probe_Server::Setup setup;
    setup.websockets = {{"/wrong", "httpd_ws_echo", "_make_WS_Echo", "--loud"},
                        {"/right", "httpd_ws_echo", "_make_WS_Echo"}};
    Probe_Server server(setup);
    EXPECT_TRUE(has_line(server.host(), "ERROR", "ws_echo: unknown parameter '--loud'"));
    WebSocket_Client wrong(server.connect());
    EXPECT_FALSE(wrong.open("/wrong"));
    EXPECT_EQ(404, wrong.response().status);
    WebSocket_Client right(server.connect());
    EXPECT_TRUE(right.open("/right"));
}

// ---------------------------------------------------------------- a client that does not read

namespace {

/// A client that sends and does not read, until the server has stopped taking what it sends.
class Deaf_Client {
public:
    Deaf_Client(const Probe_Server& server, const std::string& target) : client_(server.connect())
    {
        constexpr int SMALL = 64 * 1024;
        const int handle = client_.wire().handle();
        ::setsockopt(handle, SOL_SOCKET, SO_RCVBUF, &SMALL, sizeof SMALL);
        ::setsockopt(handle, SOL_SOCKET, SO_SNDBUF, &SMALL, sizeof SMALL);
        EXPECT_TRUE(client_.open(target));
        // One frame of 4 GiB, so that the bytes behind its header may be cut anywhere.
        client_.wire().send(std::string("\x82\xFF\0\0\0\1\0\0\0\0KEY!", 14));
        const std::string zeros(MEBIBYTE, '\0');
        pollfd room = {handle, POLLOUT, 0};
        constexpr int STUCK_MS = 300;
        while (sent_ < 200 * MEBIBYTE && ::poll(&room, 1, STUCK_MS) == 1) {
            const ssize_t count =
                ::send(handle, zeros.data(), zeros.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
            sent_ += count > 0 ? static_cast<size_t>(count) : 0U;
        }
        EXPECT_LT(sent_, 200 * MEBIBYTE) << "the server takes more than buffers hold";
    }

    /// Reads the whole echo.
    void listen()
    {
        size_t echoed = 0;
        while (echoed < sent_) {
            const WebSocket_Frame frame = client_.read();
            ASSERT_TRUE(frame.complete);
            echoed += frame.payload.size();
        }
        EXPECT_EQ(sent_, echoed);
    }

private:
    WebSocket_Client client_;
    size_t sent_ = 0;
};

} // namespace

TEST(WS_Echo, a_client_that_does_not_read_holds_up_its_own_thread_alone)
{
    Probe_Server server(echo_setup());
    WebSocket_Client loop(server.connect());
    WebSocket_Client thread(server.connect());
    ASSERT_TRUE(loop.open("/loop"));
    ASSERT_TRUE(thread.open("/thread"));
    Deaf_Client deaf(server, "/thread");
    for (const WebSocket_Client* client : {&loop, &thread}) {
        EXPECT_TRUE(client->send(WS_TEXT, "served"));
        expect_message(*client, WS_TEXT, "served");
    }
    deaf.listen();
}

TEST(WS_Echo, a_client_that_does_not_read_holds_up_nobody_in_its_event_loop)
{
    Probe_Server server(echo_setup());
    WebSocket_Client loop(server.connect());
    ASSERT_TRUE(loop.open("/loop"));
    {
        Deaf_Client deaf(server, "/loop");
        EXPECT_TRUE(loop.send(WS_TEXT, "goes on"));
        expect_message(loop, WS_TEXT, "goes on");
        deaf.listen();
    }
    {
        const Deaf_Client gone(server, "/loop");
        EXPECT_TRUE(loop.send(WS_TEXT, "goes on again"));
        expect_message(loop, WS_TEXT, "goes on again");
    }
    EXPECT_TRUE(loop.send(WS_TEXT, "still there"));
    expect_message(loop, WS_TEXT, "still there");
}
