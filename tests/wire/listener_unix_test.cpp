#include "support/addr_string.h"
#include "tests/support/exact_line.h"
#include "tests/support/listener_checks.h"
#include "tests/support/listener_server.h"

#include <ace/INET_Addr.h>

#include <gtest/gtest.h>

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <csignal>
#include <cstring>

namespace {

bool is_socket(const std::string& path)
{
    struct stat info {};
    return ::lstat(path.c_str(), &info) == 0 && S_ISSOCK(info.st_mode);
}

/// What a server that crashed leaves: a socket file on which nobody listens.
void leave_stale_socket(const std::string& path)
{
    const int handle = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    ASSERT_EQ(0, ::bind(handle, reinterpret_cast<const sockaddr*>(&address), sizeof address));
    ::close(handle);
}

Host_Process::Command listen_on(const std::string& path)
{
    Host_Process::Command command;
    command.service = {"-p", path};
    return command;
}

class UNIX_Listener : public testing::TestWithParam<Listener_Check> {};

} // namespace

TEST_P(UNIX_Listener, serves)
{
    run_listener_check(Listener_Kind::UNIX, this->GetParam());
}

INSTANTIATE_TEST_SUITE_P(Every, UNIX_Listener, testing::ValuesIn(listener_checks()),
                         Listener_Check_Name());

TEST(UNIX_Domain_Listener, is_called_HTTP_and_its_socket_goes_with_it)
{
    Listener_Server server(Listener_Kind::UNIX);
    EXPECT_TRUE(
        wait_for_exact_line(server.host(), "INFO HTTP " + server.socket_path() + " is listening."));
    EXPECT_TRUE(is_socket(server.socket_path()));
    EXPECT_EQ(0, server.host().stop(SIGTERM));
    EXPECT_NE(0, ::access(server.socket_path().c_str(), F_OK));
}

TEST(UNIX_Domain_Listener, has_no_inet_peer)
{
    Listener_Server server(Listener_Kind::UNIX);
    const auto client = server.connect();
    ASSERT_NE(nullptr, client);
    const std::string nobody = ACE_Addr_String(ACE_INET_Addr(), false).c_str();
    EXPECT_EQ("remote=" + nobody + " original=" + nobody +
                  " ssl=0 inet=0 unix=-1 nodelay=0 timeout=0",
              client->exchange(get_request("/probe/addresses")).body);
    EXPECT_EQ(0, server.host().stop(SIGTERM));
    EXPECT_EQ(std::vector<std::string>(), texts_of(server.host(), "ERROR"));
}

TEST(UNIX_Domain_Listener, replaces_a_stale_socket)
{
    const Temporary_Folder folder;
    const std::string path = folder.path() + "/server.sock";
    leave_stale_socket(path);
    Host_Process host(listen_on(path));
    const auto client = Wire_Client::unix_domain(path);
    ASSERT_NE(nullptr, client);
    EXPECT_EQ(404, client->exchange(get_request("/")).status);
    EXPECT_EQ(0, host.stop(SIGTERM));
}

TEST(UNIX_Domain_Listener, leaves_a_file_that_is_no_socket_alone)
{
    const Temporary_Folder folder;
    const std::string path = folder.write("precious", "data");
    Host_Process::Command command = listen_on(path);
    command.wait_until_ready = false;
    Host_Process host(command);
    EXPECT_TRUE(wait_for_exact_line(host, "ERROR Failed to listen HTTP " + path +
                                              ", errno=98, Address already in use"));
    EXPECT_EQ(0, host.stop(SIGTERM));
    EXPECT_EQ(0, ::access(path.c_str(), F_OK));
}

TEST(UNIX_Domain_Listener, leaves_the_socket_of_another_server_alone)
{
    Listener_Server first(Listener_Kind::UNIX);
    Host_Process::Command command = listen_on(first.socket_path());
    command.wait_until_ready = false;
    Host_Process second(command);
    EXPECT_TRUE(wait_for_exact_line(second, "ERROR Failed to listen HTTP " + first.socket_path() +
                                                ", errno=98, Address already in use"));
    EXPECT_EQ(0, second.stop(SIGTERM));
    const auto client = first.connect();
    ASSERT_NE(nullptr, client);
    EXPECT_EQ(200, client->exchange(get_request("/probe/hello")).status);
}
