#include "support/mem_stream.h"

#include "support/peer_stream_io.h"
#include "support/socket_helpers.h"
#include "tests/support/mem_fixture.h"
#include "tests/support/test_sockets.h"

#include <ace/INET_Addr.h>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <thread>

using IO = Peer_Stream_IO_T<MEM_Stream>;

namespace {

/// Sends as an ACE client does: one message.
bool client_sends(Mem_Connection& connection, const std::string& text)
{
    return connection.client.send(text.data(), text.size()) > 0;
}

/// Reads messages as an ACE client does, until there are `length` bytes.
std::string client_reads(Mem_Connection& connection, size_t length)
{
    std::string result;
    char buffer[100 * 1024];
    const ACE_Time_Value limit(10);
    while (result.size() < length) {
        const ssize_t count = connection.client.recv(buffer, sizeof buffer, &limit);
        if (count <= 0) {
            break;
        }
        result.append(buffer, static_cast<size_t>(count));
    }
    return result;
}

ssize_t receive_now(Mem_Connection& connection, char* buffer, size_t length)
{
    return IO::receive(connection.server, buffer, length, Receive_Mode::NEVER_WAIT, nullptr);
}

} // namespace

TEST(MEM_Stream, a_new_stream_is_closed)
{
    MEM_Stream stream(static_cast<ACE_SSL_Context*>(nullptr));
    char byte = 0;
    EXPECT_EQ(stream.get_handle(), ACE_INVALID_HANDLE);
    EXPECT_EQ(stream.recv_now(&byte, 1), -1);
    EXPECT_EQ(errno, ENOTCONN);
    EXPECT_EQ(stream.send(&byte, 1), -1);
    EXPECT_EQ(errno, ENOTCONN);
    EXPECT_FALSE(stream.pending());
    EXPECT_EQ(stream.close(), 0);
}

TEST(MEM_Stream, exchanges_messages_of_20000_bytes_with_an_ACE_client)
{
    Mem_Connection connection;
    ASSERT_TRUE(connection.is_open());
    const std::string data = pattern(20'000);
    for (int i = 0; i < 5; ++i) {
        ASSERT_TRUE(client_sends(connection, data));
        std::string received;
        char buffer[8192];
        const ACE_Time_Value limit(10);
        while (received.size() < data.size()) {
            const ssize_t count =
                IO::receive(connection.server, buffer, sizeof buffer, Receive_Mode::WAIT, &limit);
            ASSERT_GT(count, 0);
            received.append(buffer, static_cast<size_t>(count));
        }
        EXPECT_TRUE(received == data);
        EXPECT_EQ(IO::send(connection.server, data.data(), data.size()), 20'000);
        EXPECT_TRUE(client_reads(connection, data.size()) == data);
    }
}

TEST(MEM_Stream, tells_of_the_rest_of_a_message_that_was_longer_than_the_buffer)
{
    Mem_Connection connection;
    ASSERT_TRUE(connection.is_open());
    ASSERT_EQ(IO::prepare(connection.server), 0);
    ASSERT_TRUE(client_sends(connection, pattern(20'000)));
    char buffer[8192];
    const ACE_Time_Value limit(10);
    EXPECT_FALSE(IO::pending(connection.server));
    EXPECT_EQ(IO::receive(connection.server, buffer, sizeof buffer, Receive_Mode::WAIT, &limit),
              8192);
    EXPECT_TRUE(IO::pending(connection.server));
    pollfd entry{connection.server.get_handle(), POLLIN, 0};
    EXPECT_EQ(poll(&entry, 1, 0), 0) << "no event tells of the rest";
    EXPECT_EQ(receive_now(connection, buffer, sizeof buffer), 8192);
    EXPECT_TRUE(IO::pending(connection.server));
    EXPECT_EQ(receive_now(connection, buffer, sizeof buffer), 20'000 - 2 * 8192);
    EXPECT_FALSE(IO::pending(connection.server));
    EXPECT_EQ(receive_now(connection, buffer, sizeof buffer), -1);
    EXPECT_EQ(errno, EAGAIN);
}

TEST(MEM_Stream, waits_no_longer_than_the_limit)
{
    Mem_Connection connection;
    ASSERT_TRUE(connection.is_open());
    char buffer[16];
    const ACE_Time_Value limit(0, 200'000);
    const long took = milliseconds_of([&] {
        EXPECT_EQ(IO::receive(connection.server, buffer, sizeof buffer, Receive_Mode::WAIT, &limit),
                  -1);
        EXPECT_EQ(errno, ETIME);
    });
    EXPECT_GE(took, 190);
}

TEST(MEM_Stream, splits_what_is_larger_than_the_pool)
{
    Mem_Connection connection;
    ASSERT_TRUE(connection.is_open());
    const std::string data = pattern(40 * 1024 * 1024 + 3);
    const iovec entries[4] = {
        {const_cast<char*>(data.data()), 100},
        {nullptr, 0},
        {const_cast<char*>(data.data()) + 100, 30'000'000},
        {const_cast<char*>(data.data()) + 30'000'100, data.size() - 30'000'100}};
    std::string received;
    std::thread reader([&] { received = client_reads(connection, data.size()); });
    EXPECT_EQ(IO::sendv(connection.server, entries, 4), static_cast<ssize_t>(data.size()));
    reader.join();
    EXPECT_TRUE(received == data);
}

TEST(MEM_Stream, a_send_that_never_waits_takes_what_there_is_room_for)
{
    Mem_Connection connection;
    ASSERT_TRUE(connection.is_open());
    const std::string data = pattern(40 * 1024 * 1024 + 3);
    size_t done = 0;
    const auto send_now = [&] {
        const iovec iov[2] = {{const_cast<char*>(data.data()) + done, 1},
                              {const_cast<char*>(data.data()) + done + 1, data.size() - done - 1}};
        const ssize_t taken = IO::sendv_now(connection.server, iov, 2);
        done += taken > 0 ? static_cast<size_t>(taken) : 0;
        return taken;
    };
    EXPECT_GT(send_now(), 0);
    EXPECT_LT(done, data.size());
    EXPECT_EQ(send_now(), 0); // the pool is full
    std::string received;
    std::thread reader([&] { received = client_reads(connection, data.size()); });
    while (done < data.size() && send_now() >= 0) {
        std::this_thread::yield();
    }
    EXPECT_EQ(done, data.size());
    if (done < data.size()) {
        IO::close(connection.server);
    }
    reader.join();
    EXPECT_TRUE(received == data);
}

TEST(MEM_Stream, gives_up_with_ETIME_on_a_client_that_does_not_read)
{
    Mem_Connection connection;
    ASSERT_TRUE(connection.is_open());
    ASSERT_EQ(set_sock_timeout(connection.server, 1, 0), 0);
    const std::string data(20 * 1024 * 1024, 'x');
    const long took = milliseconds_of([&] {
        EXPECT_EQ(IO::send(connection.server, data.data(), data.size()), -1);
        EXPECT_EQ(errno, ETIME);
    });
    EXPECT_GE(took, 900);
    EXPECT_LT(took, 10'000);
    EXPECT_LT(milliseconds_of([&] { IO::close(connection.server); }), 500);
}

TEST(MEM_Stream, a_client_that_closes_is_the_end_of_the_stream)
{
    Mem_Connection connection;
    ASSERT_TRUE(connection.is_open());
    ASSERT_TRUE(client_sends(connection, "last"));
    connection.client.close();
    char buffer[16];
    const ACE_Time_Value limit(10);
    EXPECT_EQ(IO::receive(connection.server, buffer, sizeof buffer, Receive_Mode::WAIT, &limit), 4);
    EXPECT_EQ(IO::receive(connection.server, buffer, sizeof buffer, Receive_Mode::WAIT, &limit), 0);
}

TEST(MEM_Stream, closing_ends_the_stream_for_the_client_after_what_was_sent)
{
    Mem_Connection connection;
    ASSERT_TRUE(connection.is_open());
    ASSERT_EQ(IO::send(connection.server, "bye", 3), 3);
    IO::close(connection.server);
    EXPECT_EQ(connection.server.get_handle(), ACE_INVALID_HANDLE);
    EXPECT_EQ(client_reads(connection, 100), "bye");
}

TEST(MEM_Stream, a_send_to_a_client_that_is_gone_fails)
{
    Mem_Connection connection;
    ASSERT_TRUE(connection.is_open());
    connection.client.close();
    int failed = 0;
    for (int i = 0; i < 3; ++i) {
        failed = IO::send(connection.server, "x", 1) == -1 ? errno : 0;
    }
    EXPECT_TRUE(failed == EPIPE || failed == ECONNRESET) << failed;
}

TEST(MEM_Stream, an_offset_outside_the_pool_is_refused)
{
    const ACE_OFF_T offsets[] = {-8, 0, 1, 3, 1LL << 40, INT64_MAX, 16 * 1024 * 1024};
    for (const ACE_OFF_T offset : offsets) {
        SCOPED_TRACE(offset);
        Mem_Connection connection;
        ASSERT_TRUE(connection.is_open());
        ASSERT_EQ(ace_send(connection.client.get_handle(), &offset, sizeof offset), 8);
        char buffer[16];
        const ACE_Time_Value limit(10);
        EXPECT_EQ(IO::receive(connection.server, buffer, sizeof buffer, Receive_Mode::WAIT, &limit),
                  -1);
        EXPECT_EQ(errno, EPROTO);
    }
}

TEST(MEM_Stream, half_an_offset_waits_for_the_other_half)
{
    Mem_Connection connection;
    ASSERT_TRUE(connection.is_open());
    char buffer[16];
    const char half[4] = {};
    ASSERT_EQ(ace_send(connection.client.get_handle(), half, sizeof half), 4);
    pollfd entry{connection.server.get_handle(), POLLIN, 0};
    ASSERT_EQ(poll(&entry, 1, 10'000), 1);
    EXPECT_EQ(receive_now(connection, buffer, sizeof buffer), -1);
    EXPECT_EQ(errno, EAGAIN);
    ASSERT_EQ(ace_send(connection.client.get_handle(), half, sizeof half), 4);
    ASSERT_EQ(poll(&entry, 1, 10'000), 1);
    EXPECT_EQ(receive_now(connection, buffer, sizeof buffer), -1);
    EXPECT_EQ(errno, EPROTO) << "all of it is offset 0, which holds no message";
}

TEST(MEM_Stream, leaves_no_file_behind_though_the_client_died)
{
    Mem_Connection connection;
    ASSERT_TRUE(connection.is_open());
    EXPECT_EQ(count_pool_files(connection.port), 1U);
    shutdown(connection.client.get_handle(), SHUT_RDWR); // it never says goodbye to the pool
    IO::close(connection.server);
    EXPECT_EQ(count_pool_files(connection.port), 0U);
}

TEST(MEM_Stream, half_close_gives_the_socket_away)
{
    Mem_Connection connection;
    ASSERT_TRUE(connection.is_open());
    const Test_Fd handle(IO::half_close_and_detach(connection.server));
    ASSERT_NE(handle.get(), -1);
    EXPECT_EQ(connection.server.get_handle(), ACE_INVALID_HANDLE);
    EXPECT_EQ(client_reads(connection, 1), "") << "the client sees the end";
    EXPECT_NE(fcntl(handle.get(), F_GETFD), -1);
}

TEST(MEM_Stream, leaves_an_internet_address_as_it_is)
{
    Mem_Connection connection;
    ASSERT_TRUE(connection.is_open());
    ACE_INET_Addr address("1.2.3.4:5");
    EXPECT_EQ(connection.server.get_remote_addr(address), 0);
    EXPECT_TRUE(address == ACE_INET_Addr("1.2.3.4:5"));
}
