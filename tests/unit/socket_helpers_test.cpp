#include "support/socket_helpers.h"

#include "tests/support/test_sockets.h"

#include <ace/SOCK_Stream.h>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <numeric>
#include <thread>
#include <vector>

namespace {

int int_option(int handle, int level, int option)
{
    int value = -1;
    socklen_t length = sizeof value;
    return getsockopt(handle, level, option, &value, &length) == 0 ? value : -1;
}

long time_option(int handle, int option)
{
    timeval value{-1, 0};
    socklen_t length = sizeof value;
    getsockopt(handle, SOL_SOCKET, option, &value, &length);
    return value.tv_sec;
}

void set_send_limit(int handle, int milliseconds)
{
    const timeval value{milliseconds / 1000, (milliseconds % 1000) * 1000};
    ASSERT_EQ(setsockopt(handle, SOL_SOCKET, SO_SNDTIMEO, &value, sizeof value), 0);
}

void fill(int handle)
{
    const std::string data(64 * 1024, 'x');
    while (send(handle, data.data(), data.size(), MSG_DONTWAIT) > 0) {
    }
}

/// Counts what SIGPIPE does to the process: nothing may arrive.
class Sigpipe_Counter {
public:
    Sigpipe_Counter()
    {
        count_ = 0;
        struct sigaction action {};
        action.sa_handler = [](int) { count_ = count_ + 1; };
        sigaction(SIGPIPE, &action, &old_);
    }
    ~Sigpipe_Counter() { sigaction(SIGPIPE, &old_, nullptr); }
    Sigpipe_Counter(const Sigpipe_Counter&) = delete;
    Sigpipe_Counter& operator=(const Sigpipe_Counter&) = delete;

    static int count() { return count_; }

private:
    static volatile sig_atomic_t count_;
    struct sigaction old_ {};
};

volatile sig_atomic_t Sigpipe_Counter::count_ = 0;

/// Entries of `length` bytes over one text; every seventh is empty and has no address.
std::vector<iovec> make_entries(std::string& text, size_t count, size_t length)
{
    std::vector<iovec> entries;
    text.clear();
    for (size_t i = 0; i < count; ++i) {
        text += i % 7 == 3
                    ? ""
                    : std::to_string(i) + std::string(length, 'a' + static_cast<char>(i % 26));
    }
    size_t at = 0;
    for (size_t i = 0; i < count; ++i) {
        const size_t size = i % 7 == 3 ? 0 : std::to_string(i).size() + length;
        entries.push_back({size == 0 ? nullptr : text.data() + at, size});
        at += size;
    }
    return entries;
}

struct Kind {
    const char* name;
    Test_Pair (*make)();
};

/// The pairs are made so that `second` sends to `first`.
const Kind KINDS[] = {
    {"tcp", [] { return tcp_pair(8192); }},
    {"unix", [] { return unix_pair(); }},
    {"pipe", [] { return pipe_pair(); }},
};

} // namespace

TEST(Socket_Helpers, nodelay_is_switched)
{
    const Test_Pair pair = tcp_pair();
    ACE_SOCK_Stream stream(pair.first.get());
    EXPECT_EQ(set_sock_nodelay(stream, true), 0);
    EXPECT_NE(int_option(pair.first.get(), IPPROTO_TCP, TCP_NODELAY), 0);
    EXPECT_EQ(set_sock_nodelay(stream, false), 0);
    EXPECT_EQ(int_option(pair.first.get(), IPPROTO_TCP, TCP_NODELAY), 0);
}

TEST(Socket_Helpers, nodelay_has_no_meaning_for_a_unix_socket)
{
    const Test_Pair pair = unix_pair();
    EXPECT_EQ(set_sock_nodelay(ACE_SOCK_Stream(pair.first.get()), true), 0);
}

TEST(Socket_Helpers, options_of_no_socket_fail)
{
    const Test_Pair pair = pipe_pair();
    const ACE_SOCK_Stream stream(pair.first.get());
    EXPECT_EQ(set_sock_nodelay(stream, true), -1);
    EXPECT_EQ(errno, ENOTSOCK);
    EXPECT_EQ(set_sock_keepalive(stream, 60), -1);
    EXPECT_EQ(set_sock_timeout(stream, 1, 1), -1);
}

TEST(Socket_Helpers, keepalive_is_switched_on_with_its_time)
{
    const Test_Pair pair = tcp_pair();
    EXPECT_EQ(set_sock_keepalive(ACE_SOCK_Stream(pair.first.get()), 60), 0);
    EXPECT_EQ(int_option(pair.first.get(), SOL_SOCKET, SO_KEEPALIVE), 1);
    EXPECT_EQ(int_option(pair.first.get(), IPPROTO_TCP, TCP_KEEPIDLE), 60);
}

TEST(Socket_Helpers, keepalive_is_refused_for_a_unix_socket_and_changes_nothing)
{
    const Test_Pair pair = unix_pair();
    EXPECT_EQ(set_sock_keepalive(ACE_SOCK_Stream(pair.first.get()), 60), -1);
    EXPECT_EQ(int_option(pair.first.get(), SOL_SOCKET, SO_KEEPALIVE), 0);
}

TEST(Socket_Helpers, timeouts_are_whole_seconds_and_zero_changes_nothing)
{
    const Test_Pair pair = tcp_pair();
    const ACE_SOCK_Stream stream(pair.first.get());
    EXPECT_EQ(set_sock_timeout(stream, 10, 20), 0);
    EXPECT_EQ(set_sock_timeout(stream, 0, 0), 0);
    EXPECT_EQ(time_option(pair.first.get(), SO_SNDTIMEO), 10);
    EXPECT_EQ(time_option(pair.first.get(), SO_RCVTIMEO), 20);
    EXPECT_EQ(set_sock_timeout(stream, -1, 5), 0);
    EXPECT_EQ(time_option(pair.first.get(), SO_SNDTIMEO), 10);
    EXPECT_EQ(time_option(pair.first.get(), SO_RCVTIMEO), 5);
}

TEST(Socket_Helpers, cloexec_is_set_and_a_bad_descriptor_fails)
{
    int handles[2];
    ASSERT_EQ(pipe(handles), 0);
    const Test_Fd first(handles[0]);
    const Test_Fd second(handles[1]);
    EXPECT_EQ(enable_fd_cloexec(first.get()), 0);
    EXPECT_EQ(fcntl(first.get(), F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(enable_fd_cloexec(first.get()), 0);
    EXPECT_EQ(enable_fd_cloexec(-1), -1);
    EXPECT_EQ(errno, EBADF);
}

TEST(Socket_Helpers, nonblock_is_switched)
{
    const Test_Pair pair = pipe_pair();
    EXPECT_EQ(set_fd_nonblock(pair.first.get(), true), 0);
    EXPECT_NE(fcntl(pair.first.get(), F_GETFL) & O_NONBLOCK, 0);
    EXPECT_EQ(set_fd_nonblock(pair.first.get(), true), 0);
    EXPECT_EQ(set_fd_nonblock(pair.first.get(), false), 0);
    EXPECT_EQ(fcntl(pair.first.get(), F_GETFL) & O_NONBLOCK, 0);
    EXPECT_EQ(set_fd_nonblock(-1, true), -1);
    EXPECT_EQ(errno, EBADF);
}

TEST(Socket_Helpers, send_limit_is_the_sockets_own_or_the_default)
{
    const Test_Pair pair = tcp_pair();
    EXPECT_EQ(send_limit_ms(pair.first.get()), DEFAULT_SEND_LIMIT * 1000);
    set_send_limit(pair.first.get(), 1500);
    EXPECT_EQ(send_limit_ms(pair.first.get()), 1500);
    const Test_Pair pipe = pipe_pair();
    errno = EAGAIN;
    EXPECT_EQ(send_limit_ms(pipe.first.get()), DEFAULT_SEND_LIMIT * 1000);
    EXPECT_EQ(errno, EAGAIN) << "keeps errno";
}

TEST(Socket_Helpers, room_is_gone_when_the_peer_does_not_read_and_back_when_it_has_read)
{
    for (const bool tcp : {true, false}) {
        SCOPED_TRACE(tcp);
        const Test_Pair pair = tcp ? tcp_pair(8192) : unix_pair();
        const int handle = pair.second.get();
        EXPECT_TRUE(socket_has_room(handle));
        EXPECT_EQ(unsent_bytes(handle), 0);
        fill(handle);
        EXPECT_FALSE(socket_has_room(handle));
        const int unsent = unsent_bytes(handle);
        EXPECT_GT(unsent, 0);
        std::vector<char> buffer(64 * 1024);
        while (!socket_has_room(handle)) {
            ASSERT_GT(recv(pair.first.get(), buffer.data(), buffer.size(), 0), 0);
        }
        EXPECT_LT(unsent_bytes(handle), unsent);
    }
}

TEST(Socket_Helpers, a_send_buffer_is_widened_and_never_narrowed)
{
    constexpr int SMALL = 8 * 1024;
    constexpr int WANTED = 64 * 1024;
    for (const bool tcp : {true, false}) {
        SCOPED_TRACE(tcp);
        const Test_Pair pair = tcp ? tcp_pair() : unix_pair();
        const int handle = pair.second.get();
        ASSERT_EQ(setsockopt(handle, SOL_SOCKET, SO_SNDBUF, &SMALL, sizeof SMALL), 0);
        widen_send_buffer(handle, WANTED);
        const int wide = int_option(handle, SOL_SOCKET, SO_SNDBUF);
        EXPECT_GE(wide, 2 * WANTED);
        widen_send_buffer(handle, SMALL);
        EXPECT_EQ(int_option(handle, SOL_SOCKET, SO_SNDBUF), wide);
    }
    widen_send_buffer(-1, WANTED);
}

TEST(Socket_Helpers, a_widened_send_buffer_still_grows_by_itself)
{
    constexpr int WANTED = 256 * 1024;
    const Test_Pair pair = tcp_pair();
    const int handle = pair.second.get();
    widen_send_buffer(handle, WANTED);
    EXPECT_EQ(int_option(handle, SOL_SOCKET, SO_BUF_LOCK), 0);
    const Test_Pair fixed = tcp_pair(WANTED / 8); // by setting it
    const int locks = int_option(fixed.second.get(), SOL_SOCKET, SO_BUF_LOCK);
    EXPECT_NE(locks, 0);
    widen_send_buffer(fixed.second.get(), WANTED);
    EXPECT_EQ(int_option(fixed.second.get(), SOL_SOCKET, SO_BUF_LOCK), locks);
}

TEST(Socket_Helpers, a_socket_that_has_failed_has_room_for_a_send_that_tells_so)
{
    Test_Pair pair = unix_pair();
    fill(pair.second.get());
    pair.first.close();
    EXPECT_TRUE(socket_has_room(pair.second.get()));
    EXPECT_TRUE(socket_has_room(-1));
    EXPECT_EQ(unsent_bytes(-1), 0);
}

TEST(Ace_Send, sends_everything_to_a_slow_reader)
{
    const std::string data = pattern(3 * 1024 * 1024 + 17);
    for (const Kind& kind : KINDS) {
        for (const bool nonblocking : {false, true}) {
            SCOPED_TRACE(testing::Message() << kind.name << ", non-blocking " << nonblocking);
            Test_Pair pair = kind.make();
            ASSERT_EQ(set_fd_nonblock(pair.second.get(), nonblocking), 0);
            std::string received;
            std::thread reader([&] { received = read_up_to(pair.first.get(), data.size()); });
            EXPECT_EQ(ace_send(pair.second.get(), data.data(), data.size()),
                      static_cast<ssize_t>(data.size()));
            reader.join();
            EXPECT_TRUE(received == data);
        }
    }
}

TEST(Ace_Send, nothing_to_send_is_no_failure)
{
    const Test_Pair pair = tcp_pair();
    EXPECT_EQ(ace_send(pair.first.get(), nullptr, 0), 0);
    EXPECT_EQ(ace_sendv(pair.first.get(), nullptr, 0), 0);
    const iovec empty[2] = {};
    EXPECT_EQ(ace_sendv(pair.first.get(), empty, 2), 0);
}

TEST(Ace_Send, gives_up_with_ETIME_on_a_peer_that_does_not_read)
{
    const std::string data(1024 * 1024, 'x');
    const iovec entry{const_cast<char*>(data.data()), data.size()};
    for (const bool nonblocking : {false, true}) {
        for (const bool gathered : {false, true}) {
            SCOPED_TRACE(testing::Message() << nonblocking << gathered);
            const Test_Pair pair = tcp_pair(8192);
            set_send_limit(pair.second.get(), 1000);
            ASSERT_EQ(set_fd_nonblock(pair.second.get(), nonblocking), 0);
            fill(pair.second.get());
            ssize_t result = 0;
            int error = 0;
            const long took = milliseconds_of([&] {
                result = gathered ? ace_sendv(pair.second.get(), &entry, 1)
                                  : ace_send(pair.second.get(), data.data(), data.size());
                error = errno;
            });
            EXPECT_EQ(result, -1);
            EXPECT_EQ(error, ETIME);
            EXPECT_GE(took, 900);
            EXPECT_LT(took, 5000);
        }
    }
}

TEST(Ace_Send, counts_the_limit_from_the_last_progress)
{
    // Each piece that the reader takes comes within the limit, all of them together do not.
    const std::string data = pattern(600 * 1024);
    Test_Pair pair = tcp_pair(8192);
    set_send_limit(pair.second.get(), 500);
    std::string received;
    std::thread reader([&] {
        while (received.size() < data.size()) {
            // Waiting for bytes that do not come is how this reader is slow.
            pollfd never{-1, 0, 0};
            poll(&never, 1, 100);
            const std::string piece = read_up_to(pair.first.get(), 60 * 1024);
            if (piece.empty()) {
                break;
            }
            received += piece;
        }
    });
    ssize_t result = 0;
    const long took =
        milliseconds_of([&] { result = ace_send(pair.second.get(), data.data(), data.size()); });
    pair.second.close();
    reader.join();
    EXPECT_EQ(result, static_cast<ssize_t>(data.size()));
    EXPECT_TRUE(received == data);
    EXPECT_GT(took, 600);
}

TEST(Ace_Send, never_raises_SIGPIPE)
{
    const std::string data(100, 'x');
    const iovec entry{const_cast<char*>(data.data()), data.size()};
    const Sigpipe_Counter counter;
    for (const Kind& kind : KINDS) {
        SCOPED_TRACE(kind.name);
        Test_Pair pair = kind.make();
        pair.first.close();
        // The first send to a closed TCP peer may still be taken.
        for (int i = 0; i < 3; ++i) {
            ace_send(pair.second.get(), data.data(), data.size());
            const ssize_t result = ace_sendv(pair.second.get(), &entry, 1);
            const int error = errno;
            if (i == 2) {
                EXPECT_EQ(result, -1);
                EXPECT_TRUE(error == EPIPE || error == ECONNRESET) << error;
            }
        }
    }
    EXPECT_EQ(Sigpipe_Counter::count(), 0);
}

TEST(Ace_Send, a_SIGPIPE_that_was_pending_before_stays_pending)
{
    sigset_t sigpipe;
    sigset_t old;
    sigemptyset(&sigpipe);
    sigaddset(&sigpipe, SIGPIPE);
    ASSERT_EQ(pthread_sigmask(SIG_BLOCK, &sigpipe, &old), 0);
    pthread_kill(pthread_self(), SIGPIPE);

    Test_Pair pair = pipe_pair();
    pair.first.close();
    EXPECT_EQ(ace_send(pair.second.get(), "x", 1), -1);
    EXPECT_EQ(errno, EPIPE);

    const timespec at_once{0, 0};
    EXPECT_EQ(sigtimedwait(&sigpipe, nullptr, &at_once), SIGPIPE);
    EXPECT_EQ(sigtimedwait(&sigpipe, nullptr, &at_once), -1) << "but only one";
    pthread_sigmask(SIG_SETMASK, &old, nullptr);
}

TEST(Ace_Send, a_bad_descriptor_fails)
{
    EXPECT_EQ(ace_send(-1, "x", 1), -1);
    EXPECT_EQ(errno, EBADF);
}

TEST(Ace_Sendv, takes_any_number_of_entries)
{
    for (const Kind& kind : KINDS) {
        for (const size_t count : {size_t{1}, size_t{2}, size_t{1023}, size_t{1024}, size_t{1025},
                                   size_t{2049}, size_t{5000}}) {
            for (const size_t length : {size_t{0}, size_t{3}, size_t{600}}) {
                SCOPED_TRACE(testing::Message() << kind.name << ", " << count << " of " << length);
                std::string text;
                std::vector<iovec> entries = make_entries(text, count, length);
                const std::vector<iovec> before = entries;
                Test_Pair pair = kind.make();
                std::string received;
                std::thread reader(
                    [&] { received = read_up_to(pair.first.get(), text.size() + 1); });
                EXPECT_EQ(ace_sendv(pair.second.get(), entries.data(), static_cast<int>(count)),
                          static_cast<ssize_t>(text.size()));
                pair.second.close();
                reader.join();
                EXPECT_TRUE(received == text);
                EXPECT_EQ(memcmp(before.data(), entries.data(), count * sizeof(iovec)), 0)
                    << "the caller's vector is left alone";
            }
        }
    }
}

TEST(Ace_Sendv, refuses_a_negative_count_and_a_sum_that_overflows)
{
    const Test_Pair pair = tcp_pair();
    char byte = 'x';
    const iovec entries[2] = {{&byte, SIZE_MAX / 2}, {&byte, SIZE_MAX / 2}};
    EXPECT_EQ(ace_sendv(pair.first.get(), entries, 2), -1);
    EXPECT_EQ(errno, EINVAL);
    for (const iovec* const none : {&entries[0], static_cast<const iovec*>(nullptr)}) {
        EXPECT_EQ(ace_sendv(pair.first.get(), none, -1), -1);
        EXPECT_EQ(errno, EINVAL);
        EXPECT_EQ(ace_sendv_now(pair.first.get(), none, -1), -1);
        EXPECT_EQ(errno, EINVAL);
    }
}

TEST(Ace_Sendv, goes_on_after_a_signal)
{
    struct sigaction action {};
    struct sigaction old {};
    action.sa_handler = [](int) {}; // without SA_RESTART: system calls end with EINTR
    ASSERT_EQ(sigaction(SIGUSR1, &action, &old), 0);

    std::string text;
    std::vector<iovec> entries = make_entries(text, 3000, 300);
    for (const Kind& kind : KINDS) {
        SCOPED_TRACE(kind.name);
        Test_Pair pair = kind.make();
        ssize_t result = 0;
        std::thread sender([&] {
            result = ace_sendv(pair.second.get(), entries.data(), static_cast<int>(entries.size()));
            pair.second.close();
        });
        std::string received;
        while (received.size() < text.size()) {
            pthread_kill(sender.native_handle(), SIGUSR1);
            const std::string piece = read_up_to(pair.first.get(), 40'000);
            if (piece.empty()) {
                break;
            }
            received += piece;
        }
        sender.join();
        EXPECT_EQ(result, static_cast<ssize_t>(text.size()));
        EXPECT_TRUE(received == text);
    }
    sigaction(SIGUSR1, &old, nullptr);
}
