#include "support/pipe_stream.h"

#include "tests/support/test_sockets.h"

#include <ace/INET_Addr.h>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <thread>

namespace {

bool is_open(int handle)
{
    return fcntl(handle, F_GETFD) != -1;
}

} // namespace

TEST(Pipe_Stream, starts_without_descriptors)
{
    Pipe_Stream stream;
    EXPECT_EQ(stream.get_handle(), ACE_INVALID_HANDLE);
    EXPECT_EQ(stream.get_handle(true), ACE_INVALID_HANDLE);
    EXPECT_EQ(stream.get_handle(false), ACE_INVALID_HANDLE);
    EXPECT_EQ(stream.close(), 0);
}

TEST(Pipe_Stream, set_handle_chooses_the_side)
{
    Pipe_Stream stream;
    stream.set_handle(100, true, false);
    stream.set_handle(101, false, false);
    EXPECT_EQ(stream.get_handle(true), 100);
    EXPECT_EQ(stream.get_handle(), 100) << "what an event loop watches";
    EXPECT_EQ(stream.get_handle(false), 101);
}

TEST(Pipe_Stream, close_closes_exactly_what_it_owns)
{
    for (const bool own_in : {false, true}) {
        for (const bool own_out : {false, true}) {
            SCOPED_TRACE(testing::Message() << own_in << own_out);
            Test_Pair in = pipe_pair();
            Test_Pair out = pipe_pair();
            Pipe_Stream stream(in.first.get(), own_in, out.second.get(), own_out);
            EXPECT_EQ(stream.close(), 0);
            EXPECT_EQ(is_open(in.first.get()), !own_in);
            EXPECT_EQ(is_open(out.second.get()), !own_out);
            EXPECT_EQ(stream.get_handle(true), ACE_INVALID_HANDLE);
            EXPECT_EQ(stream.get_handle(false), ACE_INVALID_HANDLE);
            EXPECT_EQ(stream.close(), 0) << "a second close does nothing";
            if (own_in) {
                in.first.release();
            }
            if (own_out) {
                out.second.release();
            }
        }
    }
}

TEST(Pipe_Stream, set_handle_takes_the_ownership_flag)
{
    Test_Pair pair = pipe_pair();
    Pipe_Stream stream;
    stream.set_handle(pair.first.get(), true, true);
    stream.set_handle(pair.second.get(), false, false);
    stream.close();
    EXPECT_FALSE(is_open(pair.first.release()));
    EXPECT_TRUE(is_open(pair.second.get()));
}

TEST(Pipe_Stream, a_replaced_descriptor_that_is_owned_is_closed)
{
    Test_Pair first = pipe_pair();
    Test_Pair second = pipe_pair();
    Pipe_Stream stream(first.first.get(), true, -1, false);
    stream.set_handle(second.first.get(), true, false);
    EXPECT_FALSE(is_open(first.first.release()));
    stream.close();
    EXPECT_TRUE(is_open(second.first.get()));
}

TEST(Pipe_Stream, one_descriptor_for_both_sides_is_closed_once)
{
    Test_Pair pair = unix_pair();
    Pipe_Stream stream(pair.first.get(), true, pair.first.get(), true);
    EXPECT_EQ(stream.close(), 0);
    EXPECT_FALSE(is_open(pair.first.release()));
}

TEST(Pipe_Stream, reads_and_writes)
{
    Test_Pair in = pipe_pair();
    Test_Pair out = pipe_pair();
    const Pipe_Stream stream(in.first.get(), false, out.second.get(), false);
    ASSERT_EQ(write(in.second.get(), "request", 7), 7);
    char buffer[64];
    EXPECT_EQ(stream.recv(buffer, sizeof buffer), 7);
    const iovec entries[2] = {{const_cast<char*>("res"), 3}, {const_cast<char*>("ponse"), 5}};
    EXPECT_EQ(stream.sendv(entries, 2), 8);
    EXPECT_EQ(stream.send("!", 1), 1);
    EXPECT_EQ(read_up_to(out.first.get(), 9), "response!");
    in.second.close();
    EXPECT_EQ(stream.recv(buffer, sizeof buffer), 0) << "end of input";
}

TEST(Pipe_Stream, recv_ends_with_ETIME_when_the_limit_has_passed)
{
    const Test_Pair in = pipe_pair();
    const Pipe_Stream stream(in.first.get(), false, -1, false);
    const ACE_Time_Value limit(0, 200'000);
    char buffer[64];
    const long took = milliseconds_of([&] {
        EXPECT_EQ(stream.recv(buffer, sizeof buffer, &limit), -1);
        EXPECT_EQ(errno, ETIME);
    });
    EXPECT_GE(took, 190);
}

TEST(Pipe_Stream, never_changes_the_blocking_mode)
{
    Test_Pair in = pipe_pair();
    Test_Pair out = pipe_pair();
    const Pipe_Stream stream(in.first.get(), false, out.second.get(), false);
    const std::string data = pattern(500'000);
    std::string received;
    std::thread reader([&] { received = read_up_to(out.first.get(), data.size()); });
    EXPECT_EQ(stream.send(data.data(), data.size()), static_cast<ssize_t>(data.size()));
    reader.join();
    EXPECT_TRUE(received == data);
    const ACE_Time_Value limit(0, 1000);
    char buffer[64];
    EXPECT_EQ(stream.recv(buffer, sizeof buffer, &limit), -1);
    EXPECT_EQ(fcntl(in.first.get(), F_GETFL) & O_NONBLOCK, 0);
    EXPECT_EQ(fcntl(out.second.get(), F_GETFL) & O_NONBLOCK, 0);
}

TEST(Pipe_Stream, has_no_addresses)
{
    const Pipe_Stream stream;
    ACE_INET_Addr address("1.2.3.4:5");
    EXPECT_EQ(stream.get_remote_addr(address), 0);
    EXPECT_TRUE(address == ACE_INET_Addr("1.2.3.4:5"));
    EXPECT_EQ(stream.get_local_addr(address), -1);
    EXPECT_EQ(errno, ENOTSOCK);
}

TEST(Pipe_Stream, a_stream_without_descriptors_fails_at_once)
{
    const Pipe_Stream stream;
    char byte = 0;
    EXPECT_EQ(stream.send(&byte, 1), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(stream.recv(&byte, 1), -1);
    EXPECT_EQ(errno, EBADF);
}
