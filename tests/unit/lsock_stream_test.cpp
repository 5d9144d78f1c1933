#include "support/lsock_stream.h"

#include "tests/support/temp_dir.h"
#include "tests/support/test_sockets.h"

#include <ace/INET_Addr.h>
#include <ace/UNIX_Addr.h>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <cstring>

namespace {

/// A socket bound to `path`, which may fill the whole field.
Test_Fd bound_to(const std::string& path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.data(), path.size());
    Test_Fd handle(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    EXPECT_EQ(bind(handle.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    return handle;
}

} // namespace

TEST(LSOCK_Stream, leaves_an_internet_address_as_it_is_and_succeeds)
{
    const Test_Pair pair = unix_pair();
    LSOCK_Stream stream;
    stream.set_handle(pair.first.get());
    for (const char* text : {"1.2.3.4:5", "[::1]:80", "[::]:0"}) {
        ACE_INET_Addr address(text);
        const ACE_INET_Addr before(address);
        EXPECT_EQ(stream.get_remote_addr(address), 0);
        EXPECT_TRUE(address == before);
    }
}

TEST(LSOCK_Stream, an_unnamed_peer_has_an_empty_path)
{
    const Test_Pair pair = unix_pair();
    LSOCK_Stream stream;
    stream.set_handle(pair.first.get());
    ACE_UNIX_Addr address("/before");
    EXPECT_EQ(stream.get_remote_addr(address), 0);
    EXPECT_STREQ(address.get_path_name(), "");
}

TEST(LSOCK_Stream, tells_the_paths_of_both_sides)
{
    const Temp_Dir directory;
    const std::string client_path = directory.path("client");
    const std::string server_path = directory.path("server");
    const Test_Fd listener = bound_to(server_path);
    ASSERT_EQ(listen(listener.get(), 1), 0);
    const Test_Fd client = bound_to(client_path);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, server_path.c_str());
    ASSERT_EQ(connect(client.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    const Test_Fd accepted(accept(listener.get(), nullptr, nullptr));

    LSOCK_Stream stream;
    stream.set_handle(accepted.get());
    ACE_UNIX_Addr found;
    EXPECT_EQ(stream.get_remote_addr(found), 0);
    EXPECT_STREQ(found.get_path_name(), client_path.c_str());
    EXPECT_EQ(stream.get_local_addr(found), 0);
    EXPECT_STREQ(found.get_path_name(), server_path.c_str());
}

TEST(LSOCK_Stream, a_peer_path_that_fills_its_field_does_no_harm)
{
    const Temp_Dir directory;
    std::string path = directory.path("");
    path += std::string(sizeof(sockaddr_un::sun_path) - path.size(), 'p');
    const Test_Fd handle = bound_to(path);
    LSOCK_Stream stream;
    stream.set_handle(handle.get());
    ACE_UNIX_Addr address;
    EXPECT_EQ(stream.get_local_addr(address), 0);
    EXPECT_EQ(address.get_path_name(), path.substr(0, path.size() - 1));
}

TEST(LSOCK_Stream, an_address_of_another_kind_is_refused)
{
    const Test_Pair pair = unix_pair();
    LSOCK_Stream stream;
    stream.set_handle(pair.first.get());
    ACE_Addr address;
    EXPECT_EQ(stream.get_remote_addr(address), -1);
    EXPECT_EQ(errno, EINVAL);
    ACE_INET_Addr internet;
    EXPECT_EQ(stream.get_local_addr(internet), -1);
    EXPECT_EQ(errno, EINVAL);
}

TEST(LSOCK_Stream, close_closes_and_forgets_the_handle)
{
    Test_Pair pair = unix_pair();
    LSOCK_Stream stream(static_cast<ACE_SSL_Context*>(nullptr));
    const int handle = pair.first.release();
    stream.set_handle(handle);
    EXPECT_EQ(stream.close(), 0);
    EXPECT_EQ(stream.get_handle(), ACE_INVALID_HANDLE);
    EXPECT_EQ(fcntl(handle, F_GETFD), -1);
    EXPECT_EQ(stream.close(), 0);
}
