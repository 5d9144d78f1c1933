#include "httpd/detail/outbox_backlog.h"

#include "tests/support/fake_loop_io.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <memory>
#include <string>
#include <vector>

namespace {

using Posted = Outbox_Backlog::Posted;

Posted posted(const std::string& text, bool binary = false)
{
    return {std::make_shared<const std::string>(text), binary};
}

std::vector<Posted> posted_lengths(const std::vector<size_t>& lengths)
{
    std::vector<Posted> messages;
    for (const size_t length : lengths) {
        const char letter = static_cast<char>('a' + messages.size() % 26);
        messages.push_back(posted(std::string(length, letter), messages.size() % 2 == 1));
    }
    return messages;
}

/// The frame of RFC 6455, section 5.2.
std::string frame(const Posted& message)
{
    const size_t length = message.message_->size();
    std::string bytes = message.binary_ ? "\x82" : "\x81";
    if (length <= 125) {
        bytes += static_cast<char>(length);
    } else {
        const int count = length <= 0xFFFF ? 2 : 8;
        bytes += static_cast<char>(count == 2 ? 126 : 127);
        for (int shift = 8 * (count - 1); shift >= 0; shift -= 8) {
            bytes += static_cast<char>(length >> shift);
        }
    }
    return bytes + *message.message_;
}

std::string frames(const std::vector<Posted>& messages)
{
    std::string bytes;
    for (const Posted& message : messages) {
        bytes += frame(message);
    }
    return bytes;
}

bool append(Outbox_Backlog& backlog, const std::string& bytes, size_t limit = 1000)
{
    const iovec entry{const_cast<char*>(bytes.data()), bytes.size()};
    return backlog.append(&entry, 1, 0, limit);
}

/// Sends all that is there, the room growing by `step` each time it is used up.
void send_all(Outbox_Backlog& backlog, Fake_Loop_IO& io, size_t step)
{
    for (;;) {
        io.room_ += step;
        const Outbox_Backlog::Result result = backlog.finish(io);
        ASSERT_NE(Outbox_Backlog::FAILED, result);
        if (result == Outbox_Backlog::SENT && !backlog.begin_batch()) {
            return;
        }
    }
}

} // namespace

TEST(Outbox_Backlog, sends_the_same_bytes_however_small_the_room_is)
{
    const std::vector<std::vector<size_t>> rows = {
        {0},
        {1, 2, 3},
        {125, 126, 127},
        {0, 0, 5, 0},
        {200, 65535, 65536, 7},
        std::vector<size_t>(100, 9),
    };
    for (const std::vector<size_t>& row : rows) {
        for (const size_t step : {1U, 2U, 3U, 7U, 130U, 4096U, 1'000'000U}) {
            if (row.back() == 7 && step < 100) {
                continue; // a hundred thousand steps show nothing that the shorter ones do not
            }
            SCOPED_TRACE(testing::Message() << "last " << row.back() << ", step " << step);
            Outbox_Backlog backlog;
            Fake_Loop_IO io(nullptr);
            io.room_ = 0;
            std::vector<Posted> messages = posted_lengths(row);
            const std::string expected = frames(messages);
            size_t cost = 0;
            for (const Posted& message : messages) {
                cost += Outbox_Backlog::cost(message);
            }
            backlog.take(messages);
            EXPECT_TRUE(messages.empty());
            send_all(backlog, io, step);
            EXPECT_TRUE(expected == io.sent_);
            EXPECT_FALSE(backlog.begun());
            EXPECT_EQ(cost, backlog.take_released());
            EXPECT_EQ(0U, backlog.take_released());
            EXPECT_EQ(expected.size(), backlog.taken());
        }
    }
}

TEST(Outbox_Backlog, small_messages_leave_together)
{
    Outbox_Backlog backlog;
    Fake_Loop_IO io(nullptr);
    std::vector<Posted> messages = posted_lengths(std::vector<size_t>(32, 10));
    backlog.take(messages);
    while (backlog.begin_batch()) {
        EXPECT_EQ(Outbox_Backlog::SENT, backlog.finish(io));
    }
    EXPECT_EQ(2, io.calls_);
}

TEST(Outbox_Backlog, other_bytes_follow_what_was_begun_and_nothing_more)
{
    for (const size_t step : {1U, 5U, 1000U}) {
        Outbox_Backlog backlog;
        Fake_Loop_IO io(nullptr);
        io.room_ = 3;
        std::vector<Posted> messages = posted_lengths(std::vector<size_t>(20, 4));
        const std::string expected = frames({messages.begin(), messages.begin() + 16}) + "control" +
                                     frames({messages.begin() + 16, messages.end()});
        backlog.take(messages);
        ASSERT_TRUE(backlog.begin_batch());
        EXPECT_EQ(Outbox_Backlog::FULL, backlog.finish(io));
        EXPECT_TRUE(backlog.begun());
        EXPECT_TRUE(append(backlog, "cont"));
        EXPECT_TRUE(append(backlog, "rol"));
        send_all(backlog, io, step);
        EXPECT_EQ(expected, io.sent_);
    }
}

TEST(Outbox_Backlog, a_vector_is_kept_from_a_byte_on)
{
    Outbox_Backlog backlog;
    Fake_Loop_IO io(nullptr);
    std::string pieces[] = {"ab", "", "cde", "f"};
    iovec iov[4];
    for (int i = 0; i < 4; ++i) {
        iov[i] = {pieces[i].data(), pieces[i].size()};
    }
    EXPECT_TRUE(backlog.append(iov, 4, 3, 1000));
    EXPECT_TRUE(backlog.begun());
    EXPECT_EQ(Outbox_Backlog::SENT, backlog.finish(io));
    EXPECT_EQ("def", io.sent_);
}

TEST(Outbox_Backlog, keeps_no_more_other_bytes_than_the_limit)
{
    Outbox_Backlog backlog;
    Fake_Loop_IO io(nullptr);
    io.room_ = 0;
    EXPECT_TRUE(append(backlog, "1234567890", 10));
    errno = 0;
    EXPECT_FALSE(append(backlog, "1", 10));
    EXPECT_EQ(ENOBUFS, errno);
    io.room_ = 4;
    EXPECT_EQ(Outbox_Backlog::FULL, backlog.finish(io));
    EXPECT_TRUE(append(backlog, "abcd", 10)); // what has left does not count
    io.room_ = 100;
    EXPECT_EQ(Outbox_Backlog::SENT, backlog.finish(io));
    EXPECT_EQ("1234567890abcd", io.sent_);
}

TEST(Outbox_Backlog, drops_what_was_not_begun_and_frees_it)
{
    Outbox_Backlog backlog;
    Fake_Loop_IO io(nullptr);
    io.room_ = 1;
    std::vector<Posted> messages = posted_lengths(std::vector<size_t>(20, 4));
    const std::string begun = frames({messages.begin(), messages.begin() + 16});
    const std::weak_ptr<const std::string> last_begun = messages[15].message_;
    const std::weak_ptr<const std::string> first_waiting = messages[16].message_;
    backlog.take(messages);
    ASSERT_TRUE(backlog.begin_batch());
    EXPECT_EQ(Outbox_Backlog::FULL, backlog.finish(io));
    backlog.drop_waiting();
    EXPECT_TRUE(first_waiting.expired());
    EXPECT_FALSE(last_begun.expired());
    io.room_ = Fake_Loop_IO::UNLIMITED;
    EXPECT_EQ(Outbox_Backlog::SENT, backlog.finish(io));
    EXPECT_FALSE(backlog.begin_batch());
    EXPECT_EQ(begun, io.sent_);
    EXPECT_TRUE(last_begun.expired());
    EXPECT_EQ(20 * (4 + WebSocket_Outbox::MESSAGE_COST), backlog.take_released());
}

TEST(Outbox_Backlog, tells_of_a_failure)
{
    Outbox_Backlog backlog;
    Fake_Loop_IO io(nullptr);
    io.fails_ = true;
    std::vector<Posted> messages = {posted("x")};
    backlog.take(messages);
    ASSERT_TRUE(backlog.begin_batch());
    errno = 0;
    EXPECT_EQ(Outbox_Backlog::FAILED, backlog.finish(io));
    EXPECT_EQ(ECONNRESET, errno);
}
