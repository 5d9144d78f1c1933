#include "support/peer_acceptor_traits.h"

#include "tests/support/mem_fixture.h"
#include "tests/support/temp_dir.h"
#include "tests/support/test_sockets.h"
#include "tests/support/tls_fixture.h"

#include <ace/INET_Addr.h>
#include <ace/MEM_Addr.h>
#include <ace/UNIX_Addr.h>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <thread>
#include <vector>

namespace {

using Tcp = ACE_Peer_Acceptor_Traits<ACE_SOCK_Stream>;
using Tls = ACE_Peer_Acceptor_Traits<ACE_SSL_SOCK_Stream>;
using Unix = ACE_Peer_Acceptor_Traits<LSOCK_Stream>;
using Mem = ACE_Peer_Acceptor_Traits<MEM_Stream>;

constexpr bool RESTART = true;

int int_option(int handle, int level, int option)
{
    int value = -1;
    socklen_t length = sizeof value;
    return getsockopt(handle, level, option, &value, &length) == 0 ? value : -1;
}

/// A listener on `text`, as the service opens one.
template <typename Traits>
struct Listener {
    explicit Listener(const char* text, int ipv6_only = 0, int recv_buf = 0, int send_buf = 0)
    {
        result = Traits::open(acceptor, ACE_INET_Addr(text, AF_UNSPEC), 1, 16, ipv6_only, recv_buf,
                              send_buf);
        error = result == -1 ? errno : 0;
        if (result == 0) {
            fcntl(acceptor.get_handle(), F_SETFL, O_NONBLOCK);
        }
    }
    ~Listener() { acceptor.close(); }
    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;

    /// Where it listens, for IPv4 and IPv6.
    ACE_INET_Addr local()
    {
        sockaddr_storage name{};
        socklen_t length = sizeof name;
        getsockname(acceptor.get_handle(), reinterpret_cast<sockaddr*>(&name), &length);
        ACE_INET_Addr address;
        address.set_addr(&name, static_cast<int>(length));
        return address;
    }

    int port() { return local().get_port_number(); }

    typename Traits::Peer_Acceptor acceptor;
    int result;
    int error;
};

int unix_open(ACE_LSOCK_Acceptor& acceptor, const std::string& path)
{
    return Unix::open(acceptor, ACE_UNIX_Addr(path.c_str()), 1, 16, 0, 0, 0);
}

Test_Fd unix_connect(const std::string& path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, path.c_str());
    Test_Fd client(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (connect(client.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        client.close();
    }
    return client;
}

bool has_ipv6()
{
    const Test_Fd probe(socket(AF_INET6, SOCK_STREAM, 0));
    sockaddr_in6 address{};
    address.sin6_family = AF_INET6;
    address.sin6_addr = in6addr_loopback;
    return bind(probe.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
}

size_t open_descriptors()
{
    size_t count = 0;
    for (int handle = 0; handle < 1200; ++handle) {
        count += fcntl(handle, F_GETFD) != -1 ? 1U : 0U;
    }
    return count;
}

/// Lets this process have descriptors above 1024; false when the system forbids it.
class More_Descriptors {
public:
    explicit More_Descriptors(rlim_t count)
    {
        getrlimit(RLIMIT_NOFILE, &old_);
        rlimit wanted = old_;
        wanted.rlim_cur = std::max(old_.rlim_cur, count);
        allowed_ = wanted.rlim_cur <= old_.rlim_max && setrlimit(RLIMIT_NOFILE, &wanted) == 0;
    }
    ~More_Descriptors() { setrlimit(RLIMIT_NOFILE, &old_); }
    More_Descriptors(const More_Descriptors&) = delete;
    More_Descriptors& operator=(const More_Descriptors&) = delete;

    bool allowed() const { return allowed_; }

private:
    rlimit old_{};
    bool allowed_ = false;
};

} // namespace

TEST(TCP_Acceptor_Traits, accepts_with_the_peers_address_and_close_on_exec)
{
    Listener<Tcp> listener("127.0.0.1:0");
    ASSERT_EQ(listener.result, 0);
    EXPECT_NE(fcntl(listener.acceptor.get_handle(), F_GETFD) & FD_CLOEXEC, 0);
    const Test_Fd client = connect_to(listener.port());
    ACE_SOCK_Stream stream;
    ACE_INET_Addr remote;
    ACE_Time_Value limit(10);
    ASSERT_EQ(Tcp::accept(listener.acceptor, stream, &remote, &limit, RESTART, false), 0);
    EXPECT_NE(fcntl(stream.get_handle(), F_GETFD) & FD_CLOEXEC, 0);
    EXPECT_EQ(fcntl(stream.get_handle(), F_GETFL) & O_NONBLOCK, 0);
    EXPECT_STREQ(remote.get_host_addr(), "127.0.0.1");
    ACE_INET_Addr peer;
    stream.get_remote_addr(peer);
    EXPECT_EQ(remote.get_port_number(), peer.get_port_number());
    stream.close();
}

TEST(TCP_Acceptor_Traits, waits_no_longer_than_the_limit)
{
    Listener<Tcp> listener("127.0.0.1:0");
    ACE_SOCK_Stream stream;
    ACE_Time_Value limit(0, 200'000);
    const long took = milliseconds_of([&] {
        EXPECT_EQ(Tcp::accept(listener.acceptor, stream, nullptr, &limit, RESTART, false), -1);
        EXPECT_EQ(errno, ETIMEDOUT);
    });
    EXPECT_GE(took, 190);
    EXPECT_LT(took, 5000);
    EXPECT_EQ(stream.get_handle(), ACE_INVALID_HANDLE);
}

TEST(TCP_Acceptor_Traits, does_not_await_a_connection_without_a_limit)
{
    Listener<Tcp> listener("127.0.0.1:0");
    ACE_SOCK_Stream stream;
    ACE_Time_Value at_once;
    EXPECT_EQ(Tcp::accept(listener.acceptor, stream, nullptr, nullptr, RESTART, false), -1);
    EXPECT_EQ(errno, EWOULDBLOCK);
    EXPECT_EQ(Tcp::accept(listener.acceptor, stream, nullptr, &at_once, RESTART, false), -1);
    EXPECT_EQ(errno, EWOULDBLOCK);
}

TEST(TCP_Acceptor_Traits, signals_do_not_make_the_limit_start_again)
{
    struct sigaction action {};
    struct sigaction old {};
    action.sa_handler = [](int) {};
    ASSERT_EQ(sigaction(SIGUSR1, &action, &old), 0);
    Listener<Tcp> listener("127.0.0.1:0");
    std::atomic<bool> done{false};
    int error = 0;
    long took = 0;
    std::thread accepting([&] {
        ACE_SOCK_Stream stream;
        ACE_Time_Value limit(0, 300'000);
        took = milliseconds_of([&] {
            Tcp::accept(listener.acceptor, stream, nullptr, &limit, RESTART, false);
            error = errno;
        });
        done = true;
    });
    while (!done) {
        pthread_kill(accepting.native_handle(), SIGUSR1);
        pollfd never{-1, 0, 0};
        poll(&never, 1, 20);
    }
    accepting.join();
    sigaction(SIGUSR1, &old, nullptr);
    EXPECT_EQ(error, ETIMEDOUT);
    EXPECT_LT(took, 5000);
}

TEST(TCP_Acceptor_Traits, refuses_an_address_that_could_not_be_read)
{
    for (const char* text : {"127.0.0.1", "65536", "*:80", "8080 ", "no such thing"}) {
        SCOPED_TRACE(text);
        Listener<Tcp> listener(text);
        EXPECT_EQ(listener.result, -1);
        EXPECT_EQ(listener.error, EINVAL);
        EXPECT_EQ(listener.acceptor.get_handle(), ACE_INVALID_HANDLE);
        Listener<Tls> tls(text);
        EXPECT_EQ(tls.error, EINVAL);
    }
}

TEST(TCP_Acceptor_Traits, fails_for_an_address_in_use)
{
    Listener<Tcp> first("127.0.0.1:0");
    const std::string text = "127.0.0.1:" + std::to_string(first.port());
    Listener<Tcp> second(text.c_str());
    EXPECT_EQ(second.result, -1);
    EXPECT_EQ(second.error, EADDRINUSE);
    EXPECT_EQ(second.acceptor.get_handle(), ACE_INVALID_HANDLE);
}

TEST(TCP_Acceptor_Traits, a_port_alone_listens_on_every_ipv4_interface)
{
    Listener<Tcp> listener("0.0.0.0:0");
    EXPECT_EQ(listener.result, 0);
    EXPECT_EQ(listener.local().get_type(), AF_INET);
}

TEST(TCP_Acceptor_Traits, ipv6_only_on_the_ipv4_wildcard_is_the_ipv6_wildcard)
{
    if (!has_ipv6()) {
        GTEST_SKIP() << "no IPv6 here";
    }
    Listener<Tcp> listener("0.0.0.0:0", 1);
    ASSERT_EQ(listener.result, 0);
    EXPECT_EQ(listener.local().get_type(), AF_INET6);
    EXPECT_EQ(int_option(listener.acceptor.get_handle(), IPPROTO_IPV6, IPV6_V6ONLY), 1);
    EXPECT_EQ(connect_to(listener.port()).get(), -1) << "no IPv4";
    Listener<Tls> tls("0.0.0.0:0", 1);
    EXPECT_EQ(tls.local().get_type(), AF_INET6);
    EXPECT_EQ(int_option(tls.acceptor.get_handle(), IPPROTO_IPV6, IPV6_V6ONLY), 1);
}

TEST(TCP_Acceptor_Traits, an_ipv4_peer_of_a_dual_stack_listener_is_plain_ipv4)
{
    if (!has_ipv6()) {
        GTEST_SKIP() << "no IPv6 here";
    }
    const std::string text = "[::]:" + std::to_string(free_port());
    Listener<Tcp> listener(text.c_str());
    ASSERT_EQ(listener.result, 0);
    const Test_Fd client = connect_to(listener.port());
    ASSERT_NE(client.get(), -1);
    ACE_SOCK_Stream stream;
    ACE_INET_Addr remote;
    ACE_Time_Value limit(10);
    ASSERT_EQ(Tcp::accept(listener.acceptor, stream, &remote, &limit, RESTART, false), 0);
    EXPECT_EQ(remote.get_type(), AF_INET);
    EXPECT_STREQ(remote.get_host_addr(), "127.0.0.1");
    stream.close();

    // The same object then takes an IPv6 peer.
    sockaddr_in6 address{};
    address.sin6_family = AF_INET6;
    address.sin6_addr = in6addr_loopback;
    address.sin6_port = htons(static_cast<uint16_t>(listener.port()));
    const Test_Fd other(socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0));
    ASSERT_EQ(connect(other.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(Tcp::accept(listener.acceptor, stream, &remote, &limit, RESTART, false), 0);
    EXPECT_EQ(remote.get_type(), AF_INET6);
    EXPECT_STREQ(remote.get_host_addr(), "::1");
    stream.close();
}

TEST(TCP_Acceptor_Traits, buffer_sizes_are_taken_over_by_connections)
{
    Listener<Tcp> listener("127.0.0.1:0", 0, 20'000, 30'000);
    ASSERT_EQ(listener.result, 0);
    const Test_Fd client = connect_to(listener.port());
    ACE_SOCK_Stream stream;
    ACE_Time_Value limit(10);
    ASSERT_EQ(Tcp::accept(listener.acceptor, stream, nullptr, &limit, RESTART, false), 0);
    // Linux doubles what is asked for (socket(7)).
    EXPECT_EQ(int_option(stream.get_handle(), SOL_SOCKET, SO_RCVBUF), 40'000);
    EXPECT_EQ(int_option(stream.get_handle(), SOL_SOCKET, SO_SNDBUF), 60'000);
    stream.close();
}

TEST(ACE_SOCK_Acceptor_Ex, takes_the_family_of_the_address_and_sets_the_buffers)
{
    ACE_SOCK_Acceptor_Ex acceptor;
    ASSERT_EQ(acceptor.open(ACE_INET_Addr("127.0.0.1:0"), 1, PF_UNSPEC, 5, 0, 0, 20'000, 0), 0);
    EXPECT_EQ(int_option(acceptor.get_handle(), SOL_SOCKET, SO_RCVBUF), 40'000);
    EXPECT_EQ(int_option(acceptor.get_handle(), SOL_SOCKET, SO_REUSEADDR), 1);
    acceptor.close();
}

TEST(TLS_Acceptor_Traits, shakes_hands)
{
    ASSERT_TRUE(configure_tls());
    Listener<Tls> listener("127.0.0.1:0");
    ASSERT_EQ(listener.result, 0);
    const Test_Fd peer = connect_to(listener.port());
    Tls_Client client(peer.get());
    bool connected = false;
    std::thread connecting([&] { connected = client.connect(); });
    ACE_SSL_SOCK_Stream stream;
    ACE_INET_Addr remote;
    ACE_Time_Value limit(10);
    EXPECT_EQ(Tls::accept(listener.acceptor, stream, &remote, &limit, RESTART, false), 0);
    connecting.join();
    EXPECT_TRUE(connected);
    EXPECT_NE(fcntl(stream.get_handle(), F_GETFD) & FD_CLOEXEC, 0);
    EXPECT_STREQ(remote.get_host_addr(), "127.0.0.1");
    stream.close();
}

TEST(TLS_Acceptor_Traits, a_client_that_speaks_another_protocol_is_EPROTO)
{
    ASSERT_TRUE(configure_tls());
    Listener<Tls> listener("127.0.0.1:0");
    const Test_Fd peer = connect_to(listener.port());
    ASSERT_GT(write(peer.get(), "GET / HTTP/1.1\r\n\r\n", 18), 0);
    const size_t before = open_descriptors();
    ACE_SSL_SOCK_Stream stream;
    ACE_INET_Addr remote;
    ACE_Time_Value limit(10);
    EXPECT_EQ(Tls::accept(listener.acceptor, stream, &remote, &limit, RESTART, false), -1);
    EXPECT_EQ(errno, EPROTO);
    EXPECT_EQ(stream.get_handle(), ACE_INVALID_HANDLE);
    EXPECT_EQ(open_descriptors(), before);
    EXPECT_STREQ(remote.get_host_addr(), "127.0.0.1") << "the peer is known, for the log line";
}

TEST(TLS_Acceptor_Traits, a_client_that_leaves_ends_the_handshake)
{
    ASSERT_TRUE(configure_tls());
    Listener<Tls> listener("127.0.0.1:0");
    Test_Fd peer = connect_to(listener.port());
    peer.close();
    ACE_SSL_SOCK_Stream stream;
    EXPECT_EQ(Tls::accept(listener.acceptor, stream, nullptr, nullptr, RESTART, false), -1);
    EXPECT_EQ(stream.get_handle(), ACE_INVALID_HANDLE);
}

TEST(TLS_Acceptor_Traits, a_silent_client_is_given_up_at_the_limit_on_any_descriptor)
{
    ASSERT_TRUE(configure_tls());
    const More_Descriptors more(1200);
    if (!more.allowed()) {
        GTEST_SKIP() << "RLIMIT_NOFILE cannot be raised above 1024 here";
    }
    Listener<Tls> listener("127.0.0.1:0");
    const Test_Fd peer = connect_to(listener.port());
    std::vector<Test_Fd> taken; // so that the connection gets a number above 1024
    while (taken.empty() || taken.back().get() < 1024) {
        taken.emplace_back(fcntl(listener.acceptor.get_handle(), F_DUPFD_CLOEXEC, 0));
        ASSERT_NE(taken.back().get(), -1);
    }
    ACE_SSL_SOCK_Stream stream;
    ACE_Time_Value limit(1);
    const long took = milliseconds_of([&] {
        EXPECT_EQ(Tls::accept(listener.acceptor, stream, nullptr, &limit, RESTART, false), -1);
        EXPECT_EQ(errno, ETIMEDOUT);
    });
    EXPECT_GE(took, 950);
    EXPECT_LT(took, 5000);
    EXPECT_EQ(stream.get_handle(), ACE_INVALID_HANDLE);
    EXPECT_EQ(read_up_to(peer.get(), 1), "") << "the client is disconnected";
}

TEST(TLS_Acceptor_Traits, a_client_that_trickles_is_given_up_at_the_limit)
{
    ASSERT_TRUE(configure_tls());
    Listener<Tls> listener("127.0.0.1:0");
    const Test_Fd peer = connect_to(listener.port());
    std::atomic<bool> done{false};
    std::thread writer([&] {
        const char hello[] = "\x16\x03\x01\x02\x00\x01\x00\x01\xfc\x03\x03";
        for (size_t i = 0; i < sizeof hello - 1 && !done; ++i) {
            send(peer.get(), hello + i, 1, MSG_NOSIGNAL);
            pollfd never{-1, 0, 0};
            poll(&never, 1, 200);
        }
    });
    ACE_SSL_SOCK_Stream stream;
    ACE_Time_Value limit(1);
    const long took = milliseconds_of([&] {
        EXPECT_EQ(Tls::accept(listener.acceptor, stream, nullptr, &limit, RESTART, false), -1);
        EXPECT_EQ(errno, ETIMEDOUT);
    });
    done = true;
    writer.join();
    EXPECT_LT(took, 5000);
}

TEST(Unix_Acceptor_Traits, accepts_and_names_an_unnamed_peer_with_nothing)
{
    const Temp_Dir directory;
    const std::string path = directory.path("x.sock");
    ACE_LSOCK_Acceptor acceptor;
    ASSERT_EQ(unix_open(acceptor, path), 0);
    EXPECT_NE(fcntl(acceptor.get_handle(), F_GETFD) & FD_CLOEXEC, 0);
    const Test_Fd client = unix_connect(path);
    LSOCK_Stream stream;
    ACE_UNIX_Addr remote("/before");
    ACE_Time_Value limit(10);
    ASSERT_EQ(Unix::accept(acceptor, stream, &remote, &limit, RESTART, false), 0);
    EXPECT_NE(fcntl(stream.get_handle(), F_GETFD) & FD_CLOEXEC, 0);
    EXPECT_STREQ(remote.get_path_name(), "");
    stream.close();
    acceptor.close();
}

TEST(Unix_Acceptor_Traits, replaces_a_stale_socket_file)
{
    const Temp_Dir directory;
    const std::string path = directory.path("x.sock");
    ACE_LSOCK_Acceptor first;
    ASSERT_EQ(unix_open(first, path), 0);
    first.close(); // leaves the file behind, as a crash does
    ASSERT_EQ(unix_connect(path).get(), -1);
    ACE_LSOCK_Acceptor second;
    ASSERT_EQ(unix_open(second, path), 0);
    EXPECT_NE(unix_connect(path).get(), -1);
    second.close();
}

TEST(Unix_Acceptor_Traits, leaves_the_socket_of_a_live_server_alone)
{
    const Temp_Dir directory;
    const std::string path = directory.path("x.sock");
    ACE_LSOCK_Acceptor first;
    ACE_LSOCK_Acceptor second;
    ASSERT_EQ(unix_open(first, path), 0);
    EXPECT_EQ(unix_open(second, path), -1);
    EXPECT_EQ(errno, EADDRINUSE);
    EXPECT_NE(unix_connect(path).get(), -1) << "the first one still serves";
    first.close();
}

TEST(Unix_Acceptor_Traits, leaves_a_file_of_another_kind_alone)
{
    const Temp_Dir directory;
    const std::string path = directory.write("x.sock", "precious");
    ACE_LSOCK_Acceptor acceptor;
    EXPECT_EQ(unix_open(acceptor, path), -1);
    EXPECT_EQ(errno, EADDRINUSE);
    EXPECT_EQ(directory.read("x.sock"), "precious");
}

TEST(Unix_Acceptor_Traits, refuses_a_path_that_is_too_long_instead_of_cutting_it)
{
    const Temp_Dir directory;
    for (const size_t length : {sizeof(sockaddr_un::sun_path) - 1, size_t{200}}) {
        std::string path = directory.path("");
        path += std::string(length - path.size(), 'p');
        ACE_LSOCK_Acceptor acceptor;
        EXPECT_EQ(unix_open(acceptor, path), -1);
        EXPECT_EQ(errno, ENAMETOOLONG);
    }
    EXPECT_TRUE(directory.names().empty());
    ACE_LSOCK_Acceptor nameless;
    EXPECT_EQ(unix_open(nameless, ""), -1);
    EXPECT_EQ(errno, EINVAL);
}

TEST(Unix_Acceptor_Traits, fails_where_there_is_no_directory)
{
    const Temp_Dir directory;
    ACE_LSOCK_Acceptor acceptor;
    EXPECT_EQ(unix_open(acceptor, directory.path("none/x.sock")), -1);
    EXPECT_EQ(errno, ENOENT);
}

TEST(Unix_Acceptor_Traits, forget_removes_the_own_file_alone)
{
    const Temp_Dir directory;
    const std::string path = directory.path("x.sock");
    ACE_LSOCK_Acceptor acceptor;
    ASSERT_EQ(unix_open(acceptor, path), 0);
    Socket_File file;
    Unix::remember(acceptor, file);
    Unix::forget(file);
    EXPECT_TRUE(directory.names().empty());
    acceptor.close();

    ASSERT_EQ(unix_open(acceptor, path), 0);
    Unix::remember(acceptor, file);
    ASSERT_EQ(unlink(path.c_str()), 0);
    directory.write("x.sock", "of somebody else");
    Unix::forget(file);
    EXPECT_EQ(directory.read("x.sock"), "of somebody else");
    acceptor.close();
}

TEST(MEM_Acceptor_Traits, refuses_port_0)
{
    ACE_MEM_Acceptor acceptor;
    EXPECT_EQ(Mem::open(acceptor, ACE_MEM_Addr("no port"), 1, 5, 0, 0, 0), -1);
    EXPECT_EQ(errno, EINVAL);
}

TEST(MEM_Acceptor_Traits, fails_for_a_port_in_use)
{
    ACE_MEM_Acceptor first;
    ACE_MEM_Acceptor second;
    const int port = open_mem_listener(first);
    ASSERT_NE(port, -1);
    EXPECT_EQ(Mem::open(second, ACE_MEM_Addr(static_cast<u_short>(port)), 1, 5, 0, 0, 0), -1);
    EXPECT_EQ(errno, EADDRINUSE);
    first.close();
}

TEST(MEM_Acceptor_Traits, a_silent_client_is_given_up_at_the_limit)
{
    ACE_MEM_Acceptor acceptor;
    const int port = open_mem_listener(acceptor);
    ASSERT_NE(port, -1);
    const Test_Fd client = connect_to(port);
    ASSERT_NE(client.get(), -1);
    MEM_Stream stream;
    ACE_MEM_Addr remote;
    ACE_Time_Value limit(1);
    const long took = milliseconds_of([&] {
        EXPECT_EQ(Mem::accept(acceptor, stream, &remote, &limit, RESTART, false), -1);
        EXPECT_EQ(errno, ETIMEDOUT);
    });
    EXPECT_GE(took, 950);
    EXPECT_LT(took, 5000);
    EXPECT_EQ(stream.get_handle(), ACE_INVALID_HANDLE);
    EXPECT_EQ(count_pool_files(port), 0U);
    EXPECT_EQ(read_up_to(client.get(), 10).size(), 2U) << "the server's choice, then the end";
    acceptor.close();
}

TEST(MEM_Acceptor_Traits, another_strategy_than_the_reactive_one_is_EPROTO)
{
    ACE_MEM_Acceptor acceptor;
    const int port = open_mem_listener(acceptor);
    ASSERT_NE(port, -1);
    const Test_Fd client = connect_to(port);
    const int16_t strategy = ACE_MEM_IO::MT;
    ASSERT_EQ(write(client.get(), &strategy, sizeof strategy), 2);
    MEM_Stream stream;
    ACE_Time_Value limit(10);
    EXPECT_EQ(Mem::accept(acceptor, stream, nullptr, &limit, RESTART, false), -1);
    EXPECT_EQ(errno, EPROTO);
    EXPECT_EQ(stream.get_handle(), ACE_INVALID_HANDLE);
    acceptor.close();
}

TEST(MEM_Acceptor_Traits, a_client_that_leaves_ends_the_handshake)
{
    ACE_MEM_Acceptor acceptor;
    const int port = open_mem_listener(acceptor);
    ASSERT_NE(port, -1);
    Test_Fd client = connect_to(port);
    client.close();
    MEM_Stream stream;
    EXPECT_EQ(Mem::accept(acceptor, stream, nullptr, nullptr, RESTART, false), -1);
    EXPECT_EQ(errno, ECONNRESET);
    EXPECT_EQ(stream.get_handle(), ACE_INVALID_HANDLE);
    acceptor.close();
}
