#include "support/pipe_stream.h"

#include "tests/support/test_sockets.h"

#include <ace/INET_Addr.h>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <thread>
#include <vector>

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

TEST(Pipe_Stream, interrupt_wakes_a_thread_that_waits_for_a_pipe)
{
    const Test_Pair in = pipe_pair();
    const Test_Pair out = pipe_pair();
    Pipe_Stream stream(in.first.get(), false, out.second.get(), false);
    ASSERT_EQ(stream.make_interruptible(), 0);
    ssize_t received = -2;
    ssize_t sent = -2;
    int error = 0;
    std::thread waiting([&] {
        char buffer[64];
        received = stream.recv(buffer, sizeof buffer);
        const std::string data = pattern(1024 * 1024);
        sent = stream.send(data.data(), data.size());
        error = errno;
    });
    stream.interrupt();
    waiting.join();
    EXPECT_EQ(received, 0);
    EXPECT_EQ(sent, -1);
    EXPECT_EQ(error, ECANCELED);
}

TEST(Pipe_Stream, close_takes_an_interruption_back)
{
    Test_Pair in = pipe_pair();
    Pipe_Stream stream(in.first.get(), false, -1, false);
    ASSERT_EQ(stream.make_interruptible(), 0);
    ASSERT_EQ(stream.make_interruptible(), 0) << "and may be repeated";
    stream.interrupt();
    stream.close();
    stream.interrupt(); // nothing to wake any more
    stream.set_handle(in.first.get(), true, false);
    ASSERT_EQ(write(in.second.get(), "abc", 3), 3);
    char buffer[64];
    EXPECT_EQ(stream.recv(buffer, sizeof buffer), 3);
}

TEST(Pipe_Stream, knows_one_socket_for_both_sides_by_whatever_number)
{
    const Test_Pair pair = unix_pair();
    const Test_Pair other = unix_pair();
    const Test_Pair pipe = pipe_pair();
    const Test_Fd copy(fcntl(pair.first.get(), F_DUPFD_CLOEXEC, 0));
    EXPECT_TRUE(Pipe_Stream(pair.first.get(), false, pair.first.get(), false).is_one_socket());
    EXPECT_TRUE(Pipe_Stream(pair.first.get(), false, copy.get(), false).is_one_socket());
    EXPECT_FALSE(Pipe_Stream(pair.first.get(), false, other.first.get(), false).is_one_socket());
    EXPECT_FALSE(Pipe_Stream(pair.first.get(), false, pair.second.get(), false).is_one_socket());
    EXPECT_FALSE(Pipe_Stream(pipe.first.get(), false, pipe.first.get(), false).is_one_socket());
    EXPECT_FALSE(Pipe_Stream().is_one_socket());
}

TEST(Pipe_Stream, reads_and_writes_a_regular_file)
{
    char name[] = "/tmp/pipe_stream_XXXXXX";
    const Test_Fd file(mkstemp(name));
    unlink(name);
    const Pipe_Stream stream(file.get(), false, file.get(), false);
    const std::string data = pattern(300'000);
    std::vector<iovec> entries(2000, iovec{nullptr, 0}); // more than one call takes
    for (size_t i = 0; i < entries.size(); i += 2) {
        entries[i] = {const_cast<char*>(data.data()) + i / 2 * 300, 300};
    }
    EXPECT_EQ(stream.sendv(entries.data(), static_cast<int>(entries.size())),
              static_cast<ssize_t>(data.size()));
    EXPECT_EQ(stream.send("!", 1), 1);
    ASSERT_EQ(lseek(file.get(), 0, SEEK_SET), 0);
    std::string read(data.size() + 2, '\0');
    EXPECT_EQ(stream.recv(read.data(), read.size()), static_cast<ssize_t>(data.size() + 1));
    EXPECT_TRUE(read.substr(0, data.size() + 1) == data + "!");
    EXPECT_EQ(stream.recv(read.data(), read.size()), 0);
}

TEST(Pipe_Stream, a_file_that_takes_no_more_fails_the_send)
{
    const Test_Fd full(open("/dev/full", O_WRONLY | O_CLOEXEC));
    const Pipe_Stream device(-1, false, full.get(), false);
    EXPECT_EQ(device.send("x", 1), -1);
    EXPECT_EQ(errno, ENOSPC);

    // One that takes a part: the limit of a file's size, in the middle of an entry.
    char name[] = "/tmp/pipe_stream_XXXXXX";
    const Test_Fd file(mkstemp(name));
    unlink(name);
    rlimit limit{};
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &limit), 0);
    const rlimit tight{1000, limit.rlim_max};
    const auto old = signal(SIGXFSZ, SIG_IGN);
    const std::string data = pattern(1500);
    const iovec entries[2] = {{const_cast<char*>(data.data()), 700},
                              {const_cast<char*>(data.data()) + 700, 800}};
    const Pipe_Stream stream(-1, false, file.get(), false);
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &tight), 0);
    const ssize_t sent = stream.sendv(entries, 2);
    const int error = errno;
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
    signal(SIGXFSZ, old);
    EXPECT_EQ(sent, -1);
    EXPECT_EQ(error, EFBIG);
    std::string written(2000, '\0');
    EXPECT_EQ(pread(file.get(), written.data(), written.size(), 0), 1000);
    EXPECT_TRUE(written.substr(0, 1000) == data.substr(0, 1000));
}

TEST(Pipe_Stream, sends_on_a_socket_in_one_piece_and_raises_no_sigpipe)
{
    Test_Pair pair = tcp_pair();
    const Pipe_Stream stream(pair.first.get(), false, pair.first.get(), false);
    const std::string data = pattern(20'000);
    const iovec entries[2] = {{const_cast<char*>(data.data()), 10'000},
                              {const_cast<char*>(data.data()) + 10'000, 10'000}};
    EXPECT_EQ(stream.sendv(entries, 2), 20'000);
    EXPECT_TRUE(read_up_to(pair.second.get(), data.size()) == data);
    pair.second.close();
    const auto old = signal(SIGPIPE, SIG_DFL);
    ssize_t sent = 0;
    for (int i = 0; sent != -1 && i < 1000; ++i) {
        sent = stream.send(data.data(), data.size());
    }
    EXPECT_EQ(sent, -1);
    signal(SIGPIPE, old);
    EXPECT_EQ(fcntl(pair.first.get(), F_GETFL) & O_NONBLOCK, 0);
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
