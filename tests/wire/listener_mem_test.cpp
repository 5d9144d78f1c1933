#include "support/addr_string.h"
#include "tests/support/exact_line.h"
#include "tests/support/listener_checks.h"
#include "tests/support/listener_server.h"
#include "tests/support/mem_client.h"
#include "tests/support/socket_name.h"

#include <ace/INET_Addr.h>

#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>

namespace {

class MEM_Listener : public testing::TestWithParam<Listener_Check> {};

/// Files of shared memory of listeners on `port`.
size_t count_pool_files(unsigned short port)
{
    const std::string start = "MEM_Acceptor_" + std::to_string(port) + "_";
    size_t count = 0;
    for (const auto& entry :
         std::filesystem::directory_iterator(std::filesystem::temp_directory_path())) {
        count += entry.path().filename().string().rfind(start, 0) == 0 ? 1U : 0U;
    }
    return count;
}

} // namespace

TEST_P(MEM_Listener, serves)
{
    run_listener_check(Listener_Kind::MEM, this->GetParam());
}

INSTANTIATE_TEST_SUITE_P(Every, MEM_Listener, testing::ValuesIn(listener_checks()),
                         Listener_Check_Name());

TEST(Shared_Memory_Listener, is_called_HTTPM_and_listens_on_loopback_alone)
{
    Listener_Server server(Listener_Kind::MEM);
    EXPECT_TRUE(wait_for_exact_line(
        server.host(), "INFO HTTPM 127.0.0.1:" + std::to_string(server.port()) + " is listening."));
    EXPECT_EQ(0, server.host().stop(SIGTERM));
}

TEST(Shared_Memory_Listener, has_no_inet_peer)
{
    Listener_Server server(Listener_Kind::MEM);
    const auto client = server.connect();
    ASSERT_NE(nullptr, client);
    const std::string nobody = ACE_Addr_String(ACE_INET_Addr(), false).c_str();
    EXPECT_EQ("remote=" + nobody + " original=" + nobody +
                  " ssl=0 inet=0 unix=-1 nodelay=0 timeout=0",
              client->exchange(get_request("/probe/addresses")).body);
}

TEST(Shared_Memory_Listener, leaves_no_pool_behind)
{
    Listener_Server server(Listener_Kind::MEM);
    auto client = server.connect();
    ASSERT_NE(nullptr, client);
    EXPECT_EQ(200, client->exchange(get_request("/probe/hello")).status);
    EXPECT_EQ(0, server.host().stop(SIGTERM));
    client.reset();
    EXPECT_EQ(0U, count_pool_files(server.port()));
}

TEST(Shared_Memory_Listener, removes_what_a_killed_one_has_left)
{
    const unsigned short port = free_local_port();
    Host_Process::Command command;
    command.service = {"-p", std::to_string(port) + "m"};
    std::unique_ptr<Wire_Client> client;
    {
        Host_Process killed(command);
        client = connect_mem(port);
        ASSERT_NE(nullptr, client);
        EXPECT_EQ(-SIGKILL, killed.stop(SIGKILL));
    }
    EXPECT_EQ(1U, count_pool_files(port));

    Host_Process next(command);
    EXPECT_EQ(0U, count_pool_files(port));
    EXPECT_EQ(0, next.stop(SIGTERM));
}

TEST(Shared_Memory_Listener, gives_up_a_client_that_does_not_shake_hands)
{
    Probe_Server::Setup setup;
    setup.options = {"--accept-timeout=1"};
    Listener_Server server(Listener_Kind::MEM, setup);
    const auto silent = Wire_Client::tcp("127.0.0.1", server.port());
    ASSERT_NE(nullptr, silent);
    EXPECT_TRUE(wait_for_exact_line(server.host(), "ERROR Failed to accept connection from '" +
                                                       local_name_of(silent->handle()) + "'."));
    while (!silent->receive().empty()) { // its side of the handshake
    }
    EXPECT_TRUE(silent->at_end());

    const auto client = server.connect();
    ASSERT_NE(nullptr, client);
    EXPECT_EQ(200, client->exchange(get_request("/probe/hello")).status);
    EXPECT_EQ(0, server.host().stop(SIGTERM));
}
