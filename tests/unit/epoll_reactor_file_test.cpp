// Descriptors that epoll refuses because they never wait: regular files and the null device.

#include "support/epoll_reactor.h"

#include "tests/support/reactor_probe.h"

#include <gtest/gtest.h>

#include <sys/resource.h>

#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr ACE_Reactor_Mask READ = ACE_Event_Handler::READ_MASK;
constexpr ACE_Reactor_Mask WRITE = ACE_Event_Handler::WRITE_MASK;
constexpr ACE_Reactor_Mask EXCEPT = ACE_Event_Handler::EXCEPT_MASK;
constexpr ACE_Reactor_Mask ALL = ACE_Event_Handler::ALL_EVENTS_MASK;
constexpr ACE_Reactor_Mask DONT_CALL = ACE_Event_Handler::DONT_CALL;

using Loop = Reactor_Loop;

int open_file()
{
    char name[] = "/tmp/epoll_reactor_XXXXXX";
    const int file = ::mkostemp(name, O_CLOEXEC);
    ::unlink(name);
    return file;
}

/// A probe on a regular file.
class File_Probe {
public:
    File_Probe() : file(open_file()), held_(file), record(held_.record), probe(held_.probe) {}
    ~File_Probe() { ::close(file); }

    const int file;

private:
    Held_Probe held_;

public:
    Reactor_Record& record;
    Reactor_Probe* probe;
};

/// Processor time of this thread, in milliseconds.
long busy_milliseconds()
{
    rusage usage{};
    ::getrusage(RUSAGE_THREAD, &usage);
    return (usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) * 1000 +
           (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1000;
}

/// Waits in the loop for 300 ms and expects that nothing happens and the time is slept through.
void expect_rest(Loop& loop)
{
    loop.round(); // what was due before
    const long before = busy_milliseconds();
    ACE_Time_Value limit(0, 300'000);
    EXPECT_EQ(loop.reactor.handle_events(&limit), 0);
    EXPECT_LT(busy_milliseconds() - before, 150);
}

} // namespace

TEST(Epoll_Reactor_File, a_file_is_ready_in_every_round)
{
    Loop loop;
    File_Probe a;
    ASSERT_EQ(loop.reactor.register_handler(a.probe, READ), 0);
    EXPECT_EQ(a.probe->references(), 2);
    EXPECT_EQ(loop.mask(a.probe), static_cast<int>(READ));
    for (int round = 1; round <= 5; ++round) {
        EXPECT_EQ(loop.round(), 1);
        EXPECT_EQ(a.record.inputs, round);
    }
    EXPECT_EQ(a.record.outputs, 0);
    EXPECT_EQ(a.record.handles, std::vector<ACE_HANDLE>(5, a.file));
    ASSERT_EQ(loop.reactor.remove_handler(a.probe, ALL), 0);
    EXPECT_EQ(a.record.closes.size(), 1U);
    EXPECT_EQ(a.record.closes[0].left, 0);
    EXPECT_EQ(a.probe->references(), 1);
    EXPECT_EQ(loop.round(), 0);
}

TEST(Epoll_Reactor_File, so_is_the_null_device)
{
    Loop loop;
    const int null = ::open("/dev/null", O_RDWR | O_CLOEXEC);
    {
        Held_Probe a(null);
        a.probe->on_input = [](ACE_HANDLE handle) {
            char byte = 0;
            return ::read(handle, &byte, 1) == 0 ? -1 : 0;
        };
        ASSERT_EQ(loop.reactor.register_handler(a.probe, READ), 0);
        EXPECT_EQ(loop.round(), 1);
        EXPECT_EQ(a.record.closes.size(), 1U);
        EXPECT_EQ(loop.mask(a.probe), -1);
        EXPECT_EQ(loop.round(), 0);
    }
    ::close(null);
}

TEST(Epoll_Reactor_File, is_ready_for_what_is_asked_and_never_exceptional)
{
    Loop loop;
    File_Probe a;
    ASSERT_EQ(loop.reactor.register_handler(a.probe, READ | WRITE | EXCEPT), 0);
    EXPECT_EQ(loop.round(), 2);
    EXPECT_EQ(a.record.inputs, 1);
    EXPECT_EQ(a.record.outputs, 1);
    ASSERT_EQ(loop.reactor.mask_ops(a.probe, READ, ACE_Reactor::CLR_MASK),
              static_cast<int>(READ | WRITE | EXCEPT));
    EXPECT_EQ(loop.round(), 1);
    EXPECT_EQ(a.record.inputs, 1);
    EXPECT_EQ(a.record.outputs, 2);
    ASSERT_EQ(loop.reactor.remove_handler(a.probe, WRITE | DONT_CALL), 0);
    expect_rest(loop);
    EXPECT_EQ(a.record.exceptions, 0);
    ASSERT_EQ(loop.reactor.register_handler(a.probe, READ), 0);
    EXPECT_EQ(loop.round(), 1);
    EXPECT_EQ(a.record.inputs, 2);
}

TEST(Epoll_Reactor_File, does_not_starve_the_others)
{
    Loop loop;
    File_Probe a;
    File_Probe b;
    Pair_Probe socket;
    socket.probe->on_input = [&](ACE_HANDLE) { return socket.pair.drain(); };
    Held_Probe timed(-1);
    ASSERT_EQ(loop.reactor.register_handler(a.probe, READ), 0);
    ASSERT_EQ(loop.reactor.register_handler(b.probe, READ), 0);
    ASSERT_EQ(loop.reactor.register_handler(socket.probe, READ), 0);
    for (int round = 1; round <= 20; ++round) {
        socket.pair.send();
        EXPECT_EQ(loop.round(), 3);
        EXPECT_EQ(a.record.inputs, round);
        EXPECT_EQ(b.record.inputs, round);
        EXPECT_EQ(socket.record.inputs, round);
    }
    timed.probe->reactor(&loop.reactor);
    ASSERT_NE(loop.reactor.schedule_timer(timed.probe, nullptr, ACE_Time_Value(0, 10'000)), -1);
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (timed.record.timeouts == 0 && std::chrono::steady_clock::now() < end) {
        loop.round();
    }
    EXPECT_EQ(timed.record.timeouts, 1);
}

TEST(Epoll_Reactor_File, is_called_once_a_round_also_when_it_asks_for_more)
{
    Loop loop;
    File_Probe a;
    a.probe->on_input = [](ACE_HANDLE) { return 1; };
    ASSERT_EQ(loop.reactor.register_handler(a.probe, READ), 0);
    for (int round = 1; round <= 5; ++round) {
        EXPECT_EQ(loop.round(), 1);
        EXPECT_EQ(a.record.inputs, round);
    }
}

TEST(Epoll_Reactor_File, rests_while_suspended_and_goes_on_when_resumed)
{
    Loop loop;
    File_Probe a;
    ASSERT_EQ(loop.reactor.register_handler(a.probe, READ), 0);
    EXPECT_EQ(loop.round(), 1);
    ASSERT_EQ(loop.reactor.suspend_handler(a.probe), 0);
    expect_rest(loop);
    EXPECT_EQ(a.record.inputs, 1);
    ASSERT_EQ(loop.reactor.resume_handler(a.probe), 0);
    EXPECT_EQ(loop.round(), 1);
    EXPECT_EQ(a.record.inputs, 2);
    // Also within one round, and inside its own upcall.
    ASSERT_EQ(loop.reactor.suspend_handler(a.probe), 0);
    ASSERT_EQ(loop.reactor.resume_handler(a.probe), 0);
    EXPECT_EQ(loop.round(), 1);
    EXPECT_EQ(a.record.inputs, 3);
    a.probe->on_input = [&](ACE_HANDLE) { return loop.reactor.suspend_handler(a.probe); };
    EXPECT_EQ(loop.round(), 1);
    expect_rest(loop);
    EXPECT_EQ(a.record.inputs, 4);
}

TEST(Epoll_Reactor_File, the_loop_rests_when_the_last_one_has_left)
{
    Loop loop;
    File_Probe a;
    a.probe->on_input = [](ACE_HANDLE) { return -1; };
    ASSERT_EQ(loop.reactor.register_handler(a.probe, READ), 0);
    EXPECT_EQ(loop.round(), 1);
    expect_rest(loop);
    EXPECT_EQ(a.record.inputs, 1);
    EXPECT_EQ(a.probe->references(), 1);
}

TEST(Epoll_Reactor_File, a_number_that_becomes_a_socket_is_watched_by_epoll_again)
{
    Loop loop;
    Reactor_Pair pair;
    const int file = open_file();
    {
        Held_Probe a(file);
        ASSERT_EQ(loop.reactor.register_handler(a.probe, READ), 0);
        EXPECT_EQ(loop.round(), 1);
        // By another registration, and under the same one.
        ASSERT_EQ(loop.reactor.remove_handler(a.probe, ALL | DONT_CALL), 0);
        ASSERT_EQ(::dup2(pair.here, file), file);
        ASSERT_EQ(loop.reactor.register_handler(a.probe, READ), 0);
        expect_rest(loop);
        pair.send();
        EXPECT_EQ(loop.round(), 1);
        EXPECT_EQ(a.record.inputs, 2);
    }
    ::close(file);
    const int other = open_file();
    {
        Held_Probe a(other);
        ASSERT_EQ(loop.reactor.register_handler(a.probe, READ), 0);
        ASSERT_EQ(loop.reactor.suspend_handler(a.probe), 0);
        ASSERT_EQ(pair.drain(), 0);
        ASSERT_EQ(::dup2(pair.here, other), other);
        ASSERT_EQ(loop.reactor.resume_handler(a.probe), 0);
        expect_rest(loop);
        EXPECT_EQ(a.record.inputs, 0);
        pair.send();
        EXPECT_EQ(loop.round(), 1);
    }
    ::close(other);
}

TEST(Epoll_Reactor_File, registering_or_resuming_one_wakes_a_loop_that_waits)
{
    Loop loop;
    File_Probe a;
    std::atomic<bool> stopping{false};
    a.probe->on_input = [&](ACE_HANDLE) { return loop.reactor.suspend_handler(a.probe); };
    std::thread runner([&] {
        while (!stopping) {
            loop.reactor.handle_events();
        }
    });
    const auto wait_for_inputs = [&](int count) {
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (a.record.inputs < count && std::chrono::steady_clock::now() < end) {
            std::this_thread::yield();
        }
        return a.record.inputs == count;
    };
    EXPECT_EQ(loop.reactor.register_handler(a.probe, READ), 0);
    EXPECT_TRUE(wait_for_inputs(1));
    for (int i = 2; i < 50; ++i) {
        // Its upcall may not have suspended it yet.
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (a.record.inputs < i && std::chrono::steady_clock::now() < end) {
            loop.reactor.resume_handler(a.probe);
            std::this_thread::yield();
        }
        EXPECT_GE(a.record.inputs, i);
    }
    stopping = true;
    loop.reactor.notify();
    runner.join();
}

TEST(Epoll_Reactor_File, close_frees_it)
{
    Reactor_Record record;
    const int file = open_file();
    {
        Loop loop;
        auto* const probe = new Reactor_Probe(file, record);
        ASSERT_EQ(loop.reactor.register_handler(probe, READ), 0);
        probe->remove_reference();
        EXPECT_EQ(loop.round(), 1);
        EXPECT_EQ(loop.reactor.close(), 0);
        EXPECT_FALSE(record.alive);
        ASSERT_EQ(record.closes.size(), 1U);
        EXPECT_EQ(record.closes[0].left, 0);
    }
    ::close(file);
}
