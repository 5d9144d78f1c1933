#include "support/epoll_reactor.h"

#include "tests/support/reactor_probe.h"

#include <ace/Signal.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <pthread.h>
#include <signal.h>

#include <cerrno>
#include <condition_variable>
#include <fstream>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

using testing::ElementsAre;

namespace {

constexpr ACE_Reactor_Mask READ = ACE_Event_Handler::READ_MASK;
constexpr ACE_Reactor_Mask WRITE = ACE_Event_Handler::WRITE_MASK;
constexpr ACE_Reactor_Mask EXCEPT = ACE_Event_Handler::EXCEPT_MASK;
constexpr ACE_Reactor_Mask ALL = ACE_Event_Handler::ALL_EVENTS_MASK;
constexpr ACE_Reactor_Mask DONT_CALL = ACE_Event_Handler::DONT_CALL;

using Loop = Reactor_Loop;

/// A loop that a thread of its own runs until the end of the test.
struct Running_Loop : Loop {
    Running_Loop()
    {
        thread = std::thread([this] { reactor.run_reactor_event_loop(); });
    }
    ~Running_Loop() { this->stop(); }
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
        Held_Probe probe(ACE_INVALID_HANDLE);
        std::promise<void> done;
        probe.probe->on_exception = [&](ACE_HANDLE) {
            what();
            done.set_value();
            return 0;
        };
        ASSERT_EQ(reactor.notify(probe.probe, EXCEPT), 0);
        done.get_future().wait();
        while (probe.probe->references() != 1) {
            std::this_thread::yield();
        }
    }

    std::thread thread;
};

/// How many wake-ups no loop has taken note of yet: the sum of the process's eventfd counters.
long pending_wakes()
{
    long sum = 0;
    for (int fd = 0; fd < 256; ++fd) {
        std::ifstream info("/proc/self/fdinfo/" + std::to_string(fd));
        for (std::string line; std::getline(info, line);) {
            const std::string key = "eventfd-count:";
            if (line.compare(0, key.size(), key) == 0) {
                sum += std::stol(line.substr(key.size()), nullptr, 16);
            }
        }
    }
    return sum;
}

void do_nothing(int) {}

} // namespace

TEST(Epoll_Reactor_Notify, calls_the_upcall_of_the_mask_without_a_handle)
{
    Loop loop;
    struct Row {
        ACE_Reactor_Mask mask;
        int inputs, outputs, exceptions;
    };
    const Row rows[] = {{READ, 1, 0, 0},
                        {ACE_Event_Handler::ACCEPT_MASK, 1, 0, 0},
                        {WRITE, 0, 1, 0},
                        {EXCEPT, 0, 0, 1}};
    for (const Row& row : rows) {
        Pair_Probe a;
        ASSERT_EQ(loop.reactor.notify(a.probe, row.mask), 0);
        EXPECT_EQ(a.probe->references(), 2);
        EXPECT_EQ(loop.round(), 1);
        EXPECT_EQ(a.probe->references(), 1);
        EXPECT_EQ(a.record.inputs, row.inputs);
        EXPECT_EQ(a.record.outputs, row.outputs);
        EXPECT_EQ(a.record.exceptions, row.exceptions);
        EXPECT_THAT(a.record.handles, ElementsAre(ACE_INVALID_HANDLE));
        EXPECT_EQ(loop.round(), 0);
    }
}

TEST(Epoll_Reactor_Notify, qos_notifications_reach_their_upcalls)
{
    struct QoS : ACE_Event_Handler {
        int handle_qos(ACE_HANDLE) override { return ++qos, 0; }
        int handle_group_qos(ACE_HANDLE) override { return ++group, 0; }
        int qos = 0;
        int group = 0;
    };
    Loop loop;
    QoS handler;
    ASSERT_EQ(loop.reactor.notify(&handler, ACE_Event_Handler::QOS_MASK), 0);
    ASSERT_EQ(loop.reactor.notify(&handler, ACE_Event_Handler::GROUP_QOS_MASK), 0);
    EXPECT_EQ(loop.round(), 2);
    EXPECT_EQ(handler.qos, 1);
    EXPECT_EQ(handler.group, 1);
}

TEST(Epoll_Reactor_Notify, reaches_handlers_in_order_also_when_suspended_or_not_registered)
{
    Loop loop;
    Pair_Probe a;
    Pair_Probe b;
    std::string order;
    a.probe->on_input = [&](ACE_HANDLE) { return order += 'a', 0; };
    b.probe->on_input = [&](ACE_HANDLE) { return order += 'b', 0; };
    ASSERT_EQ(loop.reactor.register_handler(b.probe, READ), 0);
    ASSERT_EQ(loop.reactor.suspend_handler(b.probe), 0);
    for (Pair_Probe* const next : {&b, &a, &a, &b}) {
        ASSERT_EQ(loop.reactor.notify(next->probe, READ), 0);
    }
    EXPECT_EQ(loop.round(), 4);
    EXPECT_EQ(order, "baab");
}

TEST(Epoll_Reactor_Notify, minus_1_of_a_registered_handler_removes_it_as_an_event_would)
{
    Loop loop;
    Pair_Probe a;
    a.probe->on_input = [](ACE_HANDLE) { return -1; };
    ASSERT_EQ(loop.reactor.register_handler(a.probe, READ), 0);
    ASSERT_EQ(loop.reactor.notify(a.probe, READ), 0);
    a.release();
    EXPECT_EQ(loop.round(), 1);
    ASSERT_EQ(a.record.closes.size(), 1U);
    EXPECT_EQ(a.record.closes[0].handle, a.pair.here);
    EXPECT_EQ(a.record.closes[0].mask, READ);
    EXPECT_EQ(a.record.closes[0].left, 0);
    EXPECT_FALSE(a.record.alive);
}

TEST(Epoll_Reactor_Notify,
     minus_1_of_a_handler_not_registered_for_the_event_closes_it_without_handle)
{
    Loop loop;
    Pair_Probe a;
    Pair_Probe b;
    a.probe->on_output = [](ACE_HANDLE) { return -1; };
    b.probe->on_input = [](ACE_HANDLE) { return -1; };
    ASSERT_EQ(loop.reactor.register_handler(a.probe, READ), 0);
    ASSERT_EQ(loop.reactor.notify(a.probe, WRITE), 0);
    ASSERT_EQ(loop.reactor.notify(b.probe, READ), 0);
    EXPECT_EQ(loop.round(), 2);
    for (const Pair_Probe* const closed : {&a, &b}) {
        ASSERT_EQ(closed->record.closes.size(), 1U);
        EXPECT_EQ(closed->record.closes[0].handle, ACE_INVALID_HANDLE);
        EXPECT_EQ(closed->record.closes[0].mask, EXCEPT);
    }
    EXPECT_EQ(a.record.closes[0].left, static_cast<int>(READ));
    EXPECT_EQ(b.record.closes[0].left, -1);
}

TEST(Epoll_Reactor_Notify, a_positive_result_of_a_registered_handler_calls_again)
{
    Loop loop;
    Pair_Probe a;
    a.probe->on_input = [&](ACE_HANDLE) { return a.record.inputs < 3 ? 1 : 0; };
    ASSERT_EQ(loop.reactor.register_handler(a.probe, READ), 0);
    ASSERT_EQ(loop.reactor.notify(a.probe, READ), 0);
    for (int round = 0; round < 3; ++round) {
        EXPECT_EQ(loop.reactor.handle_events(), 1);
    }
    EXPECT_EQ(loop.round(), 0);
    EXPECT_THAT(a.record.handles, ElementsAre(ACE_INVALID_HANDLE, a.pair.here, a.pair.here));
    Pair_Probe unregistered;
    unregistered.probe->on_input = [](ACE_HANDLE) { return 1; };
    ASSERT_EQ(loop.reactor.notify(unregistered.probe, READ), 0);
    EXPECT_EQ(loop.round(), 1);
    EXPECT_EQ(loop.round(), 0);
}

TEST(Epoll_Reactor_Notify, a_handler_that_notifies_itself_leaves_the_round_to_the_others)
{
    Loop loop;
    Pair_Probe a;
    Pair_Probe b;
    a.probe->on_input = [&](ACE_HANDLE) { return loop.reactor.notify(a.probe, READ); };
    ASSERT_EQ(loop.reactor.register_handler(b.probe, READ), 0);
    ASSERT_EQ(loop.reactor.notify(a.probe, READ), 0);
    b.pair.send();
    for (int round = 1; round <= 3; ++round) {
        EXPECT_EQ(loop.reactor.handle_events(), 2);
        EXPECT_EQ(a.record.inputs, round);
        EXPECT_EQ(b.record.inputs, round);
    }
}

TEST(Epoll_Reactor_Notify, purging_drops_what_the_mask_takes)
{
    Loop loop;
    Pair_Probe a;
    Pair_Probe b;
    ASSERT_EQ(loop.reactor.notify(a.probe, READ), 0);
    ASSERT_EQ(loop.reactor.notify(b.probe, READ), 0);
    ASSERT_EQ(loop.reactor.notify(a.probe, WRITE), 0);
    EXPECT_EQ(loop.reactor.purge_pending_notifications(a.probe, EXCEPT), 0);
    EXPECT_EQ(loop.reactor.purge_pending_notifications(a.probe, READ), 1);
    EXPECT_EQ(a.probe->references(), 2);
    EXPECT_EQ(loop.reactor.purge_pending_notifications(a.probe), 1);
    EXPECT_EQ(a.probe->references(), 1);
    EXPECT_EQ(loop.round(), 1);
    EXPECT_EQ(b.record.inputs, 1);
    ASSERT_EQ(loop.reactor.notify(a.probe, READ), 0);
    ASSERT_EQ(loop.reactor.notify(b.probe, READ), 0);
    EXPECT_EQ(loop.reactor.purge_pending_notifications(nullptr), 2);
    EXPECT_EQ(loop.round(), 0);
}

TEST(Epoll_Reactor_Notify, an_upcall_may_purge_what_comes_behind_it)
{
    Loop loop;
    Pair_Probe a;
    Pair_Probe b;
    a.probe->on_input = [&](ACE_HANDLE) {
        EXPECT_EQ(loop.reactor.purge_pending_notifications(b.probe), 1);
        return 0;
    };
    ASSERT_EQ(loop.reactor.notify(a.probe, READ), 0);
    ASSERT_EQ(loop.reactor.notify(b.probe, READ), 0);
    EXPECT_EQ(loop.round(), 1);
    EXPECT_EQ(b.record.inputs, 0);
}

TEST(Epoll_Reactor_Notify, a_notification_keeps_its_handler_until_close_drops_it)
{
    Loop loop;
    Pair_Probe a;
    a.probe->on_destruction = [&, probe = a.probe] {
        loop.reactor.purge_pending_notifications(probe);
    };
    ASSERT_EQ(loop.reactor.notify(a.probe, READ), 0);
    a.release();
    EXPECT_TRUE(a.record.alive);
    loop.reactor.close();
    EXPECT_FALSE(a.record.alive);
    EXPECT_EQ(a.record.inputs, 0);
}

TEST(Epoll_Reactor_Notify, without_a_handler_it_only_ends_the_wait)
{
    Loop loop;
    ASSERT_EQ(loop.reactor.notify(), 0);
    ASSERT_EQ(loop.reactor.notify(), 0);
    EXPECT_EQ(loop.reactor.work_pending(), 1);
    EXPECT_EQ(loop.reactor.handle_events(), 1);
    EXPECT_EQ(loop.round(), 0);
    loop.reactor.wakeup_all_threads();
    EXPECT_EQ(loop.reactor.handle_events(), 1);
}

TEST(Epoll_Reactor_Notify, a_loop_that_does_not_wait_is_not_written_to)
{
    Loop loop;
    Pair_Probe a;
    ASSERT_EQ(pending_wakes(), 0);
    std::thread other([&] {
        for (int i = 0; i < 1000; ++i) {
            EXPECT_EQ(loop.reactor.notify(a.probe, READ), 0);
        }
    });
    other.join();
    EXPECT_EQ(pending_wakes(), 0);
    EXPECT_EQ(loop.round(), 1000);
    EXPECT_EQ(a.record.inputs, 1000);
}

TEST(Epoll_Reactor_Notify, a_loop_that_waits_is_woken_and_a_burst_wakes_it_once)
{
    Running_Loop loop;
    Held_Probe a(ACE_INVALID_HANDLE);
    std::mutex mutex;
    std::condition_variable changed;
    bool entered = false;
    bool go_on = false;
    a.probe->on_exception = [&](ACE_HANDLE) {
        std::unique_lock lock(mutex);
        entered = true;
        changed.notify_all();
        changed.wait(lock, [&] { return go_on; });
        return 0;
    };
    ASSERT_EQ(loop.reactor.notify(a.probe, EXCEPT), 0);
    {
        std::unique_lock lock(mutex);
        changed.wait(lock, [&] { return entered; });
        for (int i = 0; i < 1000; ++i) {
            EXPECT_EQ(loop.reactor.notify(a.probe, READ), 0);
        }
        EXPECT_EQ(pending_wakes(), 0);
        go_on = true;
        changed.notify_all();
    }
    a.record.wait_for_inputs(1000);
    loop.stop();
}

TEST(Epoll_Reactor_Notify, no_wake_up_is_lost)
{
    Running_Loop loop;
    Held_Probe a(ACE_INVALID_HANDLE);
    for (int i = 1; i <= 2000; ++i) {
        ASSERT_EQ(loop.reactor.notify(a.probe, READ), 0);
        a.record.wait_for_inputs(i);
    }
    loop.stop();
}

TEST(Epoll_Reactor_Notify, close_leaves_no_reference_behind_while_another_thread_notifies)
{
    for (int i = 0; i < 50; ++i) {
        Running_Loop loop;
        Held_Probe a(ACE_INVALID_HANDLE);
        std::atomic<int> accepted{0};
        std::atomic<int> refusal{0};
        std::thread notifier([&] {
            while (loop.reactor.notify(a.probe, READ) == 0) {
                ++accepted;
                accepted.notify_one();
            }
            refusal = errno;
        });
        accepted.wait(0);
        loop.stop();
        loop.implementation.close();
        notifier.join();
        EXPECT_EQ(refusal, ESHUTDOWN);
        EXPECT_EQ(a.probe->references(), 1);
    }
}

TEST(Epoll_Reactor_Notify, ending_the_event_loop_wakes_it)
{
    for (int i = 0; i < 50; ++i) {
        Loop loop;
        std::atomic<int> result{1};
        std::thread thread([&] { result = loop.reactor.run_reactor_event_loop(); });
        loop.reactor.end_reactor_event_loop();
        thread.join();
        EXPECT_EQ(result, 0);
        EXPECT_EQ(loop.reactor.reactor_event_loop_done(), 1);
        errno = 0;
        EXPECT_EQ(loop.reactor.handle_events(), -1);
        EXPECT_EQ(errno, ESHUTDOWN);
        loop.reactor.reset_reactor_event_loop();
        EXPECT_EQ(loop.reactor.reactor_event_loop_done(), 0);
        EXPECT_NE(loop.round(), -1);
    }
}

TEST(Epoll_Reactor_Notify, a_wait_survives_a_signal_unless_told_otherwise)
{
    struct sigaction action {};
    struct sigaction previous {};
    action.sa_handler = do_nothing;
    ASSERT_EQ(::sigaction(SIGUSR1, &action, &previous), 0);
    for (const bool restart : {true, false}) {
        SCOPED_TRACE(restart);
        Loop loop;
        Pair_Probe a;
        a.probe->on_input = [&](ACE_HANDLE) { return a.pair.drain(); };
        ASSERT_EQ(loop.reactor.register_handler(a.probe, READ), 0);
        loop.reactor.restart(restart);
        std::atomic<int> failures{0};
        std::atomic<int> rounds{0};
        std::atomic<bool> done{false};
        std::thread thread([&] {
            while (!done) {
                if (loop.reactor.handle_events() == -1 && errno == EINTR) {
                    ++failures;
                }
                ++rounds;
            }
        });
        // Until a signal has ended a wait, and then some more.
        for (int seen = 0; seen < 5;) {
            const int before = rounds;
            ::pthread_kill(thread.native_handle(), SIGUSR1);
            std::this_thread::yield();
            seen += rounds != before ? 1 : 0;
        }
        a.pair.send();
        a.record.wait_for_inputs(1);
        done = true;
        loop.reactor.notify();
        thread.join();
        EXPECT_EQ(failures == 0, restart);
    }
    ASSERT_EQ(::sigaction(SIGUSR1, &previous, nullptr), 0);
}

TEST(Epoll_Reactor_Notify, a_signal_does_not_end_a_wait_with_a_limit_early)
{
    struct sigaction action {};
    struct sigaction previous {};
    action.sa_handler = do_nothing;
    ASSERT_EQ(::sigaction(SIGUSR1, &action, &previous), 0);
    Loop loop;
    std::atomic<bool> done{false};
    ACE_Time_Value spent;
    std::thread thread([&] {
        const ACE_Time_Value start = loop.reactor.timer_queue()->gettimeofday();
        ACE_Time_Value limit(0, 20000);
        EXPECT_EQ(loop.reactor.handle_events(&limit), 0);
        EXPECT_EQ(limit, ACE_Time_Value::zero);
        spent = loop.reactor.timer_queue()->gettimeofday() - start;
        done = true;
    });
    while (!done) {
        ::pthread_kill(thread.native_handle(), SIGUSR1);
        std::this_thread::yield();
    }
    thread.join();
    EXPECT_GE(spent, ACE_Time_Value(0, 20000));
    ASSERT_EQ(::sigaction(SIGUSR1, &previous, nullptr), 0);
}

TEST(Epoll_Reactor_Notify, dispatches_signals_to_their_handlers)
{
    struct Signalled : ACE_Event_Handler {
        int handle_signal(int signum, siginfo_t*, ucontext_t*) override
        {
            last = signum;
            return 0;
        }
        std::atomic<int> last{0};
    };
    Loop loop;
    Signalled handler;
    ACE_Sig_Action previous;
    previous.retrieve_action(SIGUSR2);
    ASSERT_GE(loop.reactor.register_handler(SIGUSR2, &handler), 0);
    ACE_Event_Handler* found = nullptr;
    EXPECT_EQ(loop.reactor.handler(SIGUSR2, &found), 0);
    EXPECT_EQ(found, &handler);
    ::raise(SIGUSR2);
    EXPECT_EQ(handler.last, SIGUSR2);
    EXPECT_EQ(loop.reactor.remove_handler(SIGUSR2, &previous), 0);
    EXPECT_EQ(loop.reactor.handler(SIGUSR2), -1);

    ACE_Sig_Set set;
    set.sig_add(SIGUSR2);
    ASSERT_EQ(loop.reactor.register_handler(set, &handler), 0);
    EXPECT_EQ(loop.reactor.handler(SIGUSR2), 0);
    EXPECT_EQ(loop.reactor.handler(SIGUSR1), -1);
    EXPECT_EQ(loop.reactor.remove_handler(set), 0);
    EXPECT_EQ(loop.reactor.handler(SIGUSR2), -1);
    previous.register_action(SIGUSR2);
}

// Threads

TEST(Epoll_Reactor_Notify, a_descriptor_registered_by_another_thread_is_served_by_a_waiting_loop)
{
    Running_Loop loop;
    for (int i = 0; i < 200; ++i) {
        Pair_Probe a;
        a.probe->on_input = [&](ACE_HANDLE) { return a.pair.drain(); };
        if (i % 2 == 0) {
            a.pair.send();
        }
        ASSERT_EQ(loop.reactor.register_handler(a.probe, READ), 0);
        if (i % 2 != 0) {
            a.pair.send();
        }
        a.record.wait_for_inputs(1);
        ASSERT_EQ(loop.reactor.remove_handler(a.probe, ALL | DONT_CALL), 0);
        while (a.probe->references() != 1) {
            std::this_thread::yield();
        }
    }
}

TEST(Epoll_Reactor_Notify, a_handler_suspended_by_its_loop_is_resumed_by_another_thread)
{
    Running_Loop loop;
    Pair_Probe a;
    a.probe->on_input = [&](ACE_HANDLE) { return loop.reactor.suspend_handler(a.probe); };
    ASSERT_EQ(loop.reactor.register_handler(a.probe, READ), 0);
    a.pair.send();
    for (int i = 1; i <= 200; ++i) {
        a.record.wait_for_inputs(i);
        loop.run([] {}); // the upcall has returned
        EXPECT_EQ(a.record.inputs, i);
        ASSERT_EQ(loop.reactor.resume_handler(a.probe), 0);
    }
    loop.stop();
}

TEST(Epoll_Reactor_Notify, threads_register_suspend_notify_schedule_and_remove_while_the_loop_runs)
{
    Running_Loop loop;
    constexpr int THREADS = 3;
    constexpr int TURNS = 400;
    std::atomic<int> alive{0};
    std::atomic<int> closed{0};
    std::vector<std::thread> threads;
    for (int thread = 0; thread < THREADS; ++thread) {
        threads.emplace_back([&] {
            for (int turn = 0; turn < TURNS; ++turn) {
                Reactor_Pair pair;
                Reactor_Record record;
                Reactor_Probe* const probe = new Reactor_Probe(pair.here, record);
                ++alive;
                probe->on_destruction = [&] { --alive; };
                probe->on_close = [&] { ++closed; };
                probe->on_input = [&](ACE_HANDLE) { return pair.drain() == 0 ? turn % 2 : -1; };
                ACE_Event_Handler_var hold(probe);
                pair.send();
                const long timer =
                    loop.reactor.schedule_timer(probe, nullptr, ACE_Time_Value::zero);
                EXPECT_EQ(loop.reactor.register_handler(probe, READ), 0);
                EXPECT_EQ(loop.reactor.suspend_handler(probe), 0);
                EXPECT_EQ(loop.reactor.notify(probe, WRITE), 0);
                EXPECT_EQ(loop.reactor.resume_handler(probe), 0);
                pair.send();
                EXPECT_GE(loop.reactor.mask_ops(probe, WRITE, ACE_Reactor::ADD_MASK), 0);
                loop.reactor.cancel_timer(timer);
                EXPECT_EQ(loop.reactor.remove_handler(probe, ALL | (turn % 2 == 0 ? DONT_CALL : 0)),
                          0);
                loop.reactor.purge_pending_notifications(probe);
                while (probe->references() != 1) {
                    std::this_thread::yield();
                }
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    loop.stop();
    EXPECT_EQ(alive, 0);
    EXPECT_EQ(closed, THREADS * TURNS / 2);
}

// A handler may be removed while another thread is still within register_handler. A descriptor that
// stayed in the epoll set would be reported for ever, since its other end is closed.
TEST(Epoll_Reactor_Notify, a_handler_removed_before_its_registration_has_returned_leaves_nothing)
{
    Loop loop;
    constexpr int TURNS = 3000;
    std::vector<std::unique_ptr<Pair_Probe>> probes;
    for (int turn = 0; turn < TURNS; ++turn) {
        if (turn % 100 == 0) {
            EXPECT_EQ(loop.reactor.work_pending(), 0);
            probes.clear();
        }
        probes.push_back(std::make_unique<Pair_Probe>());
        probes.back()->pair.close_there();
        Reactor_Probe* const probe = probes.back()->probe;
        std::atomic<bool> ready{false};
        std::thread remover([&] {
            ready = true;
            for (int i = 0; loop.reactor.remove_handler(probe, ALL | DONT_CALL) == -1; ++i) {
                if (i % 1000 == 999) {
                    std::this_thread::yield();
                }
            }
        });
        while (!ready) {
            std::this_thread::yield();
        }
        EXPECT_EQ(loop.reactor.register_handler(probe, READ), 0);
        remover.join();
        EXPECT_EQ(probe->references(), 1);
    }
    EXPECT_EQ(loop.reactor.work_pending(), 0);
}

TEST(Epoll_Reactor_Notify, closes_from_another_thread_than_the_loops)
{
    Running_Loop loop;
    Pair_Probe a;
    ASSERT_EQ(loop.reactor.register_handler(a.probe, READ), 0);
    a.release();
    loop.run([] {});
    loop.stop();
    EXPECT_EQ(loop.reactor.close(), 0);
    EXPECT_FALSE(a.record.alive);
    ASSERT_EQ(a.record.closes.size(), 1U);
    EXPECT_EQ(a.record.closes[0].left, 0);
}
