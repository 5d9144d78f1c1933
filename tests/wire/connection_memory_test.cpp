// What a connection that waits for its client costs the server in memory.

#include "tests/support/probe_server.h"
#include "tests/support/sanitized.h"
#include "tests/support/websocket_client.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

namespace {

constexpr size_t CONNECTIONS = 800;

/// Far below the receive buffer and what a message is kept in; the connection itself, its timer and
/// its request are what is left.
constexpr size_t LIMIT_BYTES = 2560;

size_t resident_bytes(pid_t pid)
{
    std::ifstream rollup("/proc/" + std::to_string(pid) + "/smaps_rollup");
    for (std::string line; std::getline(rollup, line);) {
        if (line.rfind("Rss:", 0) == 0) {
            return std::strtoul(line.c_str() + 4, nullptr, 10) * 1024;
        }
    }
    ADD_FAILURE() << "no resident size of process " << pid;
    return 0;
}

class Connection_Memory : public testing::Test {
protected:
    void SetUp() override
    {
#if defined(HTTPD_TEST_SANITIZED)
        GTEST_SKIP() << "a sanitizer has the heap in its own hands";
#endif
        Probe_Server::Setup setup;
        setup.log_level = "info"; // no line for each connection
        setup.handlers = {{"/bare", "bare_plugin", "_make_Bare_Recycled"}};
        setup.websockets = {{"/ws", "httpd_ws_echo", "_make_WS_Echo"}};
        setup.options = {"-i", "600"};
        server_ = std::make_unique<Probe_Server>(setup);
    }

    /// Bytes for each of many connections that `open` makes and that then idle.
    template <typename Open>
    size_t bytes_each(Open open)
    {
        using Client = decltype(open());
        std::vector<Client> clients;
        for (int warm_up = 0; warm_up < 50; ++warm_up) {
            clients.push_back(open());
        }
        const size_t before = resident_bytes(server_->host().pid());
        for (size_t i = 0; i < CONNECTIONS; ++i) {
            clients.push_back(open());
        }
        const size_t after = resident_bytes(server_->host().pid());
        return after > before ? (after - before) / CONNECTIONS : 0;
    }

    std::unique_ptr<Probe_Server> server_;
};

} // namespace

TEST_F(Connection_Memory, of_an_idle_kept_connection_is_small)
{
    const size_t bytes = this->bytes_each([this] {
        auto client = server_->connect();
        EXPECT_EQ("Hello, World!", client->exchange(get_request("/bare")).body);
        return client;
    });
    EXPECT_GT(bytes, 0U);
    EXPECT_LE(bytes, LIMIT_BYTES);
    EXPECT_EQ(0, server_->host().stop(SIGTERM));
}

TEST_F(Connection_Memory, of_an_idle_websocket_is_small)
{
    const size_t bytes = this->bytes_each([this] {
        auto client = std::make_unique<WebSocket_Client>(server_->connect());
        EXPECT_TRUE(client->open("/ws"));
        EXPECT_TRUE(client->send(WS_TEXT, "hello"));
        EXPECT_EQ("hello", client->read().payload);
        return client;
    });
    EXPECT_GT(bytes, 0U);
    EXPECT_LE(bytes, LIMIT_BYTES);
    EXPECT_EQ(0, server_->host().stop(SIGTERM));
}
