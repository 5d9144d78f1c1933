#include "tests/support/environment_variable.h"
#include "tests/support/probe_server.h"
#include "tests/support/sanitized.h"
#include "tests/support/websocket_client.h"
#include "tests/wire/websocket_messages.h"

#include <gtest/gtest.h>

#include <csignal>

namespace {

constexpr long REQUESTS = 1000;
constexpr int WARM_UP = 50;

/// A server whose heap allocations are counted, and one connection to it.
class HTTP_Allocation : public testing::Test {
protected:
    void SetUp() override
    {
#if defined(HTTPD_TEST_SANITIZED)
        GTEST_SKIP() << "a sanitizer has the heap in its own hands";
#endif
        const std::string root = folder_.path() + "/root";
        folder_.write("root/small.txt", "Hello, World!");
        Probe_Server::Setup setup;
        setup.log_level = "info"; // no line for each request
        setup.handlers = {{"/bare", "bare_plugin", "_make_Bare"},
                          {"/recycled", "bare_plugin", "_make_Bare_Recycled"},
                          {"/count", "bare_plugin", "_make_Allocation_Count"},
                          {"/files", "httpd_files", "_make_Files", "--root " + root},
                          {"/echo", "httpd_echo", "_make_Echo"}};
        setup.websockets = {{"/ws", "httpd_ws_echo", "_make_WS_Echo"},
                            {"/ws-thread", "httpd_ws_echo", "_make_WS_Echo", "--thread"},
                            {"/chat", "httpd_ws_chat", "_make_WS_Chat"}};
        const Environment_Variable preload("LD_PRELOAD", library_path("malloc_counter"));
        server_ = std::make_unique<Probe_Server>(setup);
        client_ = server_->connect();
        ASSERT_NE(nullptr, client_);
    }

    void TearDown() override
    {
        if (server_ != nullptr) {
            EXPECT_EQ(0, server_->host().stop(SIGTERM));
        }
    }

    long count()
    {
        const std::string text = client_->exchange(get_request("/count")).body;
        EXPECT_NE("none", text);
        return std::atol(text.c_str());
    }

    /// What 1,000 calls of `exchange` allocate in the server after some that do not count.
    template <typename Exchange>
    long allocations_of(Exchange exchange)
    {
        for (int i = 0; i < WARM_UP; ++i) {
            exchange();
        }
        this->count();
        const long first = this->count();
        const long before = this->count();
        const long of_counting = before - first;
        for (long i = 0; i < REQUESTS; ++i) {
            exchange();
        }
        return this->count() - before - of_counting;
    }

    /// What 1,000 of these requests allocate on a connection that has served some before.
    long allocations(const std::string& request, int status = 200)
    {
        return this->allocations_of(
            [this, &request, status] { EXPECT_EQ(status, client_->exchange(request).status); });
    }

    /// What 1,000 messages of this size allocate on an open connection.
    long allocations_of_messages(const std::string& target, size_t size)
    {
        WebSocket_Client client(server_->connect());
        EXPECT_TRUE(client.open(target));
        const std::string text = numbered_text(size);
        const std::string frame = websocket_frame(WS_TEXT, text);
        return this->allocations_of([&client, &text, &frame] {
            EXPECT_TRUE(client.wire().send(frame));
            const WebSocket_Message message = read_message(client);
            EXPECT_TRUE(message.complete && message.payload == text);
        });
    }

    Temporary_Folder folder_;
    std::unique_ptr<Probe_Server> server_;
    std::unique_ptr<Wire_Client> client_;
};

} // namespace

TEST_F(HTTP_Allocation, counter_sees_the_plug_in_objects)
{
    EXPECT_EQ(REQUESTS, this->allocations(get_request("/bare")));
}

TEST_F(HTTP_Allocation, request_costs_none_with_recycled_plug_in_objects)
{
    EXPECT_EQ(0, this->allocations(get_request("/recycled")));
}

TEST_F(HTTP_Allocation, fields_of_a_request_cost_none)
{
    std::vector<std::string> fields = {"User-Agent: test", "Accept: */*",
                                       "Cookie: " + std::string(500, 'c')};
    for (int i = 0; i < 30; ++i) {
        fields.push_back("X-Field-" + std::to_string(i) + ": value of the field");
    }
    EXPECT_EQ(0, this->allocations(get_request("/recycled?with=a&query=", fields)));
}

TEST_F(HTTP_Allocation, bodies_cost_none)
{
    EXPECT_EQ(0, this->allocations(body_request("POST", "/recycled", std::string(5000, 'b'))));
}

TEST_F(HTTP_Allocation, small_file_costs_none)
{
    EXPECT_EQ(0, this->allocations(get_request("/files/small.txt")));
}

TEST_F(HTTP_Allocation, missing_file_costs_none)
{
    EXPECT_EQ(0, this->allocations(get_request("/files/missing.txt"), 404));
}

TEST_F(HTTP_Allocation, echo_costs_none)
{
    EXPECT_EQ(0, this->allocations(get_request("/echo/a")));
}

TEST_F(HTTP_Allocation, small_websocket_messages_cost_none)
{
    EXPECT_EQ(0, this->allocations_of_messages("/ws", 16));
    EXPECT_EQ(0, this->allocations_of_messages("/ws-thread", 16));
}

TEST_F(HTTP_Allocation, large_websocket_messages_cost_none)
{
    EXPECT_EQ(0, this->allocations_of_messages("/ws", 20'000));
    EXPECT_EQ(0, this->allocations_of_messages("/ws-thread", 20'000));
}

TEST_F(HTTP_Allocation, pings_cost_none)
{
    WebSocket_Client client(server_->connect());
    ASSERT_TRUE(client.open("/ws"));
    EXPECT_EQ(0, this->allocations_of([&client] {
        EXPECT_TRUE(client.send(WS_PING, "payload"));
        EXPECT_EQ("payload", client.read().payload);
    }));
}

TEST_F(HTTP_Allocation, pushed_message_costs_its_payload)
{
    WebSocket_Client member(server_->connect());
    ASSERT_TRUE(member.open("/chat"));
    const auto talk = [&member](long messages) {
        for (long i = 0; i < messages; ++i) {
            ASSERT_TRUE(member.send(WS_TEXT, "short"));
            ASSERT_EQ("short", member.read().payload);
        }
    };
    talk(WARM_UP);
    this->count();
    const long before = this->count();
    talk(REQUESTS);
    const long allocated = this->count() - before;
    EXPECT_GE(allocated, REQUESTS);
    // The loop's queue of notifications takes a piece of memory for some tens of them.
    EXPECT_LE(allocated, REQUESTS + REQUESTS / 10);
}
