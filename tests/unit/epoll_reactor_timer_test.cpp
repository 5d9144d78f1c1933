#include "support/epoll_reactor.h"

#include "tests/support/reactor_probe.h"

#include <ace/Timer_Heap.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <thread>

using testing::ElementsAre;

namespace {

constexpr ACE_Reactor_Mask READ = ACE_Event_Handler::READ_MASK;
constexpr ACE_Reactor_Mask TIMER = ACE_Event_Handler::TIMER_MASK;
const ACE_Time_Value LONG(1000);

ACE_Time_Value milliseconds(long count)
{
    return ACE_Time_Value(count / 1000, count % 1000 * 1000);
}

/// A reactor and a handler without a descriptor.
struct Timed {
    Timed() : record(held.record), probe(held.probe) { probe->reactor(&reactor); }

    int round()
    {
        ACE_Time_Value no_wait;
        return reactor.handle_events(&no_wait);
    }
    /// Runs rounds without a limit until the probe has been called so often; their number.
    int rounds_until(int timeouts)
    {
        int rounds = 0;
        for (; record.timeouts < timeouts; ++rounds) {
            EXPECT_NE(reactor.handle_events(), -1);
        }
        return rounds;
    }

    Epoll_Reactor implementation;
    ACE_Reactor reactor{&implementation};
    Held_Probe held{ACE_INVALID_HANDLE};
    Reactor_Record& record;
    Reactor_Probe* probe;
};

} // namespace

TEST(Epoll_Reactor_Timer, a_timer_calls_once_with_its_argument_and_the_monotonic_time)
{
    Timed t;
    int act = 0;
    const void* got = nullptr;
    ACE_Time_Value now;
    t.probe->on_timeout = [&](const ACE_Time_Value& time, const void* argument) {
        now = time;
        got = argument;
        return 0;
    };
    const ACE_Time_Value start = t.reactor.timer_queue()->gettimeofday();
    timespec clock{};
    ::clock_gettime(CLOCK_MONOTONIC, &clock);
    EXPECT_LE(start, ACE_Time_Value(clock));
    ASSERT_NE(t.reactor.schedule_timer(t.probe, &act, milliseconds(2)), -1);
    EXPECT_EQ(t.probe->references(), 2);
    EXPECT_EQ(t.round(), 0);
    t.rounds_until(1);
    EXPECT_EQ(got, &act);
    EXPECT_GE(now, start + milliseconds(2));
    EXPECT_LT(now, start + LONG);
    EXPECT_EQ(t.probe->references(), 1);
    EXPECT_EQ(t.reactor.work_pending(), 0);
}

TEST(Epoll_Reactor_Timer, a_repeating_timer_calls_until_it_is_cancelled)
{
    Timed t;
    ACE_Event_Handler::Reference_Count inside = 0;
    t.probe->on_timeout = [&](const ACE_Time_Value&, const void*) {
        inside = t.probe->references();
        return 0;
    };
    const long id = t.reactor.schedule_timer(t.probe, nullptr, milliseconds(1), milliseconds(1));
    ASSERT_NE(id, -1);
    t.rounds_until(3);
    EXPECT_EQ(inside, 3);
    EXPECT_EQ(t.probe->references(), 2);
    EXPECT_EQ(t.reactor.cancel_timer(id), 1);
    EXPECT_EQ(t.probe->references(), 1);
    EXPECT_EQ(t.reactor.cancel_timer(id), 0);
    EXPECT_TRUE(t.record.closes.empty());
}

TEST(Epoll_Reactor_Timer, a_new_interval_counts_from_the_next_expiry)
{
    Timed t;
    const long id = t.reactor.schedule_timer(t.probe, nullptr, milliseconds(1), milliseconds(1));
    EXPECT_EQ(t.reactor.reset_timer_interval(id, ACE_Time_Value::zero), 0);
    t.rounds_until(1);
    EXPECT_EQ(t.probe->references(), 1);
    EXPECT_EQ(t.reactor.reset_timer_interval(id, LONG), -1);
}

// A round for each timer, and no other: a loop that wakes up too early and looks again would need
// many. The delays are no whole milliseconds on purpose.
TEST(Epoll_Reactor_Timer, the_loop_does_not_spin_before_a_timer)
{
    Timed t;
    constexpr int TIMERS = 40;
    for (int i = 1; i <= TIMERS; ++i) {
        ASSERT_NE(t.reactor.schedule_timer(t.probe, nullptr, ACE_Time_Value(0, i * 1370)), -1);
    }
    EXPECT_LE(t.rounds_until(TIMERS), TIMERS);
    ASSERT_NE(
        t.reactor.schedule_timer(t.probe, nullptr, ACE_Time_Value(0, 700), ACE_Time_Value(0, 1300)),
        -1);
    EXPECT_LE(t.rounds_until(2 * TIMERS), TIMERS);
}

TEST(Epoll_Reactor_Timer, a_limit_is_waited_for_in_one_piece_and_used_up)
{
    Timed t;
    for (const long microseconds : {300L, 1500L, 2700L}) {
        ACE_Time_Value limit(0, microseconds);
        const ACE_Time_Value start = t.reactor.timer_queue()->gettimeofday();
        EXPECT_EQ(t.reactor.handle_events(&limit), 0);
        EXPECT_GE(t.reactor.timer_queue()->gettimeofday() - start, ACE_Time_Value(0, microseconds));
        EXPECT_EQ(limit, ACE_Time_Value::zero);
    }
    ASSERT_NE(t.reactor.schedule_timer(t.probe, nullptr, milliseconds(1)), -1);
    ACE_Time_Value limit = LONG;
    EXPECT_EQ(t.reactor.handle_events(limit), 1);
    EXPECT_LT(limit, LONG);
    EXPECT_GT(limit, ACE_Time_Value::zero);
}

TEST(Epoll_Reactor_Timer, timers_expire_in_the_order_of_their_times)
{
    Timed t;
    std::string order;
    t.probe->on_timeout = [&](const ACE_Time_Value&, const void* act) {
        order += static_cast<const char*>(act);
        return 0;
    };
    ASSERT_NE(t.reactor.schedule_timer(t.probe, "c", milliseconds(3)), -1);
    ASSERT_NE(t.reactor.schedule_timer(t.probe, "a", milliseconds(1)), -1);
    ASSERT_NE(t.reactor.schedule_timer(t.probe, "b", milliseconds(2)), -1);
    t.rounds_until(3);
    EXPECT_EQ(order, "abc");
}

TEST(Epoll_Reactor_Timer, due_and_endless_delays_are_taken)
{
    Timed t;
    ASSERT_NE(t.reactor.schedule_timer(t.probe, nullptr, ACE_Time_Value::max_time), -1);
    EXPECT_EQ(t.round(), 0);
    ASSERT_NE(t.reactor.schedule_timer(t.probe, nullptr, ACE_Time_Value::zero), -1);
    ASSERT_NE(t.reactor.schedule_timer(t.probe, nullptr, ACE_Time_Value(-1000000000)), -1);
    t.rounds_until(2);
    EXPECT_EQ(t.round(), 0);
    EXPECT_EQ(t.reactor.cancel_timer(t.probe), 1);
}

TEST(Epoll_Reactor_Timer, many_timers_and_ids_in_any_order)
{
    Timed t;
    std::vector<long> ids;
    for (long i = 0; i < 1000; ++i) {
        ids.push_back(
            t.reactor.schedule_timer(t.probe, nullptr, LONG - milliseconds(i * 37 % 1000)));
        ASSERT_NE(ids.back(), -1);
    }
    EXPECT_EQ(t.probe->references(), 1001);
    for (size_t i = 0; i < ids.size(); i += 2) {
        EXPECT_EQ(t.reactor.cancel_timer(ids[i]), 1);
    }
    EXPECT_EQ(t.probe->references(), 501);
    EXPECT_EQ(t.reactor.cancel_timer(t.probe), 500);
    EXPECT_EQ(t.probe->references(), 1);
}

TEST(Epoll_Reactor_Timer, cancelling_what_is_not_there_cancels_nothing)
{
    Timed t;
    const long id = t.reactor.schedule_timer(t.probe, nullptr, LONG);
    for (const long other : {-1L, id + 1, 31L, 32L, 63L, 64L, 65L, 1000000L, LONG_MAX, LONG_MIN}) {
        EXPECT_EQ(t.reactor.cancel_timer(other), 0) << other;
        EXPECT_EQ(t.reactor.reset_timer_interval(other, LONG), -1) << other;
    }
    EXPECT_EQ(t.probe->references(), 2);
    const void* act = &t;
    EXPECT_EQ(t.reactor.cancel_timer(id, &act), 1);
    EXPECT_EQ(act, nullptr);
    EXPECT_EQ(t.reactor.cancel_timer(t.probe), 0);
}

TEST(Epoll_Reactor_Timer, cancelling_with_handle_close_calls_it_once)
{
    Timed t;
    // Once also when there was nothing to cancel, as in ACE's queues.
    EXPECT_EQ(t.reactor.cancel_timer(t.probe, 0), 0);
    EXPECT_EQ(t.record.closes.size(), 1U);
    ASSERT_NE(t.reactor.schedule_timer(t.probe, nullptr, LONG), -1);
    ASSERT_NE(t.reactor.schedule_timer(t.probe, nullptr, LONG), -1);
    EXPECT_EQ(t.reactor.cancel_timer(t.probe, 0), 2);
    ASSERT_EQ(t.record.closes.size(), 2U);
    EXPECT_EQ(t.record.closes[1].handle, ACE_INVALID_HANDLE);
    EXPECT_EQ(t.record.closes[1].mask, TIMER);
    const long id = t.reactor.schedule_timer(t.probe, nullptr, LONG);
    EXPECT_EQ(t.reactor.cancel_timer(id, nullptr, 0), 1);
    EXPECT_EQ(t.record.closes.size(), 3U);
    EXPECT_EQ(t.probe->references(), 1);
}

TEST(Epoll_Reactor_Timer, minus_1_from_handle_timeout_cancels_all_timers_and_closes_once)
{
    for (const ACE_Time_Value& interval : {ACE_Time_Value::zero, milliseconds(1)}) {
        Timed t;
        t.probe->on_timeout = [](const ACE_Time_Value&, const void*) { return -1; };
        ASSERT_NE(t.reactor.schedule_timer(t.probe, nullptr, milliseconds(1), interval), -1);
        ASSERT_NE(t.reactor.schedule_timer(t.probe, nullptr, LONG), -1);
        t.held.release();
        while (t.record.alive) {
            ASSERT_NE(t.reactor.handle_events(), -1);
        }
        EXPECT_EQ(t.record.timeouts, 1);
        ASSERT_EQ(t.record.closes.size(), 1U);
        EXPECT_EQ(t.record.closes[0].mask, TIMER);
    }
}

TEST(Epoll_Reactor_Timer, minus_1_from_handle_timeout_after_leaving_the_reactor_frees_once)
{
    Epoll_Reactor implementation;
    ACE_Reactor reactor(&implementation);
    Pair_Probe a;
    a.probe->on_timeout = [&, probe = a.probe](const ACE_Time_Value&, const void*) {
        EXPECT_EQ(reactor.remove_handler(probe, ACE_Event_Handler::ALL_EVENTS_MASK), 0);
        return -1;
    };
    ASSERT_EQ(reactor.register_handler(a.probe, READ), 0);
    ASSERT_NE(reactor.schedule_timer(a.probe, nullptr, milliseconds(1), milliseconds(1)), -1);
    a.release();
    while (a.record.alive) {
        ASSERT_NE(reactor.handle_events(), -1);
    }
    ASSERT_EQ(a.record.closes.size(), 2U);
    EXPECT_EQ(a.record.closes[0].handle, a.pair.here);
    EXPECT_EQ(a.record.closes[0].left, 0);
    EXPECT_EQ(a.record.closes[1].mask, TIMER);
    EXPECT_EQ(a.record.closes[1].left, -1);
}

TEST(Epoll_Reactor_Timer, a_timer_may_cancel_itself_and_others_that_are_due)
{
    Timed t;
    t.probe->on_timeout = [&](const ACE_Time_Value&, const void*) {
        t.reactor.cancel_timer(t.probe);
        return 0;
    };
    ASSERT_NE(t.reactor.schedule_timer(t.probe, nullptr, ACE_Time_Value::zero, milliseconds(1)),
              -1);
    ASSERT_NE(t.reactor.schedule_timer(t.probe, nullptr, ACE_Time_Value::zero), -1);
    t.rounds_until(1);
    EXPECT_EQ(t.round(), 0);
    EXPECT_EQ(t.record.timeouts, 1);
    EXPECT_EQ(t.probe->references(), 1);
}

TEST(Epoll_Reactor_Timer, the_last_reference_of_a_timer_may_come_back_from_its_destructor)
{
    struct Row {
        const char* name;
        std::function<void(Timed&, long)> act;
    };
    const Row rows[] = {
        {"by handler", [](Timed& t, long) { t.reactor.cancel_timer(t.probe); }},
        {"by id", [](Timed& t, long id) { t.reactor.cancel_timer(id); }},
        {"close", [](Timed& t, long) { t.reactor.close(); }},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        Timed t;
        Held_Probe bystander(ACE_INVALID_HANDLE);
        ASSERT_NE(t.reactor.schedule_timer(bystander.probe, nullptr, LONG), -1);
        const long id = t.reactor.schedule_timer(t.probe, nullptr, LONG);
        t.probe->on_destruction = [&, probe = t.probe] {
            // Another thread gets at the queue meanwhile: its lock is not held.
            std::thread([&] { t.reactor.cancel_timer(bystander.probe); }).join();
            t.reactor.cancel_timer(probe);
        };
        t.held.release();
        row.act(t, id);
        EXPECT_FALSE(t.record.alive);
        EXPECT_EQ(bystander.probe->references(), 1);
    }
}

TEST(Epoll_Reactor_Timer, close_drops_timers_through_handle_close)
{
    Timed t;
    ASSERT_NE(t.reactor.schedule_timer(t.probe, nullptr, LONG, LONG), -1);
    ASSERT_NE(t.reactor.schedule_timer(t.probe, nullptr, LONG), -1);
    long again = 0;
    t.probe->on_close = [&] { again = t.reactor.schedule_timer(t.probe, nullptr, LONG); };
    EXPECT_EQ(t.reactor.close(), 0);
    EXPECT_EQ(t.record.closes.size(), 2U);
    EXPECT_EQ(again, -1);
    EXPECT_EQ(t.probe->references(), 1);
}

TEST(Epoll_Reactor_Timer, a_cancelled_timer_wakes_the_loop_at_most_once)
{
    Timed t;
    const long id = t.reactor.schedule_timer(t.probe, nullptr, milliseconds(1));
    ASSERT_NE(t.reactor.schedule_timer(t.probe, nullptr, milliseconds(20)), -1);
    EXPECT_EQ(t.reactor.cancel_timer(id), 1);
    EXPECT_LE(t.rounds_until(1), 2);
}

TEST(Epoll_Reactor_Timer, a_later_timer_of_another_thread_does_not_wake_the_loop)
{
    Timed t;
    Held_Probe later(ACE_INVALID_HANDLE);
    ASSERT_NE(t.reactor.schedule_timer(t.probe, nullptr, milliseconds(50)), -1);
    std::thread other([&] {
        for (int i = 0; i < 100; ++i) {
            t.reactor.schedule_timer(later.probe, nullptr, LONG);
        }
    });
    EXPECT_EQ(t.rounds_until(1), 1);
    other.join();
    EXPECT_EQ(later.record.timeouts, 0);
}

TEST(Epoll_Reactor_Timer, an_earlier_timer_of_another_thread_is_not_missed)
{
    Timed t;
    Held_Probe late(ACE_INVALID_HANDLE);
    ASSERT_NE(t.reactor.schedule_timer(late.probe, nullptr, LONG), -1);
    for (int i = 1; i <= 20; ++i) {
        std::thread other([&] { t.reactor.schedule_timer(t.probe, nullptr, milliseconds(1)); });
        t.rounds_until(i);
        other.join();
    }
    EXPECT_EQ(late.record.timeouts, 0);
}

TEST(Epoll_Reactor_Timer, uses_a_timer_queue_that_it_is_given)
{
    Timed t;
    ACE_Timer_Heap heap;
    ACE_Timer_Queue* const own = t.reactor.timer_queue();
    ASSERT_EQ(t.reactor.timer_queue(&heap), 0);
    EXPECT_EQ(t.reactor.timer_queue(), &heap);
    ASSERT_NE(t.reactor.schedule_timer(t.probe, nullptr, ACE_Time_Value(0, 2500)), -1);
    EXPECT_FALSE(heap.is_empty());
    EXPECT_LE(t.rounds_until(1), 2); // one is the scheduling's wake-up
    ACE_Time_Value limit = milliseconds(2);
    EXPECT_EQ(t.reactor.handle_events(limit), 0);
    ASSERT_NE(t.reactor.schedule_timer(t.probe, nullptr, LONG), -1);
    limit = milliseconds(2);
    EXPECT_EQ(t.reactor.handle_events(limit), 1);
    limit = milliseconds(2);
    EXPECT_EQ(t.reactor.handle_events(limit), 0);
    EXPECT_EQ(t.reactor.cancel_timer(t.probe), 1);
    ASSERT_EQ(t.reactor.timer_queue(nullptr), 0);
    EXPECT_EQ(t.reactor.timer_queue(), own);
}
