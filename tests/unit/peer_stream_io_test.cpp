#include "support/peer_stream_io.h"

#include "support/socket_helpers.h"
#include "tests/support/test_sockets.h"
#include "tests/support/tls_fixture.h"

#include <gtest/gtest.h>

#include <openssl/err.h>

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <memory>
#include <thread>
#include <vector>

namespace {

/// One side of a connection as a stream, the other as a descriptor.
template <typename Stream>
struct Wired {
    Wired();
    ~Wired() { Peer_Stream_IO_T<Stream>::close(stream); }
    Wired(const Wired&) = delete;
    Wired& operator=(const Wired&) = delete;

    Stream stream;
    Test_Fd peer;
};

template <>
Wired<ACE_SOCK_Stream>::Wired()
{
    Test_Pair pair = tcp_pair(16 * 1024);
    stream.set_handle(pair.first.release());
    peer = std::move(pair.second);
}

template <>
Wired<LSOCK_Stream>::Wired()
{
    Test_Pair pair = unix_pair();
    stream.set_handle(pair.first.release());
    peer = std::move(pair.second);
}

/// `peer` is a socket, from which the stream reads and to which it writes.
template <>
Wired<Pipe_Stream>::Wired()
{
    Test_Pair pair = unix_pair();
    const int handle = pair.first.release();
    stream.set_handle(handle, true, true);
    stream.set_handle(handle, false, true);
    peer = std::move(pair.second);
}

template <typename Stream>
class Plain_Stream_IO : public testing::Test {
};

using Plain_Streams = testing::Types<ACE_SOCK_Stream, LSOCK_Stream, Pipe_Stream>;
TYPED_TEST_SUITE(Plain_Stream_IO, Plain_Streams);

void make_readable(int handle)
{
    pollfd entry{handle, POLLIN, 0};
    ASSERT_EQ(poll(&entry, 1, 10'000), 1);
}

void set_limits(int handle, int seconds)
{
    const timeval value{seconds, 0};
    setsockopt(handle, SOL_SOCKET, SO_SNDTIMEO, &value, sizeof value);
    setsockopt(handle, SOL_SOCKET, SO_RCVTIMEO, &value, sizeof value);
}

bool is_nonblocking(int handle)
{
    return (fcntl(handle, F_GETFL) & O_NONBLOCK) != 0;
}

using Tls_IO = Peer_Stream_IO_T<ACE_SSL_SOCK_Stream>;

/// A TLS connection after its handshake: the server's stream and the client.
class Tls_Connection {
public:
    Tls_Connection()
    {
        if (!configure_tls()) {
            return;
        }
        stream = std::make_unique<ACE_SSL_SOCK_Stream>();
        Test_Pair pair = tcp_pair(16 * 1024);
        peer = std::move(pair.second);
        stream->set_handle(pair.first.release());
        set_sock_nodelay(*stream, true); // session tickets come with the handshake, not later
        client = std::make_unique<Tls_Client>(peer.get());
        bool connected = false;
        std::thread connecting([&] { connected = client->connect(); });
        const bool accepted = SSL_accept(stream->ssl()) == 1;
        connecting.join();
        open = accepted && connected && Tls_IO::prepare(*stream) == 0;
    }

    ~Tls_Connection()
    {
        if (stream != nullptr) {
            Tls_IO::close(*stream);
        }
    }

    Tls_Connection(const Tls_Connection&) = delete;
    Tls_Connection& operator=(const Tls_Connection&) = delete;

    ssize_t receive_now(char* buffer, size_t length)
    {
        return Tls_IO::receive(*stream, buffer, length, Receive_Mode::NEVER_WAIT, nullptr);
    }

    ssize_t receive(char* buffer, size_t length, int seconds = 10)
    {
        const ACE_Time_Value limit(seconds);
        return Tls_IO::receive(*stream, buffer, length, Receive_Mode::WAIT, &limit);
    }

    bool open = false;
    std::unique_ptr<ACE_SSL_SOCK_Stream> stream;
    Test_Fd peer;
    std::unique_ptr<Tls_Client> client;
};

/// The bytes of one TLS record with `text`, taken off the wire instead of sent.
std::string record_of(Tls_Connection& connection, const std::string& text)
{
    BIO* const memory = BIO_new(BIO_s_mem());
    BIO* const socket = SSL_get_rbio(connection.client->ssl());
    SSL_set0_wbio(connection.client->ssl(), memory);
    connection.client->write(text);
    char* data = nullptr;
    const long length = BIO_get_mem_data(memory, &data);
    std::string record(data, static_cast<size_t>(length));
    BIO_up_ref(socket); // for the one that the next line takes
    SSL_set0_wbio(connection.client->ssl(), socket);
    return record;
}

/// Counts the records that arrive, by their headers, without decrypting them.
size_t records_waiting(int handle, size_t bytes)
{
    std::string wire(bytes, '\0');
    make_readable(handle);
    const ssize_t length = recv(handle, wire.data(), wire.size(), MSG_PEEK);
    size_t count = 0;
    for (size_t at = 0; at + 5 <= static_cast<size_t>(length); ++count) {
        at += 5U + (static_cast<size_t>(static_cast<unsigned char>(wire[at + 3])) << 8) +
              static_cast<unsigned char>(wire[at + 4]);
    }
    return count;
}

/// Eats the session tickets that follow a TLS 1.3 handshake, so that only answers are counted.
void eat_tickets(Tls_Connection& connection)
{
    fcntl(connection.peer.get(), F_SETFL, O_NONBLOCK);
    pollfd entry{connection.peer.get(), POLLIN, 0};
    while (poll(&entry, 1, 0) == 1) {
        connection.client->read(1); // one ticket at a time
    }
    fcntl(connection.peer.get(), F_SETFL, 0);
}

} // namespace

TYPED_TEST(Plain_Stream_IO, prepare_changes_nothing)
{
    Wired<TypeParam> wired;
    EXPECT_EQ(Peer_Stream_IO_T<TypeParam>::prepare(wired.stream), 0);
    EXPECT_FALSE(is_nonblocking(wired.stream.get_handle()));
}

TYPED_TEST(Plain_Stream_IO, receive_never_waits_in_the_event_loop)
{
    using IO = Peer_Stream_IO_T<TypeParam>;
    Wired<TypeParam> wired;
    char buffer[16];
    EXPECT_EQ(IO::receive(wired.stream, buffer, sizeof buffer, Receive_Mode::NEVER_WAIT, nullptr),
              -1);
    EXPECT_EQ(errno, EAGAIN);
    ASSERT_EQ(write(wired.peer.get(), "abc", 3), 3);
    make_readable(wired.stream.get_handle());
    EXPECT_EQ(IO::receive(wired.stream, buffer, sizeof buffer, Receive_Mode::NEVER_WAIT, nullptr),
              3);
    EXPECT_FALSE(IO::pending(wired.stream));
    wired.peer.close();
    make_readable(wired.stream.get_handle());
    EXPECT_EQ(IO::receive(wired.stream, buffer, sizeof buffer, Receive_Mode::NEVER_WAIT, nullptr),
              0);
}

TYPED_TEST(Plain_Stream_IO, receive_waits_until_bytes_come)
{
    using IO = Peer_Stream_IO_T<TypeParam>;
    for (const bool nonblocking : {false, true}) {
        for (const bool limited : {false, true}) {
            SCOPED_TRACE(testing::Message() << nonblocking << limited);
            Wired<TypeParam> wired;
            ASSERT_EQ(set_fd_nonblock(wired.stream.get_handle(), nonblocking), 0);
            std::thread writer([&] { EXPECT_EQ(write(wired.peer.get(), "abc", 3), 3); });
            char buffer[16];
            const ACE_Time_Value limit(10);
            EXPECT_EQ(IO::receive(wired.stream, buffer, sizeof buffer, Receive_Mode::WAIT,
                                  limited ? &limit : nullptr),
                      3);
            writer.join();
        }
    }
}

TYPED_TEST(Plain_Stream_IO, receive_ends_with_ETIME_at_its_limit)
{
    using IO = Peer_Stream_IO_T<TypeParam>;
    Wired<TypeParam> wired;
    char buffer[16];
    const ACE_Time_Value limit(0, 200'000);
    const long took = milliseconds_of([&] {
        EXPECT_EQ(IO::receive(wired.stream, buffer, sizeof buffer, Receive_Mode::WAIT, &limit), -1);
        EXPECT_EQ(errno, ETIME);
    });
    EXPECT_GE(took, 190);
    EXPECT_LT(took, 5000);
}

TYPED_TEST(Plain_Stream_IO, a_signal_does_not_end_a_receive)
{
    using IO = Peer_Stream_IO_T<TypeParam>;
    struct sigaction action {};
    struct sigaction old {};
    action.sa_handler = [](int) {};
    ASSERT_EQ(sigaction(SIGUSR1, &action, &old), 0);
    for (const bool limited : {false, true}) {
        Wired<TypeParam> wired;
        char buffer[16];
        const ACE_Time_Value limit(30);
        std::atomic<bool> done{false};
        ssize_t received = 0;
        std::thread reader([&] {
            received = IO::receive(wired.stream, buffer, sizeof buffer, Receive_Mode::WAIT,
                                   limited ? &limit : nullptr);
            done = true;
        });
        for (int i = 0; i < 20; ++i) {
            pthread_kill(reader.native_handle(), SIGUSR1);
            pollfd never{-1, 0, 0};
            poll(&never, 1, 1);
        }
        EXPECT_FALSE(done);
        EXPECT_EQ(write(wired.peer.get(), "abc", 3), 3);
        reader.join();
        EXPECT_EQ(received, 3);
    }
    sigaction(SIGUSR1, &old, nullptr);
}

TYPED_TEST(Plain_Stream_IO, interrupt_ends_a_receive_as_the_end_of_input)
{
    using IO = Peer_Stream_IO_T<TypeParam>;
    for (const bool limited : {false, true}) {
        Wired<TypeParam> wired;
        ASSERT_EQ(IO::prepare(wired.stream), 0);
        char buffer[16];
        const ACE_Time_Value limit(30);
        ssize_t received = -2;
        std::thread reader([&] {
            received = IO::receive(wired.stream, buffer, sizeof buffer, Receive_Mode::WAIT,
                                   limited ? &limit : nullptr);
        });
        IO::interrupt(wired.stream);
        reader.join();
        EXPECT_EQ(received, 0);
        EXPECT_EQ(IO::receive(wired.stream, buffer, sizeof buffer, Receive_Mode::WAIT, nullptr), 0)
            << "and every later one";
    }
}

TYPED_TEST(Plain_Stream_IO, interrupt_ends_a_send_that_waits)
{
    using IO = Peer_Stream_IO_T<TypeParam>;
    Wired<TypeParam> wired;
    ASSERT_EQ(IO::prepare(wired.stream), 0);
    const std::string data = pattern(8 * 1024 * 1024);
    ssize_t sent = 0;
    std::thread writer([&] { sent = IO::send(wired.stream, data.data(), data.size()); });
    read_up_to(wired.peer.get(), 1);
    IO::interrupt(wired.stream);
    writer.join();
    EXPECT_EQ(sent, -1);
}

TYPED_TEST(Plain_Stream_IO, sends_all_of_a_vector)
{
    using IO = Peer_Stream_IO_T<TypeParam>;
    Wired<TypeParam> wired;
    const std::string data = pattern(1024 * 1024);
    const iovec entries[3] = {{const_cast<char*>(data.data()), 10},
                              {nullptr, 0},
                              {const_cast<char*>(data.data()) + 10, data.size() - 10}};
    std::string received;
    std::thread reader([&] { received = read_up_to(wired.peer.get(), 2 * data.size()); });
    EXPECT_EQ(IO::sendv(wired.stream, entries, 3), static_cast<ssize_t>(data.size()));
    EXPECT_EQ(IO::send(wired.stream, data.data(), data.size()), static_cast<ssize_t>(data.size()));
    reader.join();
    EXPECT_TRUE(received == data + data);
}

TYPED_TEST(Plain_Stream_IO, close_makes_the_handle_invalid)
{
    using IO = Peer_Stream_IO_T<TypeParam>;
    Wired<TypeParam> wired;
    const int handle = wired.stream.get_handle();
    IO::close(wired.stream);
    EXPECT_EQ(wired.stream.get_handle(), ACE_INVALID_HANDLE);
    EXPECT_EQ(fcntl(handle, F_GETFD), -1);
    EXPECT_EQ(read_up_to(wired.peer.get(), 1), "");
}

template <typename Stream>
class Socket_Stream_IO : public testing::Test {
};

using Socket_Streams = testing::Types<ACE_SOCK_Stream, LSOCK_Stream>;
TYPED_TEST_SUITE(Socket_Stream_IO, Socket_Streams);

TYPED_TEST(Socket_Stream_IO, receive_without_limit_ends_with_ETIME_at_the_sockets_own)
{
    using IO = Peer_Stream_IO_T<TypeParam>;
    for (const bool nonblocking : {false, true}) {
        Wired<TypeParam> wired;
        set_limits(wired.stream.get_handle(), 1);
        ASSERT_EQ(set_fd_nonblock(wired.stream.get_handle(), nonblocking), 0);
        char buffer[16];
        EXPECT_EQ(IO::receive(wired.stream, buffer, sizeof buffer, Receive_Mode::WAIT, nullptr),
                  -1);
        EXPECT_EQ(errno, ETIME);
    }
}

TYPED_TEST(Socket_Stream_IO, half_close_ends_the_sending_side_and_gives_the_socket_away)
{
    using IO = Peer_Stream_IO_T<TypeParam>;
    Wired<TypeParam> wired;
    const Test_Fd handle(IO::half_close_and_detach(wired.stream));
    ASSERT_NE(handle.get(), -1);
    EXPECT_EQ(wired.stream.get_handle(), ACE_INVALID_HANDLE);
    EXPECT_EQ(read_up_to(wired.peer.get(), 1), "") << "the peer sees the end";
    ASSERT_EQ(write(wired.peer.get(), "late", 4), 4);
    EXPECT_EQ(read_up_to(handle.get(), 4), "late");
    EXPECT_EQ(IO::half_close_and_detach(wired.stream), -1) << "there is none to give any more";
}

TEST(Pipe_Stream_IO, half_closes_one_socket_for_both_sides_and_gives_a_copy_away)
{
    for (const bool two_numbers : {false, true}) {
        for (const bool own : {false, true}) {
            SCOPED_TRACE(testing::Message() << two_numbers << own);
            Test_Pair pair = tcp_pair();
            const int in = pair.first.release();
            const int out = two_numbers ? fcntl(in, F_DUPFD_CLOEXEC, 0) : in;
            Pipe_Stream stream(in, own, out, own);
            const Test_Fd copy(Peer_Stream_IO_T<Pipe_Stream>::half_close_and_detach(stream));
            ASSERT_NE(copy.get(), -1);
            EXPECT_EQ(stream.get_handle(), ACE_INVALID_HANDLE);
            EXPECT_EQ(fcntl(in, F_GETFD) != -1, !own);
            EXPECT_EQ(fcntl(out, F_GETFD) != -1, !own);
            EXPECT_NE(fcntl(copy.get(), F_GETFD) & FD_CLOEXEC, 0);
            EXPECT_EQ(read_up_to(pair.second.get(), 1), "") << "the peer sees the end";
            ASSERT_EQ(write(pair.second.get(), "late", 4), 4);
            EXPECT_EQ(read_up_to(copy.get(), 4), "late");
            EXPECT_EQ(Peer_Stream_IO_T<Pipe_Stream>::half_close_and_detach(stream), -1);
            if (!own) {
                ::close(in);
                if (two_numbers) {
                    ::close(out);
                }
            }
        }
    }
}

TEST(Pipe_Stream_IO, has_nothing_to_give_away_of_pipes_or_of_two_sockets)
{
    for (const bool sockets : {false, true}) {
        SCOPED_TRACE(sockets);
        const Test_Pair in = sockets ? unix_pair() : pipe_pair();
        const Test_Pair out = sockets ? unix_pair() : pipe_pair();
        Pipe_Stream stream(in.first.get(), false, out.second.get(), false);
        EXPECT_EQ(Peer_Stream_IO_T<Pipe_Stream>::half_close_and_detach(stream), -1);
        EXPECT_EQ(stream.get_handle(), ACE_INVALID_HANDLE);
        EXPECT_EQ(write(out.second.get(), "x", 1), 1) << "nothing was shut";
    }
}

TYPED_TEST(Plain_Stream_IO, a_send_that_never_waits_takes_what_there_is_room_for)
{
    using IO = Peer_Stream_IO_T<TypeParam>;
    Wired<TypeParam> wired;
    const std::string data = pattern(4 * 1024 * 1024);
    size_t done = 0;
    std::string received;
    while (done < data.size()) {
        const size_t half = (data.size() - done) / 2;
        const iovec iov[3] = {
            {const_cast<char*>(data.data()) + done, half},
            {nullptr, 0},
            {const_cast<char*>(data.data()) + done + half, data.size() - done - half}};
        const ssize_t taken = IO::sendv_now(wired.stream, iov, 3);
        ASSERT_GE(taken, 0);
        done += static_cast<size_t>(taken);
        if (taken == 0) {
            make_readable(wired.peer.get());
            char buffer[64 * 1024];
            const ssize_t count = recv(wired.peer.get(), buffer, sizeof buffer, 0);
            ASSERT_GT(count, 0);
            received.append(buffer, static_cast<size_t>(count));
        }
    }
    EXPECT_LT(received.size(), data.size()) << "the last bytes lie in the socket";
    received += read_up_to(wired.peer.get(), data.size() - received.size());
    EXPECT_TRUE(received == data);
    wired.peer.close();
    const iovec byte{const_cast<char*>("x"), 1};
    ssize_t result = 0;
    for (int i = 0; i < 100 && result >= 0; ++i) {
        result = IO::sendv_now(wired.stream, &byte, 1);
    }
    EXPECT_EQ(result, -1);
    EXPECT_TRUE(errno == EPIPE || errno == ECONNRESET) << errno;
}

TEST(Tls_Stream_IO, a_send_that_never_waits_takes_what_there_is_room_for)
{
    Tls_Connection connection;
    ASSERT_TRUE(connection.open);
    const std::string data = pattern(2 * 1024 * 1024);
    // Until nobody reads, there is an end to what is taken.
    size_t done = 0;
    size_t offered = 1000; // later calls offer the same bytes and more
    for (int idle = 0; idle < 3; offered += 50'000) {
        offered = std::min(offered, data.size());
        const iovec iov[2] = {{const_cast<char*>(data.data()) + done, 10},
                              {const_cast<char*>(data.data()) + done + 10, offered - done - 10}};
        const ssize_t taken = Tls_IO::sendv_now(*connection.stream, iov, 2);
        ASSERT_GE(taken, 0);
        done += static_cast<size_t>(taken);
        idle += taken == 0 ? 1 : 0;
        ASSERT_LT(done + 20, data.size());
    }
    std::string received;
    std::thread reading([&] { received = connection.client->read(data.size()); });
    while (done < data.size()) {
        const iovec rest{const_cast<char*>(data.data()) + done, data.size() - done};
        const ssize_t taken = Tls_IO::sendv_now(*connection.stream, &rest, 1);
        if (taken == -1) {
            ADD_FAILURE() << "errno " << errno;
            break;
        }
        done += static_cast<size_t>(taken);
        pollfd room{connection.stream->get_handle(), POLLOUT, 0};
        poll(&room, 1, 10'000);
    }
    if (done < data.size()) {
        shutdown(connection.stream->get_handle(), SHUT_RDWR);
    }
    reading.join();
    EXPECT_TRUE(received == data);
}

TEST(Tls_Stream_IO, prepare_makes_the_descriptor_non_blocking)
{
    Tls_Connection connection;
    ASSERT_TRUE(connection.open);
    EXPECT_TRUE(is_nonblocking(connection.stream->get_handle()));
    EXPECT_EQ(Tls_IO::prepare(*connection.stream), 0) << "and may be repeated";
}

TEST(Tls_Stream_IO, a_stream_without_a_connection_fails)
{
    ASSERT_TRUE(configure_tls());
    ACE_SSL_SOCK_Stream stream;
    char byte = 0;
    EXPECT_EQ(Tls_IO::prepare(stream), -1);
    EXPECT_EQ(Tls_IO::receive(stream, &byte, 1, Receive_Mode::NEVER_WAIT, nullptr), -1);
    EXPECT_EQ(Tls_IO::send(stream, &byte, 1), -1);
    EXPECT_FALSE(Tls_IO::pending(stream));
    EXPECT_EQ(Tls_IO::half_close_and_detach(stream), -1);
    Tls_IO::close(stream);
}

TEST(Tls_Stream_IO, exchanges_bytes)
{
    Tls_Connection connection;
    ASSERT_TRUE(connection.open);
    char buffer[64];
    EXPECT_EQ(connection.receive_now(buffer, sizeof buffer), -1);
    EXPECT_EQ(errno, EAGAIN);
    ASSERT_TRUE(connection.client->write("request"));
    EXPECT_EQ(connection.receive(buffer, sizeof buffer), 7);
    EXPECT_EQ(Tls_IO::send(*connection.stream, "response", 8), 8);
    EXPECT_EQ(connection.client->read(8), "response");
}

TEST(Tls_Stream_IO, a_part_of_a_record_is_EAGAIN_and_not_pending)
{
    Tls_Connection connection;
    ASSERT_TRUE(connection.open);
    const std::string record = record_of(connection, std::string(100, 'r'));
    ASSERT_GT(record.size(), 100U);
    char buffer[256];
    size_t sent = 0;
    for (const size_t part : {size_t{1}, size_t{4}, size_t{3}, size_t{60}}) {
        ASSERT_EQ(ace_send(connection.peer.get(), record.data() + sent, part),
                  static_cast<ssize_t>(part));
        sent += part;
        make_readable(connection.stream->get_handle());
        EXPECT_EQ(connection.receive_now(buffer, sizeof buffer), -1);
        EXPECT_EQ(errno, EAGAIN);
        EXPECT_FALSE(Tls_IO::pending(*connection.stream)) << "nothing can be done with a part";
    }
    ASSERT_GT(ace_send(connection.peer.get(), record.data() + sent, record.size() - sent), 0);
    EXPECT_EQ(connection.receive(buffer, sizeof buffer), 100);
    EXPECT_FALSE(Tls_IO::pending(*connection.stream));
}

TEST(Tls_Stream_IO, a_record_larger_than_the_buffer_is_pending_until_it_is_taken)
{
    Tls_Connection connection;
    ASSERT_TRUE(connection.open);
    const std::string data = pattern(16 * 1024);
    std::thread writer([&] { EXPECT_TRUE(connection.client->write(data)); });
    char buffer[8192];
    EXPECT_EQ(connection.receive(buffer, sizeof buffer), 8192);
    writer.join();
    std::string received(buffer, sizeof buffer);
    EXPECT_TRUE(Tls_IO::pending(*connection.stream));
    EXPECT_EQ(connection.receive_now(buffer, sizeof buffer), 8192);
    received.append(buffer, sizeof buffer);
    EXPECT_TRUE(received == data);
    EXPECT_FALSE(Tls_IO::pending(*connection.stream));
    EXPECT_EQ(connection.receive_now(buffer, sizeof buffer), -1);
    EXPECT_EQ(errno, EAGAIN);
}

TEST(Tls_Stream_IO, records_that_arrive_together_are_all_delivered)
{
    Tls_Connection connection;
    ASSERT_TRUE(connection.open);
    std::string wire;
    for (int i = 0; i < 10; ++i) {
        wire += record_of(connection, "message " + std::to_string(i));
    }
    ASSERT_EQ(ace_send(connection.peer.get(), wire.data(), wire.size()),
              static_cast<ssize_t>(wire.size()));
    char buffer[8192];
    ssize_t count = connection.receive(buffer, sizeof buffer);
    std::string received;
    // What an event loop does: it reads on as long as it is told that something is left.
    while (count > 0) {
        received.append(buffer, static_cast<size_t>(count));
        if (!Tls_IO::pending(*connection.stream)) {
            pollfd entry{connection.stream->get_handle(), POLLIN, 0};
            if (poll(&entry, 1, 0) == 0) {
                break;
            }
        }
        count = connection.receive_now(buffer, sizeof buffer);
    }
    EXPECT_EQ(received.size(), 10 * std::string("message 0").size());
}

TEST(Tls_Stream_IO, a_key_update_does_not_hide_the_data_behind_it)
{
    Tls_Connection connection;
    ASSERT_TRUE(connection.open);
    if (SSL_version(connection.client->ssl()) != TLS1_3_VERSION) {
        GTEST_SKIP() << "only TLS 1.3 has key updates";
    }
    ASSERT_EQ(SSL_key_update(connection.client->ssl(), SSL_KEY_UPDATE_NOT_REQUESTED), 1);
    const std::string wire = record_of(connection, "behind");
    ASSERT_GT(ace_send(connection.peer.get(), wire.data(), wire.size()), 0);
    make_readable(connection.stream->get_handle());
    char buffer[64];
    EXPECT_EQ(connection.receive_now(buffer, sizeof buffer), 6);
}

TEST(Tls_Stream_IO, close_notify_is_the_end)
{
    Tls_Connection connection;
    ASSERT_TRUE(connection.open);
    connection.client->goodbye();
    char buffer[16];
    EXPECT_EQ(connection.receive(buffer, sizeof buffer), 0);
}

TEST(Tls_Stream_IO, an_end_without_close_notify_is_an_ordinary_end)
{
    Tls_Connection connection;
    ASSERT_TRUE(connection.open);
    ASSERT_TRUE(connection.client->write("last"));
    shutdown(connection.peer.get(), SHUT_WR);
    char buffer[16];
    EXPECT_EQ(connection.receive(buffer, sizeof buffer), 4);
    EXPECT_EQ(connection.receive(buffer, sizeof buffer), 0);
}

TEST(Tls_Stream_IO, bytes_that_are_no_records_are_EPROTO)
{
    Tls_Connection connection;
    ASSERT_TRUE(connection.open);
    ASSERT_GT(ace_send(connection.peer.get(), "GET / HTTP/1.1\r\n\r\n", 18), 0);
    char buffer[16];
    EXPECT_EQ(connection.receive(buffer, sizeof buffer), -1);
    EXPECT_EQ(errno, EPROTO);
    EXPECT_EQ(ERR_peek_error(), 0UL) << "the error queue is left empty";
}

TEST(Tls_Stream_IO, a_reset_is_told_by_the_systems_errno)
{
    Tls_Connection connection;
    ASSERT_TRUE(connection.open);
    const linger at_once{1, 0};
    setsockopt(connection.peer.get(), SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
    connection.peer.close();
    char buffer[16];
    EXPECT_EQ(connection.receive(buffer, sizeof buffer), -1);
    EXPECT_EQ(errno, ECONNRESET);
}

TEST(Tls_Stream_IO, stale_errors_of_the_thread_do_no_harm)
{
    Tls_Connection connection;
    ASSERT_TRUE(connection.open);
    ERR_put_error(ERR_LIB_SSL, 0, ERR_R_INTERNAL_ERROR, __FILE__, __LINE__);
    char buffer[16];
    EXPECT_EQ(connection.receive_now(buffer, sizeof buffer), -1);
    EXPECT_EQ(errno, EAGAIN);
}

TEST(Tls_Stream_IO, receive_ends_with_ETIME_though_bytes_trickle)
{
    Tls_Connection connection;
    ASSERT_TRUE(connection.open);
    const std::string record = record_of(connection, std::string(200, 'r'));
    std::atomic<bool> done{false};
    std::thread writer([&] {
        for (size_t i = 0; i < record.size() - 1 && !done; ++i) {
            pollfd never{-1, 0, 0};
            poll(&never, 1, 50);
            ace_send(connection.peer.get(), record.data() + i, 1);
        }
    });
    char buffer[256];
    const long took = milliseconds_of([&] {
        EXPECT_EQ(connection.receive(buffer, sizeof buffer, 1), -1);
        EXPECT_EQ(errno, ETIME);
    });
    done = true;
    writer.join();
    EXPECT_GE(took, 950);
    EXPECT_LT(took, 5000);
}

TEST(Tls_Stream_IO, receive_without_limit_ends_with_ETIME_at_the_sockets_own)
{
    Tls_Connection connection;
    ASSERT_TRUE(connection.open);
    set_limits(connection.stream->get_handle(), 1);
    char buffer[16];
    EXPECT_EQ(
        Tls_IO::receive(*connection.stream, buffer, sizeof buffer, Receive_Mode::WAIT, nullptr),
        -1);
    EXPECT_EQ(errno, ETIME);
}

TEST(Tls_Stream_IO, a_header_and_a_small_body_leave_as_one_record)
{
    Tls_Connection connection;
    ASSERT_TRUE(connection.open);
    eat_tickets(connection);
    const std::string header(200, 'h');
    const std::string body(1000, 'b');
    const iovec entries[4] = {{const_cast<char*>(header.data()), 100},
                              {const_cast<char*>(header.data()) + 100, 100},
                              {nullptr, 0},
                              {const_cast<char*>(body.data()), body.size()}};
    EXPECT_EQ(Tls_IO::sendv(*connection.stream, entries, 4), 1200);
    EXPECT_EQ(records_waiting(connection.peer.get(), 4096), 1U);
    EXPECT_EQ(connection.client->read(1200), header + body);
}

TEST(Tls_Stream_IO, sends_large_vectors_to_a_slow_reader)
{
    Tls_Connection connection;
    ASSERT_TRUE(connection.open);
    const std::string data = pattern(2 * 1024 * 1024 + 5);
    std::vector<iovec> entries;
    size_t at = 0;
    for (size_t length = 1; at < data.size(); length = length * 3 % 50'021 + 1) {
        length = std::min(length, data.size() - at);
        entries.push_back({const_cast<char*>(data.data()) + at, length});
        at += length;
    }
    std::string received;
    std::thread reader([&] { received = connection.client->read(data.size()); });
    EXPECT_EQ(Tls_IO::sendv(*connection.stream, entries.data(), static_cast<int>(entries.size())),
              static_cast<ssize_t>(data.size()));
    reader.join();
    EXPECT_TRUE(received == data);
}

TEST(Tls_Stream_IO, gives_up_with_ETIME_on_a_peer_that_does_not_read)
{
    Tls_Connection connection;
    ASSERT_TRUE(connection.open);
    set_limits(connection.stream->get_handle(), 1);
    const std::string data(4 * 1024 * 1024, 'x');
    const long took = milliseconds_of([&] {
        EXPECT_EQ(Tls_IO::send(*connection.stream, data.data(), data.size()), -1);
        EXPECT_EQ(errno, ETIME);
    });
    EXPECT_GE(took, 950);
    EXPECT_LT(took, 10'000);
    EXPECT_LT(milliseconds_of([&] { Tls_IO::close(*connection.stream); }), 500)
        << "closing does not wait for room";
    EXPECT_EQ(connection.stream->get_handle(), ACE_INVALID_HANDLE);
}

TEST(Tls_Stream_IO, a_send_to_a_peer_that_is_gone_fails_without_SIGPIPE)
{
    struct sigaction old {};
    ASSERT_EQ(sigaction(SIGPIPE, nullptr, &old), 0);
    signal(SIGPIPE, SIG_DFL); // a SIGPIPE would end the test program
    Tls_Connection connection;
    ASSERT_TRUE(connection.open);
    const linger at_once{1, 0};
    setsockopt(connection.peer.get(), SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
    connection.peer.close();
    int failed = 0;
    for (int i = 0; i < 3; ++i) {
        failed = Tls_IO::send(*connection.stream, "x", 1) == -1 ? errno : 0;
    }
    EXPECT_TRUE(failed == EPIPE || failed == ECONNRESET || failed == EPROTO) << failed;
    Tls_IO::close(*connection.stream);
    sigaction(SIGPIPE, &old, nullptr);
}

TEST(Tls_Stream_IO, close_sends_close_notify_and_closes_the_descriptor)
{
    Tls_Connection connection;
    ASSERT_TRUE(connection.open);
    const int handle = connection.stream->get_handle();
    Tls_IO::close(*connection.stream);
    EXPECT_EQ(connection.stream->get_handle(), ACE_INVALID_HANDLE);
    EXPECT_EQ(fcntl(handle, F_GETFD), -1);
    EXPECT_EQ(connection.client->read(1), "");
    EXPECT_EQ(connection.client->error(), SSL_ERROR_ZERO_RETURN) << "close_notify has come";
    EXPECT_EQ(connection.stream->close(), 0) << "the stream's own close finds nothing to do";
}

TEST(Tls_Stream_IO, half_close_sends_close_notify_and_gives_the_socket_away)
{
    Tls_Connection connection;
    ASSERT_TRUE(connection.open);
    const Test_Fd handle(Tls_IO::half_close_and_detach(*connection.stream));
    ASSERT_NE(handle.get(), -1);
    EXPECT_EQ(connection.stream->get_handle(), ACE_INVALID_HANDLE);
    EXPECT_EQ(connection.client->read(1), "");
    EXPECT_EQ(connection.client->error(), SSL_ERROR_ZERO_RETURN);
    ASSERT_TRUE(connection.client->write("late"));
    EXPECT_GT(read_up_to(handle.get(), 4).size(), 0U);
}

TEST(Tls_Stream_IO, renegotiation_is_refused)
{
    Tls_Connection connection;
    ASSERT_TRUE(connection.open);
    EXPECT_NE(SSL_get_options(connection.stream->ssl()) & SSL_OP_NO_RENEGOTIATION, 0U);
}

TEST(ACE_Peer_Stream_Option, sets_the_options_of_a_socket)
{
    Wired<ACE_SOCK_Stream> wired;
    using Option = ACE_Peer_Stream_Option_T<ACE_SOCK_Stream>;
    EXPECT_EQ(Option::set_nodelay(wired.stream, true), 0);
    EXPECT_EQ(Option::set_keepalive(wired.stream, 60), 0);
    EXPECT_EQ(Option::set_timeout(wired.stream, 3, 4), 0);
    EXPECT_EQ(send_limit_ms(wired.stream.get_handle()), 3000);
}

TEST(ACE_Peer_Stream_Option, sets_the_options_of_a_tls_socket)
{
    Tls_Connection connection;
    ASSERT_TRUE(connection.open);
    using Option = ACE_Peer_Stream_Option_T<ACE_SSL_SOCK_Stream>;
    EXPECT_EQ(Option::set_nodelay(*connection.stream, true), 0);
    EXPECT_EQ(Option::set_keepalive(*connection.stream, 60), 0);
    EXPECT_EQ(Option::set_timeout(*connection.stream, 3, 0), 0);
    EXPECT_EQ(send_limit_ms(connection.stream->get_handle()), 3000);
}

TEST(ACE_Peer_Stream_Option, keepalive_is_refused_for_a_unix_socket_nodelay_is_not)
{
    Wired<LSOCK_Stream> wired;
    using Option = ACE_Peer_Stream_Option_T<LSOCK_Stream>;
    EXPECT_EQ(Option::set_nodelay(wired.stream, true), 0);
    EXPECT_EQ(Option::set_keepalive(wired.stream, 60), -1);
    EXPECT_EQ(Option::set_timeout(wired.stream, 3, 0), 0);
    EXPECT_EQ(send_limit_ms(wired.stream.get_handle()), 3000);
}

TEST(ACE_Peer_Stream_Option, a_pipe_has_none_and_reports_success)
{
    const Pipe_Stream stream;
    using Option = ACE_Peer_Stream_Option_T<Pipe_Stream>;
    EXPECT_EQ(Option::set_nodelay(stream, true), 0);
    EXPECT_EQ(Option::set_keepalive(stream, 60), 0);
    EXPECT_EQ(Option::set_timeout(stream, 3, 4), 0);
}
