#include "support/file_send.h"

#include "support/socket_helpers.h"
#include "tests/support/temp_dir.h"
#include "tests/support/test_sockets.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <future>
#include <thread>

namespace {

struct Kind {
    const char* name;
    Test_Pair (*make)();
};

/// The pairs are made so that `second` sends to `first`.
constexpr Kind KINDS[] = {
    {"tcp", [] { return tcp_pair(); }},
    {"unix", [] { return unix_pair(); }},
};

class File_Send : public testing::TestWithParam<Kind> {
protected:
    void SetUp() override
    {
        text_ = pattern(1'000'000);
        path_ = scratch_.write("file", text_);
        file_ = Test_Fd(::open(path_.c_str(), O_RDONLY | O_CLOEXEC));
        ASSERT_NE(file_.get(), -1);
        pair_ = GetParam().make();
        ASSERT_EQ(set_fd_nonblock(pair_.second.get(), true), 0);
    }

    int socket() const { return pair_.second.get(); }
    int reader() const { return pair_.first.get(); }

    /// Reads at the other end while `send` runs.
    template <typename Send>
    std::string received_during(size_t length, Send send)
    {
        auto text = std::async(std::launch::async,
                               [this, length] { return read_up_to(this->reader(), length); });
        send();
        return text.get();
    }

    void set_send_limit(int milliseconds) const
    {
        const timeval value{milliseconds / 1000, (milliseconds % 1000) * 1000};
        ASSERT_EQ(setsockopt(this->socket(), SOL_SOCKET, SO_SNDTIMEO, &value, sizeof value), 0);
    }

    Temp_Dir scratch_;
    std::string path_;
    std::string text_;
    Test_Fd file_;
    Test_Pair pair_;
};

bool is_sigpipe_blocked()
{
    sigset_t mask;
    pthread_sigmask(SIG_BLOCK, nullptr, &mask);
    return sigismember(&mask, SIGPIPE) == 1;
}

bool is_sigpipe_pending()
{
    sigset_t pending;
    sigpending(&pending);
    return sigismember(&pending, SIGPIPE) == 1;
}

} // namespace

INSTANTIATE_TEST_SUITE_P(Sockets, File_Send, testing::ValuesIn(KINDS),
                         [](const auto& row) { return std::string(row.param.name); });

TEST_P(File_Send, sends_a_part_more_than_the_socket_holds)
{
    const off_t before = ::lseek(file_.get(), 17, SEEK_SET);
    const std::string text = this->received_during(900'000, [this] {
        const File_Sent sent = ace_send_file(this->socket(), file_.get(), 5, 900'000);
        EXPECT_EQ(sent.outcome_, File_Sent::COMPLETE);
        EXPECT_EQ(sent.sent_, 900'000U);
    });
    EXPECT_TRUE(text == text_.substr(5, 900'000));
    EXPECT_EQ(::lseek(file_.get(), 0, SEEK_CUR), before);
}

TEST_P(File_Send, tells_where_the_file_has_ended)
{
    std::filesystem::resize_file(path_, 600'000);
    const std::string text = this->received_during(400'000, [this] {
        const File_Sent sent = ace_send_file(this->socket(), file_.get(), 200'000, 800'000);
        EXPECT_EQ(sent.outcome_, File_Sent::FILE_ENDED);
        EXPECT_EQ(sent.sent_, 400'000U);
    });
    EXPECT_TRUE(text == text_.substr(200'000, 400'000));
    const File_Sent sent = ace_send_file(this->socket(), file_.get(), 600'000, 1);
    EXPECT_EQ(sent.outcome_, File_Sent::FILE_ENDED);
    EXPECT_EQ(sent.sent_, 0U);
}

TEST_P(File_Send, gives_up_when_the_peer_reads_nothing_for_the_sockets_own_limit)
{
    this->set_send_limit(50);
    File_Sent sent{File_Sent::COMPLETE, 0};
    int error = 0;
    for (int i = 0; i < 100 && sent.outcome_ == File_Sent::COMPLETE; ++i) {
        sent = ace_send_file(this->socket(), file_.get(), 0, text_.size());
        error = errno;
    }
    EXPECT_EQ(sent.outcome_, File_Sent::SEND_FAILED);
    EXPECT_EQ(error, ETIME);
    EXPECT_LT(sent.sent_, text_.size());
}

TEST_P(File_Send, to_a_peer_that_is_gone_fails_without_SIGPIPE)
{
    pair_.first.close();
    for (const bool blocked : {false, true}) {
        SCOPED_TRACE(blocked);
        sigset_t sigpipe;
        sigset_t before;
        sigemptyset(&sigpipe);
        sigaddset(&sigpipe, SIGPIPE);
        pthread_sigmask(blocked ? SIG_BLOCK : SIG_UNBLOCK, &sigpipe, &before);
        File_Sent sent{File_Sent::COMPLETE, 0};
        for (int i = 0; i < 3; ++i) { // the first may be taken, or meet the reset
            sent = ace_send_file(this->socket(), file_.get(), 0, text_.size());
        }
        EXPECT_EQ(sent.outcome_, File_Sent::SEND_FAILED);
        EXPECT_EQ(errno, EPIPE);
        EXPECT_EQ(is_sigpipe_blocked(), blocked);
        EXPECT_FALSE(is_sigpipe_pending());
        pthread_sigmask(SIG_SETMASK, &before, nullptr);
    }
}

TEST_P(File_Send, goes_on_when_a_signal_comes_while_it_waits)
{
    struct sigaction action {};
    struct sigaction before {};
    action.sa_handler = [](int) {}; // without SA_RESTART
    sigaction(SIGUSR1, &action, &before);
    std::string text;
    std::thread sender([this] {
        const File_Sent sent = ace_send_file(this->socket(), file_.get(), 0, text_.size());
        EXPECT_EQ(sent.outcome_, File_Sent::COMPLETE);
    });
    for (size_t read = 0; read < text_.size(); read = text.size()) {
        pthread_kill(sender.native_handle(), SIGUSR1);
        const std::string piece = read_up_to(this->reader(), 10'000);
        ASSERT_FALSE(piece.empty());
        text += piece;
    }
    sender.join();
    sigaction(SIGUSR1, &before, nullptr);
    EXPECT_TRUE(text == text_);
}

TEST_P(File_Send, reads_what_the_system_cannot_send)
{
    const Test_Fd file(::open("/proc/version", O_RDONLY | O_CLOEXEC));
    char expected[10];
    ASSERT_EQ(::pread(file.get(), expected, sizeof expected, 3), 10);
    const File_Sent sent = ace_send_file(this->socket(), file.get(), 3, sizeof expected);
    EXPECT_EQ(sent.outcome_, File_Sent::COMPLETE);
    EXPECT_EQ(sent.sent_, sizeof expected);
    EXPECT_EQ(read_up_to(this->reader(), sizeof expected), std::string(expected, sizeof expected));
}

/// Files of a process, which has no more than their text: what the system refuses to send is read.
TEST_P(File_Send, reads_what_has_no_pages)
{
    const Test_Fd file(::open("/proc/self/auxv", O_RDONLY | O_CLOEXEC));
    char expected[4096];
    const ssize_t length = ::pread(file.get(), expected, sizeof expected, 0);
    ASSERT_GT(length, 100);
    const auto size = static_cast<size_t>(length);
    const File_Sent part = ace_send_file(this->socket(), file.get(), 3, size - 7);
    EXPECT_EQ(part.outcome_, File_Sent::COMPLETE);
    EXPECT_EQ(part.sent_, size - 7);
    EXPECT_EQ(read_up_to(this->reader(), size - 7), std::string(expected + 3, size - 7));

    const File_Sent more = ace_send_file(this->socket(), file.get(), 0, size + 1);
    EXPECT_EQ(more.outcome_, File_Sent::FILE_ENDED);
    EXPECT_EQ(more.sent_, size);
    EXPECT_EQ(read_up_to(this->reader(), size), std::string(expected, size));

    pair_.first = Test_Fd();
    ::shutdown(this->socket(), SHUT_WR);
    const File_Sent nothing = ace_send_file(this->socket(), file.get(), 0, size);
    EXPECT_EQ(nothing.outcome_, File_Sent::SEND_FAILED);
    EXPECT_EQ(errno, EPIPE);
}

TEST_P(File_Send, reports_what_cannot_be_read)
{
    const Test_Fd directory(::open("/", O_RDONLY | O_CLOEXEC));
    const File_Sent sent = ace_send_file(this->socket(), directory.get(), 0, 10);
    EXPECT_EQ(sent.outcome_, File_Sent::READ_FAILED);
    EXPECT_EQ(errno, EISDIR);
    EXPECT_EQ(sent.sent_, 0U);
}

TEST_P(File_Send, follows_what_was_sent_before_it)
{
    std::string head = "head";
    std::string more(10'000, 'm');
    for (const bool large : {false, true}) {
        SCOPED_TRACE(large);
        const iovec iov[] = {
            {head.data(), head.size()}, {nullptr, 0}, {more.data(), large ? more.size() : 3}};
        const size_t length = head.size() + iov[2].iov_len;
        const std::string text = this->received_during(length + 100, [&] {
            EXPECT_EQ(ace_sendv_more(this->socket(), iov, 3), static_cast<ssize_t>(length));
            EXPECT_EQ(ace_send_file(this->socket(), file_.get(), 0, 100).outcome_,
                      File_Sent::COMPLETE);
        });
        EXPECT_EQ(text, head + more.substr(0, iov[2].iov_len) + text_.substr(0, 100));
    }
    EXPECT_EQ(ace_sendv_more(this->socket(), nullptr, -1), -1);
    EXPECT_EQ(errno, EINVAL);
}
