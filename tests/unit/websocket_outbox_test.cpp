#include "httpd/websocket_outbox.h"

#include "tests/support/fake_loop_io.h"
#include "tests/support/reactor_probe.h"
#include "tests/support/test_sockets.h"

#include <ace/Timer_Queue.h>

#include <gtest/gtest.h>

#include <poll.h>
#include <sys/socket.h>

#include <atomic>
#include <cerrno>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

using Message = WebSocket_Outbox::Message;

constexpr size_t LIMIT = 1024 * 1024;
constexpr bool TEXT = false;
constexpr bool BINARY = true;

Message message(const std::string& text)
{
    return std::make_shared<const std::string>(text);
}

/// A short text frame.
std::string text_frame(const std::string& text)
{
    return std::string("\x81") + static_cast<char>(text.size()) + text;
}

const std::string CLOSE_1013("\x88\x02\x03\xF5", 4);

/// A connection whose room the test gives, its outbox, and the loop, which the test runs.
struct Scripted : Reactor_Loop {
    explicit Scripted(size_t limit = LIMIT) : io(&reactor)
    {
        outbox = WebSocket_Outbox::create(io, limit);
        io.on_shutdown_ = [this] { outbox->close(); };
    }
    ~Scripted()
    {
        outbox->close();
        while (round() > 0) { // what is left of notifications
        }
    }
    Scripted(const Scripted&) = delete;
    Scripted& operator=(const Scripted&) = delete;

    bool has_timer() { return !implementation.timer_queue()->is_empty(); }

    Fake_Loop_IO io;
    std::shared_ptr<WebSocket_Outbox> outbox;
};

/// The same over a socket with small buffers, whose other end is `peer`.
struct Wired : Reactor_Loop {
    explicit Wired(size_t limit = LIMIT) : pair(unix_pair()), io(&reactor, pair.first.get())
    {
        const int buffer = 16 * 1024;
        ::setsockopt(pair.first.get(), SOL_SOCKET, SO_SNDBUF, &buffer, sizeof buffer);
        outbox = WebSocket_Outbox::create(io, limit);
        io.on_shutdown_ = [this] { outbox->close(); };
    }
    ~Wired()
    {
        outbox->close();
        while (round() > 0) {
        }
    }
    Wired(const Wired&) = delete;
    Wired& operator=(const Wired&) = delete;

    /// Takes what has been sent.
    std::string read_now()
    {
        std::string bytes(1024 * 1024, '\0');
        const ssize_t count = ::recv(pair.second.get(), bytes.data(), bytes.size(), MSG_DONTWAIT);
        bytes.resize(count > 0 ? static_cast<size_t>(count) : 0);
        return bytes;
    }

    /// Runs the loop and reads until `length` bytes have come.
    std::string read(size_t length)
    {
        std::string bytes;
        for (int empty = 0; bytes.size() < length && empty < 1000;) {
            ACE_Time_Value limit(0, 10'000);
            reactor.handle_events(&limit);
            const std::string more = this->read_now();
            empty += more.empty() ? 1 : 0;
            bytes += more;
        }
        return bytes;
    }

    Test_Pair pair;
    Fake_Loop_IO io;
    std::shared_ptr<WebSocket_Outbox> outbox;
};

/// Something for the loop's thread to do.
class Loop_Call : public ACE_Event_Handler {
public:
    explicit Loop_Call(std::function<void()> what) : what_(std::move(what))
    {
        reference_counting_policy().value(Reference_Counting_Policy::ENABLED);
    }
    Reference_Count add_reference() override { return references_.fetch_add(1) + 1; }
    Reference_Count remove_reference() override
    {
        const Reference_Count left = references_.fetch_sub(1) - 1;
        if (left == 0) {
            delete this;
        }
        return left;
    }
    int handle_exception(ACE_HANDLE) override
    {
        what_();
        done.set_value();
        return 0;
    }

    std::promise<void> done;

private:
    ~Loop_Call() override { reactor(nullptr); }

    std::function<void()> what_;
    std::atomic<Reference_Count> references_{1};
};

/// A loop that a thread runs until the end of the test.
struct Loop_Thread : Reactor_Loop {
    Loop_Thread()
    {
        std::promise<void> running;
        thread = std::thread([this, &running] {
            reactor.owner(::pthread_self());
            running.set_value();
            reactor.run_reactor_event_loop();
        });
        running.get_future().wait();
    }
    ~Loop_Thread() { this->stop(); }
    void stop()
    {
        if (thread.joinable()) {
            reactor.end_reactor_event_loop();
            thread.join();
        }
    }
    /// Has the loop do something, and waits for it.
    void run(const std::function<void()>& what)
    {
        Loop_Call* const call = new Loop_Call(what);
        std::future<void> done = call->done.get_future();
        EXPECT_EQ(0, reactor.notify(call, ACE_Event_Handler::EXCEPT_MASK));
        call->remove_reference(); // the notification holds one
        done.wait();
    }

    std::thread thread;
};

} // namespace

TEST(WebSocket_Outbox, needs_a_connection_in_an_event_loop_and_the_only_one)
{
    Reactor_Loop loop;
    Fake_Loop_IO in_thread(nullptr);
    errno = 0;
    EXPECT_EQ(nullptr, WebSocket_Outbox::create(in_thread, LIMIT));
    EXPECT_EQ(ENOTSUP, errno);
    EXPECT_EQ(nullptr, in_thread.frame_output());

    Fake_Loop_IO in_loop(&loop.reactor);
    const auto outbox = WebSocket_Outbox::create(in_loop, LIMIT);
    ASSERT_NE(nullptr, outbox);
    errno = 0;
    EXPECT_EQ(nullptr, WebSocket_Outbox::create(in_loop, LIMIT));
    EXPECT_EQ(EBUSY, errno);
    EXPECT_TRUE(outbox->is_open());
}

TEST(WebSocket_Outbox, many_posts_wake_the_loop_once_and_leave_in_order)
{
    Scripted test;
    std::string expected;
    for (int i = 0; i < 100; ++i) {
        const std::string text = std::to_string(i);
        EXPECT_TRUE(test.outbox->post(message(text), TEXT));
        expected += text_frame(text);
    }
    EXPECT_EQ("", test.io.sent_); // nothing leaves in the poster's thread
    EXPECT_EQ(1, test.round());
    EXPECT_EQ(expected, test.io.sent_);
    EXPECT_EQ(0, test.round());
    EXPECT_TRUE(test.outbox->post(message("again"), BINARY));
    EXPECT_EQ(1, test.round());
    EXPECT_EQ(expected + "\x82\x05" + "again", test.io.sent_);
    EXPECT_EQ(0, test.io.references_);
}

TEST(WebSocket_Outbox, a_long_queue_does_not_keep_the_loop_to_itself)
{
    Scripted test;
    for (int i = 0; i < 1000; ++i) {
        EXPECT_TRUE(test.outbox->post(message("x"), TEXT));
    }
    EXPECT_EQ(1, test.round());
    EXPECT_GT(3000U, test.io.sent_.size());
    while (test.round() > 0) {
    }
    EXPECT_EQ(3000U, test.io.sent_.size());
}

TEST(WebSocket_Outbox, a_post_of_nothing_is_refused)
{
    Scripted test;
    errno = 0;
    EXPECT_FALSE(test.outbox->post(nullptr, TEXT));
    EXPECT_EQ(EINVAL, errno);
    EXPECT_TRUE(test.outbox->is_open());
    EXPECT_EQ(0, test.round());
}

TEST(WebSocket_Outbox, waits_for_room_without_a_spin_and_goes_on)
{
    Wired test;
    std::string expected;
    for (int i = 0; i < 20; ++i) {
        const std::string text(10'000, static_cast<char>('a' + i));
        EXPECT_TRUE(test.outbox->post(message(text), BINARY));
        expected += std::string("\x82\x7E\x27\x10", 4) + text;
    }
    EXPECT_LT(0, test.round());
    while (test.round() > 0) { // comes to rest although nobody reads
    }
    const int calls = test.io.calls_;
    EXPECT_EQ(0, test.round());
    EXPECT_EQ(calls, test.io.calls_);
    EXPECT_TRUE(expected == test.read(expected.size()));
    while (test.round() > 0) {
    }
    // A post after that wakes the loop again.
    EXPECT_TRUE(test.outbox->post(message("end"), TEXT));
    EXPECT_EQ(text_frame("end"), test.read(5));
    EXPECT_TRUE(test.implementation.timer_queue()->is_empty());
}

TEST(WebSocket_Outbox, looks_again_now_and_then_at_a_stream_that_is_full_above_its_socket)
{
    Wired test;
    test.io.room_ = 3; // the socket itself has room
    EXPECT_TRUE(test.outbox->post(message("hello"), TEXT));
    while (test.round() > 0) {
    }
    const int calls = test.io.calls_;
    EXPECT_GE(3, calls);
    EXPECT_EQ(0, test.round());
    EXPECT_EQ(calls, test.io.calls_); // no spin
    test.io.room_ = 100;
    while (test.io.sent_.size() < 7) {
        ACE_Time_Value limit(10);
        ASSERT_LT(0, test.reactor.handle_events(&limit)); // a timer
    }
    EXPECT_EQ(text_frame("hello"), test.io.sent_);
}

TEST(WebSocket_Outbox, overflow_frees_the_queue_at_once_and_refuses_more)
{
    Scripted test(1000);
    std::vector<std::weak_ptr<const std::string>> posted;
    int taken = 0;
    for (;; ++taken) {
        const Message text = message(std::string(100, 'x'));
        posted.push_back(text);
        errno = 0;
        if (!test.outbox->post(text, TEXT)) {
            break;
        }
        ASSERT_GT(100, taken);
    }
    EXPECT_EQ(ENOBUFS, errno);
    EXPECT_EQ(1000 / (100 + static_cast<int>(WebSocket_Outbox::MESSAGE_COST)), taken);
    for (const auto& text : posted) {
        EXPECT_TRUE(text.expired());
    }
    EXPECT_FALSE(test.outbox->is_open());
    errno = 0;
    EXPECT_FALSE(test.outbox->post(message("x"), TEXT));
    EXPECT_EQ(EPIPE, errno);
    while (test.round() > 0) {
    }
    EXPECT_EQ(CLOSE_1013, test.io.sent_);
    EXPECT_TRUE(test.has_timer()); // for a peer that does not answer
    EXPECT_EQ(0, test.io.shutdowns_);
    test.outbox->close();
    EXPECT_FALSE(test.has_timer());
}

TEST(WebSocket_Outbox, many_small_messages_overflow_too)
{
    Scripted test(10'000);
    test.io.room_ = 0;
    int taken = 0;
    while (test.outbox->post(message(""), TEXT)) {
        ASSERT_GT(10'000, ++taken);
    }
    EXPECT_EQ(10'000 / static_cast<int>(WebSocket_Outbox::MESSAGE_COST), taken);
}

TEST(WebSocket_Outbox, what_was_sent_makes_room_in_the_queue)
{
    Scripted test(200);
    for (int i = 0; i < 100; ++i) {
        ASSERT_TRUE(test.outbox->post(message("0123456789"), TEXT));
        ASSERT_TRUE(test.outbox->post(message("0123456789"), TEXT));
        while (test.round() > 0) {
        }
    }
    EXPECT_EQ(200U * 12, test.io.sent_.size());
}

TEST(WebSocket_Outbox, the_close_frame_of_an_overflow_follows_a_begun_frame)
{
    Wired test(1000);
    test.io.room_ = 3;
    EXPECT_TRUE(test.outbox->post(message("first"), TEXT));
    while (test.round() > 0) {
    }
    EXPECT_TRUE(test.outbox->post(message("second"), TEXT));
    EXPECT_FALSE(test.outbox->post(message(std::string(1000, 'x')), TEXT));
    while (test.round() > 0) {
    }
    EXPECT_EQ(3U, test.io.sent_.size());
    test.io.room_ = 100;
    while (test.io.sent_.size() < 11) {
        ACE_Time_Value limit(10);
        ASSERT_LT(0, test.reactor.handle_events(&limit));
    }
    EXPECT_EQ(text_frame("first") + CLOSE_1013, test.io.sent_);
}

TEST(WebSocket_Outbox, nothing_is_sent_while_another_frame_is_open)
{
    Scripted test;
    test.io.state_ = Loop_IO::FRAME_OPEN;
    EXPECT_TRUE(test.outbox->post(message("later"), TEXT));
    while (test.round() > 0) {
    }
    EXPECT_EQ("", test.io.sent_);
    EXPECT_EQ(5, test.io.write("[pong"));
    while (test.round() > 0) {
    }
    EXPECT_EQ("[pong", test.io.sent_);
    test.io.write("]"); // the engine knows the frame to be complete before its last bytes leave
    test.io.state_ = Loop_IO::FRAMES_FREE;
    while (test.round() > 0) {
    }
    EXPECT_EQ("[pong]" + text_frame("later"), test.io.sent_);
}

TEST(WebSocket_Outbox, nothing_is_sent_behind_a_close_frame)
{
    Scripted test;
    EXPECT_TRUE(test.outbox->post(message("too late"), TEXT));
    test.io.send_close_frame(WebSocket_Data_Frame::CLOSE_TRY_AGAIN_LATER, nullptr, 0);
    while (test.round() > 0) {
    }
    EXPECT_EQ(CLOSE_1013, test.io.sent_);
    EXPECT_FALSE(test.outbox->is_open());
    EXPECT_FALSE(test.outbox->post(message("x"), TEXT));
    EXPECT_EQ(0, test.io.shutdowns_);
}

TEST(WebSocket_Outbox, other_frames_wait_in_their_place_and_do_not_block)
{
    Wired test;
    test.io.room_ = 2;
    EXPECT_TRUE(test.outbox->post(message("one"), TEXT));
    while (test.round() > 0) {
    }
    EXPECT_TRUE(test.outbox->post(message("two"), TEXT));
    EXPECT_EQ(6, test.io.write("[ping]"));
    EXPECT_EQ(6, test.io.write("[pong]"));
    test.io.room_ = Fake_Loop_IO::UNLIMITED;
    EXPECT_EQ("\x81\x03", test.io.sent_);
    EXPECT_EQ("one[ping][pong]" + text_frame("two"), test.read(20));
}

TEST(WebSocket_Outbox, a_frame_that_cannot_be_kept_ends_the_connection)
{
    Scripted test(100);
    test.io.room_ = 1;
    EXPECT_EQ(-1, test.io.write(std::string(200, 'x')));
    while (test.io.shutdowns_ == 0) {
        ACE_Time_Value limit(10);
        ASSERT_LT(0, test.reactor.handle_events(&limit));
    }
    EXPECT_EQ("x", test.io.sent_);
    EXPECT_FALSE(test.outbox->is_open());
}

TEST(WebSocket_Outbox, a_failed_send_shuts_the_connection_down_once)
{
    Scripted test;
    test.io.fails_ = true;
    EXPECT_TRUE(test.outbox->post(message("x"), TEXT));
    while (test.round() > 0) {
    }
    EXPECT_EQ(1, test.io.shutdowns_);
    EXPECT_FALSE(test.outbox->post(message("x"), TEXT));
    EXPECT_EQ(0, test.io.references_);
    EXPECT_EQ(0, test.round());
}

TEST(WebSocket_Outbox, a_closed_one_touches_nothing_any_more)
{
    Scripted test;
    const std::weak_ptr<const std::string> waiting = [&test] {
        const Message text = message("waits");
        EXPECT_TRUE(test.outbox->post(text, TEXT));
        return std::weak_ptr<const std::string>(text);
    }();
    test.outbox->close();
    EXPECT_TRUE(waiting.expired());
    test.outbox->close();
    EXPECT_EQ(1, test.round()); // the notification comes too late
    EXPECT_EQ(0, test.io.calls_);
    errno = 0;
    EXPECT_FALSE(test.outbox->post(message("x"), TEXT));
    EXPECT_EQ(EPIPE, errno);
    EXPECT_EQ(0, test.round());
}

TEST(WebSocket_Outbox, a_last_frame_is_sent_behind_it_when_that_can_be)
{
    Scripted test;
    test.outbox->close();
    test.io.room_ = 4;
    EXPECT_EQ(4, test.io.write("last"));
    errno = 0;
    EXPECT_EQ(-1, test.io.write("one more"));
    EXPECT_EQ(EAGAIN, errno);
    EXPECT_EQ("last", test.io.sent_);
}

TEST(WebSocket_Outbox, nothing_follows_a_frame_that_was_cut)
{
    Wired test;
    test.io.room_ = 3;
    EXPECT_TRUE(test.outbox->post(message("cut"), TEXT));
    while (test.round() > 0) {
    }
    test.outbox->close();
    test.io.room_ = 100;
    errno = 0;
    EXPECT_EQ(-1, test.io.write("last"));
    EXPECT_EQ(EPIPE, errno);
    EXPECT_EQ("\x81\x03"
              "c",
              test.io.sent_);
    EXPECT_EQ(0, test.round());
}

TEST(WebSocket_Outbox, one_that_waits_for_room_lets_go_of_all_when_it_is_closed)
{
    Wired test;
    EXPECT_TRUE(test.outbox->post(message(std::string(500'000, 'x')), TEXT));
    while (test.round() > 0) {
    }
    test.outbox->close();
    const std::string begun = test.read_now();
    EXPECT_LT(0U, begun.size());
    while (test.round() > 0) {
    }
    EXPECT_EQ("", test.read_now());
    EXPECT_TRUE(test.implementation.timer_queue()->is_empty());
}

TEST(WebSocket_Outbox, posts_are_refused_when_the_loop_has_ended)
{
    Reactor_Loop loop;
    Fake_Loop_IO io(&loop.reactor);
    const auto outbox = WebSocket_Outbox::create(io, LIMIT);
    ASSERT_NE(nullptr, outbox);
    const std::weak_ptr<const std::string> waiting = [&outbox] {
        const Message text = message("waits");
        EXPECT_TRUE(outbox->post(text, TEXT));
        return std::weak_ptr<const std::string>(text);
    }();
    loop.reactor.close(); // drops the notification
    outbox->close();
    EXPECT_TRUE(waiting.expired());
    EXPECT_FALSE(outbox->post(message("x"), TEXT));

    Reactor_Loop ended;
    Fake_Loop_IO other(&ended.reactor);
    const auto open = WebSocket_Outbox::create(other, LIMIT);
    ASSERT_NE(nullptr, open);
    ended.reactor.close();
    errno = 0;
    EXPECT_FALSE(open->post(message("x"), TEXT));
    EXPECT_EQ(ESHUTDOWN, errno);
}

TEST(WebSocket_Outbox, outlives_the_last_pointer_to_it_as_long_as_the_loop_needs)
{
    Reactor_Loop loop;
    Fake_Loop_IO io(&loop.reactor);
    {
        const auto outbox = WebSocket_Outbox::create(io, LIMIT);
        ASSERT_NE(nullptr, outbox);
        EXPECT_TRUE(outbox->post(message("x"), TEXT));
        // Closed by its end, as in the destructor of a plug-in.
    }
    EXPECT_EQ(1, loop.round());
    EXPECT_EQ(0, io.calls_);
}

TEST(WebSocket_Outbox, posts_of_many_threads_arrive_whole_and_each_threads_in_order)
{
    constexpr size_t THREADS = 4;
    constexpr size_t MESSAGES = 2000;
    Loop_Thread loop;
    const Test_Pair pair = unix_pair();
    Fake_Loop_IO io(&loop.reactor, pair.first.get());
    std::shared_ptr<WebSocket_Outbox> outbox;
    loop.run([&] { outbox = WebSocket_Outbox::create(io, LIMIT); });
    ASSERT_NE(nullptr, outbox);
    std::vector<std::thread> posters;
    for (size_t i = 0; i < THREADS; ++i) {
        posters.emplace_back([&outbox, i] {
            for (size_t n = 0; n < MESSAGES; ++n) {
                // Three bytes: the thread, and the number in two.
                const Message text = message(std::string{
                    static_cast<char>(i), static_cast<char>(n >> 8), static_cast<char>(n)});
                ASSERT_TRUE(outbox->post(text, BINARY));
            }
        });
    }
    const std::string bytes = read_up_to(pair.second.get(), THREADS * MESSAGES * 5);
    for (std::thread& poster : posters) {
        poster.join();
    }
    ASSERT_EQ(THREADS * MESSAGES * 5, bytes.size());
    std::vector<size_t> next(THREADS, 0);
    for (size_t at = 0; at < bytes.size(); at += 5) {
        ASSERT_EQ("\x82\x03", bytes.substr(at, 2));
        const auto byte = [&](size_t i) { return static_cast<unsigned char>(bytes[at + 2 + i]); };
        ASSERT_GT(THREADS, byte(0));
        ASSERT_EQ(next[byte(0)]++, static_cast<size_t>(byte(1) << 8 | byte(2)));
    }
    loop.run([&] { outbox->close(); });
}

TEST(WebSocket_Outbox, closing_while_others_post_is_safe)
{
    Loop_Thread loop;
    for (int round = 0; round < 20; ++round) {
        const Test_Pair pair = unix_pair();
        Fake_Loop_IO io(&loop.reactor, pair.first.get());
        std::shared_ptr<WebSocket_Outbox> outbox;
        loop.run([&] { outbox = WebSocket_Outbox::create(io, LIMIT); });
        ASSERT_NE(nullptr, outbox);
        std::atomic<int> posted{0};
        std::vector<std::thread> posters;
        for (int i = 0; i < 3; ++i) {
            posters.emplace_back([outbox, &posted] {
                while (outbox->post(message("x"), TEXT)) {
                    ++posted;
                }
            });
        }
        while (posted < 100 && outbox->is_open()) {
            std::this_thread::yield();
        }
        int calls = 0;
        loop.run([&] {
            outbox->close();
            calls = io.calls_;
        });
        for (std::thread& poster : posters) {
            poster.join();
        }
        loop.run([&] { EXPECT_EQ(calls, io.calls_); });
    }
}
