#include "httpd/http_io_ostreambuf.h"

#include "tests/support/fake_http_io.h"
#include "tests/support/log_capture.h"
#include "tests/support/sanitized.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <deque>
#include <limits>
#include <ostream>
#include <string>
#include <vector>

namespace {

constexpr int END_OF_FILE = std::char_traits<char>::eof();

/// A fresh GET. Keeps each piece, also those that a test has refused in `results_`.
class Scripted_HTTP_IO : public Fake_HTTP_IO {
public:
    struct Send {
        std::string data;
        bool last;
    };

    Scripted_HTTP_IO() { begin("GET", "/"); }

    int send(const void* data, size_t length, bool last) override
    {
        sends_.push_back(
            {length > 0 ? std::string(static_cast<const char*>(data), length) : "", last});
        if (results_.empty()) {
            return Fake_HTTP_IO::send(data, length, last);
        }
        const int result = results_.front();
        results_.pop_front();
        return result;
    }

    std::deque<int> results_; ///< of the next sends; behind them the engine's rules
    std::vector<Send> sends_;
};

/// Opens the protected operations to the tests.
class Buffer : public HTTP_IO_ostreambuf {
public:
    using HTTP_IO_ostreambuf::buf_;
    using HTTP_IO_ostreambuf::HTTP_IO_ostreambuf;
    using HTTP_IO_ostreambuf::overflow;
    using HTTP_IO_ostreambuf::size_;
    using HTTP_IO_ostreambuf::sync;

    ptrdiff_t collected() const { return pptr() - pbase(); }
    ptrdiff_t capacity() const { return epptr() - pbase(); }
};

void expect_send(const Scripted_HTTP_IO::Send& seen, const std::string& data, bool last)
{
    EXPECT_EQ(seen.data, data);
    EXPECT_EQ(seen.last, last);
}

TEST(HTTP_IO_ostreambuf, sends_what_was_written_as_the_last_piece_at_its_end)
{
    Scripted_HTTP_IO io;
    {
        HTTP_IO_ostreambuf buffer(io, 64);
        std::ostream out(&buffer);
        out << "answer " << 42;
        EXPECT_TRUE(out.good());
        EXPECT_TRUE(io.sends_.empty());
    }
    ASSERT_EQ(io.sends_.size(), 1U);
    expect_send(io.sends_[0], "answer 42", true);
    EXPECT_EQ(io.response_state(), HTTP_SOCK_STATE_CONTENT_SENT);
}

TEST(HTTP_IO_ostreambuf, sends_one_empty_last_piece_when_nothing_was_written)
{
    Scripted_HTTP_IO io;
    {
        const HTTP_IO_ostreambuf buffer(io, 64);
    }
    ASSERT_EQ(io.sends_.size(), 1U);
    expect_send(io.sends_[0], "", true);
}

TEST(HTTP_IO_ostreambuf, sends_an_empty_last_piece_behind_a_flush)
{
    Scripted_HTTP_IO io;
    {
        HTTP_IO_ostreambuf buffer(io, 64);
        std::ostream out(&buffer);
        out << "body" << std::flush;
        ASSERT_EQ(io.sends_.size(), 1U);
        expect_send(io.sends_[0], "body", false);
    }
    ASSERT_EQ(io.sends_.size(), 2U);
    expect_send(io.sends_[1], "", true);
}

TEST(HTTP_IO_ostreambuf, sends_a_further_piece_although_the_response_was_completed_meanwhile)
{
    Scripted_HTTP_IO io;
    {
        const HTTP_IO_ostreambuf buffer(io, 64);
        io.send_error(404, nullptr, 0);
        EXPECT_EQ(io.response_state(), HTTP_SOCK_STATE_CONTENT_SENT);
    }
    ASSERT_EQ(io.sends_.size(), 2U);
    expect_send(io.sends_[1], "", true);
}

TEST(HTTP_IO_ostreambuf, keeps_exactly_its_size_until_one_more_byte)
{
    Scripted_HTTP_IO io;
    Buffer buffer(io, 4);
    std::ostream out(&buffer);
    out << "four";
    EXPECT_TRUE(io.sends_.empty());
    EXPECT_EQ(buffer.collected(), 4);
    out << 's';
    ASSERT_EQ(io.sends_.size(), 1U);
    expect_send(io.sends_[0], "four", false);
    EXPECT_EQ(buffer.collected(), 1);
}

TEST(HTTP_IO_ostreambuf, every_size_gives_the_same_bytes)
{
    const std::string text = "the quick brown fox jumps over the lazy dog";
    for (size_t size = 1; size <= text.size() + 1; ++size) {
        SCOPED_TRACE(size);
        Scripted_HTTP_IO io;
        {
            HTTP_IO_ostreambuf buffer(io, size);
            std::ostream out(&buffer);
            out << text;
        }
        EXPECT_EQ(io.body(), text);
        EXPECT_EQ(io.sends_.size(), (text.size() + size - 1) / size);
        EXPECT_TRUE(io.sends_.back().last);
    }
}

TEST(HTTP_IO_ostreambuf, overflow_stores_the_byte_and_returns_it)
{
    Scripted_HTTP_IO io;
    Buffer buffer(io, 2);
    EXPECT_EQ(buffer.overflow('a'), 'a');
    EXPECT_EQ(buffer.overflow(0xFF), 0xFF);
    EXPECT_EQ(buffer.collected(), 2);
    EXPECT_TRUE(io.sends_.empty());
    EXPECT_EQ(buffer.overflow('c'), 'c');
    ASSERT_EQ(io.sends_.size(), 1U);
    expect_send(io.sends_[0], "a\xff", false);
    EXPECT_EQ(buffer.collected(), 1);
}

TEST(HTTP_IO_ostreambuf, overflow_of_end_of_file_flushes_a_full_buffer_and_returns_end_of_file)
{
    Scripted_HTTP_IO io;
    Buffer buffer(io, 2);
    buffer.sputn("ab", 2);
    EXPECT_EQ(buffer.overflow(END_OF_FILE), END_OF_FILE);
    ASSERT_EQ(io.sends_.size(), 1U);
    expect_send(io.sends_[0], "ab", false);
    EXPECT_EQ(buffer.collected(), 0);
}

TEST(HTTP_IO_ostreambuf, overflow_of_end_of_file_leaves_a_buffer_with_room_alone)
{
    Scripted_HTTP_IO io;
    Buffer buffer(io, 2);
    buffer.sputc('a');
    EXPECT_EQ(buffer.overflow(END_OF_FILE), END_OF_FILE);
    EXPECT_TRUE(io.sends_.empty());
    EXPECT_EQ(buffer.collected(), 1);
}

TEST(HTTP_IO_ostreambuf, sync_tells_how_much_was_sent)
{
    Scripted_HTTP_IO io;
    Buffer buffer(io, 8);
    EXPECT_EQ(buffer.sync(false), 0);
    EXPECT_TRUE(io.sends_.empty());
    buffer.sputn("abc", 3);
    EXPECT_EQ(buffer.sync(false), 3);
    EXPECT_EQ(buffer.sync(), 0);
    buffer.sputn("de", 2);
    EXPECT_EQ(buffer.sync(), 0);
    EXPECT_EQ(io.body(), "abcde");
    EXPECT_EQ(buffer.collected(), 0);
}

TEST(HTTP_IO_ostreambuf, sync_of_the_last_piece_returns_what_an_empty_send_returned)
{
    Scripted_HTTP_IO io;
    Buffer buffer(io, 8);
    io.results_ = {-1, 0};
    EXPECT_EQ(buffer.sync(true), -1);
    EXPECT_EQ(buffer.sync(true), 0);
    ASSERT_EQ(io.sends_.size(), 2U);
    expect_send(io.sends_[0], "", true);
    expect_send(io.sends_[1], "", true);
}

TEST(HTTP_IO_ostreambuf, a_failing_send_leaves_the_bytes_and_makes_the_stream_bad)
{
    Scripted_HTTP_IO io;
    io.results_ = {-1, -1, 0};
    Buffer buffer(io, 4);
    std::ostream out(&buffer);
    out << "four" << 's';
    EXPECT_TRUE(out.bad());
    EXPECT_EQ(buffer.collected(), 4);
    EXPECT_EQ(buffer.overflow('s'), END_OF_FILE);
    EXPECT_EQ(buffer.collected(), 4);
    EXPECT_EQ(buffer.sync(), 0);
    EXPECT_EQ(buffer.collected(), 0);
    for (const Scripted_HTTP_IO::Send& piece : io.sends_) {
        EXPECT_EQ(piece.data, "four");
    }
    EXPECT_EQ(io.sends_.size(), 3U);
}

TEST(HTTP_IO_ostreambuf, a_failing_flush_makes_sync_fail)
{
    Scripted_HTTP_IO io;
    io.results_ = {-1};
    Buffer buffer(io, 4);
    buffer.sputc('x');
    EXPECT_EQ(buffer.sync(), -1);
    EXPECT_EQ(buffer.collected(), 1);
}

TEST(HTTP_IO_ostreambuf, size_0_is_logged_and_every_write_fails)
{
    const Log_Capture log;
    Scripted_HTTP_IO io;
    {
        Buffer buffer(io, 0);
        ASSERT_EQ(log.texts(LM_EMERGENCY).size(), 1U);
        const std::string line = log.texts(LM_EMERGENCY).front();
        EXPECT_EQ(line.rfind("Unexpected error in httpd/http_io_ostreambuf.cpp:", 0), 0U) << line;
        EXPECT_NE(line.find(", size_(0) <= 0(0):\n"), std::string::npos) << line;
        EXPECT_EQ(buffer.buf_, nullptr);
        EXPECT_EQ(buffer.size_, 0U);
        std::ostream out(&buffer);
        out << 'x';
        EXPECT_TRUE(out.bad());
        EXPECT_EQ(buffer.overflow('x'), END_OF_FILE);
        EXPECT_EQ(buffer.overflow(END_OF_FILE), END_OF_FILE);
        EXPECT_EQ(buffer.sync(), 0);
        EXPECT_TRUE(io.sends_.empty());
    }
    ASSERT_EQ(io.sends_.size(), 1U);
    expect_send(io.sends_[0], "", true);
}

TEST(HTTP_IO_ostreambuf, an_allocation_that_fails_is_logged_and_every_write_fails)
{
#if defined(HTTPD_TEST_SANITIZED)
    GTEST_SKIP() << "the sanitizer ends the process at such an allocation";
#endif
    const Log_Capture log;
    Scripted_HTTP_IO io;
    {
        errno = 0;
        Buffer buffer(io, std::numeric_limits<size_t>::max() / 4);
        EXPECT_EQ(errno, ENOMEM);
        ASSERT_EQ(log.texts(LM_EMERGENCY).size(), 1U);
        const std::string line = log.texts(LM_EMERGENCY).front();
        EXPECT_EQ(line.rfind("Unexpected error in httpd/http_io_ostreambuf.cpp:", 0), 0U) << line;
        EXPECT_NE(line.find(", buf_ is NULL:\n"), std::string::npos) << line;
        EXPECT_EQ(buffer.capacity(), 0);
        EXPECT_EQ(buffer.sputc('x'), END_OF_FILE);
    }
    ASSERT_EQ(io.sends_.size(), 1U);
    expect_send(io.sends_[0], "", true);
}

} // namespace
