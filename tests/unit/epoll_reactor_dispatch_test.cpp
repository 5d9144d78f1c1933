#include "support/epoll_reactor.h"

#include "tests/support/reactor_probe.h"

#include <ace/Handle_Set.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>

#include <algorithm>
#include <functional>
#include <memory>
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
using Probe = Pair_Probe;

} // namespace

TEST(Epoll_Reactor_Dispatch, reports_input_until_it_has_been_read)
{
    Loop loop;
    Probe a;
    ASSERT_EQ(loop.reactor.register_handler(a.probe, READ), 0);
    EXPECT_EQ(loop.round(), 0);
    a.pair.send();
    EXPECT_EQ(loop.round(), 1);
    EXPECT_EQ(loop.round(), 1);
    a.pair.drain();
    EXPECT_EQ(loop.round(), 0);
    EXPECT_EQ(a.record.inputs, 2);
    EXPECT_THAT(a.record.handles, ElementsAre(a.pair.here, a.pair.here));
}

TEST(Epoll_Reactor_Dispatch, one_round_serves_every_handler_that_is_ready)
{
    Loop loop;
    std::vector<std::unique_ptr<Probe>> probes;
    for (int i = 0; i < 300; ++i) {
        probes.push_back(std::make_unique<Probe>());
        ASSERT_EQ(loop.reactor.register_handler(probes.back()->probe, READ), 0);
        probes.back()->pair.send();
    }
    EXPECT_EQ(loop.round(), 300);
}

TEST(Epoll_Reactor_Dispatch, serves_descriptors_above_1024)
{
    Loop loop;
    Reactor_Pair pair;
    for (const int least : {1024, 5000}) {
        const int high = ::fcntl(pair.here, F_DUPFD_CLOEXEC, least);
        ASSERT_GE(high, least);
        Held_Probe held_probe(high);
        Reactor_Record& record = held_probe.record;
        Reactor_Probe* const probe = held_probe.probe;
        ASSERT_EQ(loop.reactor.register_handler(probe, READ), 0);
        pair.send();
        EXPECT_EQ(loop.round(), 1);
        EXPECT_THAT(record.handles, ElementsAre(high));
        EXPECT_EQ(loop.reactor.remove_handler(probe, ALL | DONT_CALL), 0);
        pair.drain();
        ::close(high);
    }
    EXPECT_GE(loop.reactor.size(), 5000U);
}

TEST(Epoll_Reactor_Dispatch, a_hang_up_without_input_goes_to_handle_input)
{
    Loop loop;
    int ends[2];
    ASSERT_EQ(::pipe2(ends, O_NONBLOCK | O_CLOEXEC), 0);
    Reactor_Record record;
    Reactor_Probe* const probe = new Reactor_Probe(ends[0], record);
    probe->on_input = [&](ACE_HANDLE handle) {
        char byte = 0;
        return ::read(handle, &byte, 1) == 0 ? -1 : 0;
    };
    ASSERT_EQ(loop.reactor.register_handler(probe, READ), 0);
    probe->remove_reference();
    ::close(ends[1]);
    EXPECT_EQ(loop.round(), 1);
    EXPECT_EQ(record.inputs, 1);
    EXPECT_FALSE(record.alive);
    ::close(ends[0]);
}

TEST(Epoll_Reactor_Dispatch, an_error_goes_to_handle_output_when_only_output_is_wanted)
{
    Loop loop;
    int ends[2];
    ASSERT_EQ(::pipe2(ends, O_NONBLOCK | O_CLOEXEC), 0);
    const std::string bytes(4096, 'x');
    while (::write(ends[1], bytes.data(), bytes.size()) > 0) {
    }
    Held_Probe held_probe(ends[1]);
    Reactor_Record& record = held_probe.record;
    Reactor_Probe* const probe = held_probe.probe;
    ASSERT_EQ(loop.reactor.register_handler(probe, WRITE), 0);
    EXPECT_EQ(loop.round(), 0);
    ::close(ends[0]);
    EXPECT_EQ(loop.round(), 1);
    EXPECT_EQ(record.outputs, 1);
    EXPECT_EQ(record.inputs, 0);
    ASSERT_EQ(loop.reactor.remove_handler(probe, ALL), 0);
    ::close(ends[1]);
}

TEST(Epoll_Reactor_Dispatch, a_hang_up_goes_to_handle_exception_when_nothing_else_is_wanted)
{
    Loop loop;
    Probe a;
    ASSERT_EQ(loop.reactor.register_handler(a.probe, EXCEPT), 0);
    EXPECT_EQ(loop.round(), 0);
    a.pair.close_there();
    EXPECT_EQ(loop.round(), 1);
    EXPECT_EQ(a.record.exceptions, 1);
}

TEST(Epoll_Reactor_Dispatch, urgent_data_goes_to_handle_exception_and_a_connection_to_handle_input)
{
    Loop loop;
    const int listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    ASSERT_EQ(::bind(listener, reinterpret_cast<sockaddr*>(&address), length), 0);
    ASSERT_EQ(::listen(listener, 1), 0);
    ASSERT_EQ(::getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length), 0);

    Held_Probe held_acceptor(listener);
    Reactor_Record& acceptor_record = held_acceptor.record;
    Reactor_Probe* const acceptor = held_acceptor.probe;
    int accepted = -1;
    acceptor->on_input = [&](ACE_HANDLE handle) {
        accepted = ::accept4(handle, nullptr, nullptr, SOCK_CLOEXEC);
        return -1;
    };
    ASSERT_EQ(loop.reactor.register_handler(acceptor, ACE_Event_Handler::ACCEPT_MASK), 0);
    const int client = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ASSERT_EQ(::connect(client, reinterpret_cast<sockaddr*>(&address), length), 0);
    EXPECT_EQ(loop.round(), 1);
    ASSERT_NE(accepted, -1);
    // The -1 has taken the ACCEPT_MASK, of which handle_close hears as READ_MASK.
    ASSERT_EQ(acceptor_record.closes.size(), 1U);
    EXPECT_EQ(acceptor_record.closes[0].mask, READ);
    EXPECT_EQ(acceptor_record.closes[0].left, 0);

    Held_Probe held_probe(accepted);
    Reactor_Record& record = held_probe.record;
    Reactor_Probe* const probe = held_probe.probe;
    ASSERT_EQ(loop.reactor.register_handler(probe, READ | EXCEPT), 0);
    ASSERT_EQ(::send(client, "!", 1, MSG_OOB), 1);
    EXPECT_EQ(loop.round(), 1);
    EXPECT_EQ(record.exceptions, 1);
    EXPECT_EQ(record.inputs, 0);
    ASSERT_EQ(loop.reactor.remove_handler(probe, ALL), 0);
    ::close(client);
    ::close(accepted);
    ::close(listener);
}

TEST(Epoll_Reactor_Dispatch, connect_mask_means_output_and_input)
{
    Loop loop;
    Probe a;
    ASSERT_EQ(loop.reactor.register_handler(a.probe, ACE_Event_Handler::CONNECT_MASK), 0);
    EXPECT_EQ(loop.round(), 1);
    EXPECT_EQ(a.record.outputs, 1);
    EXPECT_EQ(a.record.inputs, 0);
    a.pair.fill();
    a.pair.send();
    EXPECT_EQ(loop.round(), 1);
    EXPECT_EQ(a.record.inputs, 1);
}

TEST(Epoll_Reactor_Dispatch, calls_for_output_before_input)
{
    Loop loop;
    Probe a;
    std::string order;
    a.probe->on_input = [&](ACE_HANDLE) {
        order += 'i';
        return 0;
    };
    a.probe->on_output = [&](ACE_HANDLE) {
        order += 'o';
        return 0;
    };
    ASSERT_EQ(loop.reactor.register_handler(a.probe, READ | WRITE), 0);
    a.pair.send();
    EXPECT_EQ(loop.round(), 2);
    EXPECT_EQ(order, "oi");
}

TEST(Epoll_Reactor_Dispatch, an_output_upcall_that_gives_up_input_gets_none)
{
    struct Row {
        const char* name;
        std::function<int(Loop&, Probe&)> act;
        bool closed;
    };
    const Row rows[] = {
        {"remove", [](Loop& loop, Probe& a) { return loop.reactor.remove_handler(a.probe, ALL); },
         true},
        {"suspend", [](Loop& loop, Probe& a) { return loop.reactor.suspend_handler(a.probe); },
         false},
        {"cancel",
         [](Loop& loop, Probe& a) { return loop.reactor.cancel_wakeup(a.probe, READ) - 3; }, false},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        Loop loop;
        Probe a;
        a.probe->on_output = [&](ACE_HANDLE) { return row.act(loop, a); };
        ASSERT_EQ(loop.reactor.register_handler(a.probe, READ | WRITE), 0);
        a.pair.send();
        EXPECT_EQ(loop.round(), 1);
        EXPECT_EQ(a.record.inputs, 0);
        EXPECT_EQ(a.record.closes.size(), row.closed ? 1U : 0U);
    }
}

TEST(Epoll_Reactor_Dispatch, minus_1_from_one_event_leaves_the_others_registered)
{
    Loop loop;
    Probe a;
    a.probe->on_output = [](ACE_HANDLE) { return -1; };
    ASSERT_EQ(loop.reactor.register_handler(a.probe, READ | WRITE), 0);
    EXPECT_EQ(loop.round(), 1);
    ASSERT_EQ(a.record.closes.size(), 1U);
    EXPECT_EQ(a.record.closes[0].mask, WRITE);
    EXPECT_EQ(a.record.closes[0].left, static_cast<int>(READ));
    EXPECT_EQ(loop.mask(a.probe), static_cast<int>(READ));
    a.pair.send();
    EXPECT_EQ(loop.round(), 1);
    EXPECT_EQ(a.record.inputs, 1);
}

// Handlers that remove themselves or each other

TEST(Epoll_Reactor_Dispatch, a_handler_that_removes_itself_is_closed_once_whatever_it_returns)
{
    for (const int result : {-1, 0, 1}) {
        SCOPED_TRACE(result);
        Loop loop;
        Probe a;
        a.probe->on_input = [&, probe = a.probe](ACE_HANDLE) {
            EXPECT_EQ(loop.reactor.remove_handler(probe, ALL), 0);
            EXPECT_TRUE(a.record.alive);
            return result;
        };
        ASSERT_EQ(loop.reactor.register_handler(a.probe, READ), 0);
        a.release();
        a.pair.send();
        EXPECT_EQ(loop.round(), 1);
        EXPECT_EQ(a.record.closes.size(), 1U);
        EXPECT_FALSE(a.record.alive);
        EXPECT_EQ(loop.round(), 0);
    }
}

TEST(Epoll_Reactor_Dispatch, a_handler_that_leaves_silently_is_not_closed_whatever_it_returns)
{
    for (const int result : {-1, 0, 1}) {
        SCOPED_TRACE(result);
        Loop loop;
        Probe a;
        // As when another thread has taken the handler over, and has finished with it already: the
        // upcall's reference is the last one.
        a.probe->on_input = [&](ACE_HANDLE) {
            EXPECT_EQ(loop.reactor.remove_handler(a.probe, ALL | DONT_CALL), 0);
            a.release();
            EXPECT_TRUE(a.record.alive);
            return result;
        };
        ASSERT_EQ(loop.reactor.register_handler(a.probe, READ), 0);
        a.pair.send();
        EXPECT_EQ(loop.round(), 1);
        EXPECT_TRUE(a.record.closes.empty());
        EXPECT_FALSE(a.record.alive);
        EXPECT_EQ(loop.round(), 0);
    }
}

TEST(Epoll_Reactor_Dispatch,
     the_result_of_an_upcall_does_not_concern_a_handler_that_took_the_handle_over)
{
    for (const int result : {-1, 1}) {
        SCOPED_TRACE(result);
        Loop loop;
        Probe a;
        Held_Probe held_other(a.pair.here);
        Reactor_Record& other_record = held_other.record;
        Reactor_Probe* const other = held_other.probe;
        a.probe->on_input = [&](ACE_HANDLE) {
            EXPECT_EQ(loop.reactor.remove_handler(a.probe, ALL | DONT_CALL), 0);
            EXPECT_EQ(loop.reactor.register_handler(other, READ), 0);
            a.pair.drain();
            return result;
        };
        ASSERT_EQ(loop.reactor.register_handler(a.probe, READ), 0);
        a.pair.send();
        EXPECT_EQ(loop.round(), 1);
        EXPECT_EQ(loop.round(), 0);
        EXPECT_TRUE(other_record.closes.empty());
        EXPECT_EQ(other_record.inputs, 0);
        EXPECT_EQ(loop.mask(other), static_cast<int>(READ));
    }
}

TEST(Epoll_Reactor_Dispatch, the_same_handler_registered_anew_in_its_upcall_is_another_registration)
{
    Loop loop;
    Probe a;
    a.probe->on_input = [&](ACE_HANDLE) {
        EXPECT_EQ(loop.reactor.remove_handler(a.probe, ALL | DONT_CALL), 0);
        EXPECT_EQ(loop.reactor.register_handler(a.probe, READ), 0);
        return -1;
    };
    ASSERT_EQ(loop.reactor.register_handler(a.probe, READ), 0);
    a.pair.send();
    EXPECT_EQ(loop.round(), 1);
    EXPECT_TRUE(a.record.closes.empty());
    EXPECT_EQ(loop.mask(a.probe), static_cast<int>(READ));
    EXPECT_EQ(a.probe->references(), 2);
}

TEST(Epoll_Reactor_Dispatch, a_handler_removed_by_another_one_of_the_same_round_is_not_called)
{
    Loop loop;
    Probe a;
    Probe b;
    a.probe->on_input = [&](ACE_HANDLE) { return loop.reactor.remove_handler(b.probe, ALL); };
    b.probe->on_input = [&](ACE_HANDLE) { return loop.reactor.remove_handler(a.probe, ALL); };
    ASSERT_EQ(loop.reactor.register_handler(a.probe, READ), 0);
    ASSERT_EQ(loop.reactor.register_handler(b.probe, READ), 0);
    a.pair.send();
    b.pair.send();
    EXPECT_EQ(loop.round(), 1);
    EXPECT_EQ(a.record.inputs + b.record.inputs, 1);
    EXPECT_EQ(a.record.closes.size() + b.record.closes.size(), 1U);
}

TEST(Epoll_Reactor_Dispatch, a_handler_suspended_by_another_one_of_the_same_round_is_not_called)
{
    Loop loop;
    Probe a;
    Probe b;
    a.probe->on_input = [&](ACE_HANDLE) { return loop.reactor.suspend_handler(b.probe); };
    b.probe->on_input = [&](ACE_HANDLE) { return loop.reactor.suspend_handler(a.probe); };
    ASSERT_EQ(loop.reactor.register_handler(a.probe, READ), 0);
    ASSERT_EQ(loop.reactor.register_handler(b.probe, READ), 0);
    a.pair.send();
    b.pair.send();
    EXPECT_EQ(loop.round(), 1);
    EXPECT_EQ(a.record.inputs + b.record.inputs, 1);
    ASSERT_EQ(loop.reactor.resume_handlers(), 0);
    EXPECT_EQ(loop.round(), 1);
    EXPECT_EQ(a.record.inputs + b.record.inputs, 2);
}

TEST(Epoll_Reactor_Dispatch, an_event_does_not_reach_the_next_owner_of_its_descriptor)
{
    Loop loop;
    Probe a;
    Probe b;
    Reactor_Pair silent;
    std::unique_ptr<Held_Probe> next;
    // Whichever comes first gives the other one's descriptor number to a new handler.
    const auto replace = [&](Probe& other) {
        const int number = other.pair.here;
        EXPECT_EQ(loop.reactor.remove_handler(other.probe, ALL), 0);
        EXPECT_EQ(::dup2(silent.here, number), number);
        next = std::make_unique<Held_Probe>(number);
        EXPECT_EQ(loop.reactor.register_handler(next->probe, READ), 0);
        return 0;
    };
    a.probe->on_input = [&](ACE_HANDLE) { return a.pair.drain() + replace(b); };
    b.probe->on_input = [&](ACE_HANDLE) { return b.pair.drain() + replace(a); };
    ASSERT_EQ(loop.reactor.register_handler(a.probe, READ), 0);
    ASSERT_EQ(loop.reactor.register_handler(b.probe, READ), 0);
    a.pair.send();
    b.pair.send();
    EXPECT_EQ(loop.round(), 1);
    EXPECT_EQ(next->record.inputs, 0);
    silent.send();
    EXPECT_EQ(loop.round(), 1);
    EXPECT_EQ(next->record.inputs, 1);
}

TEST(Epoll_Reactor_Dispatch, handle_close_may_remove_its_handler_silently_but_not_close_it_again)
{
    Loop loop;
    Probe a;
    int again = 0;
    int again_error = 0;
    int silently = -1;
    int after = 0;
    a.probe->on_close = [&, probe = a.probe] {
        again = loop.reactor.remove_handler(probe, ALL);
        again_error = errno;
        silently = loop.reactor.remove_handler(probe, ALL | DONT_CALL);
        after = loop.mask(probe);
    };
    ASSERT_EQ(loop.reactor.register_handler(a.probe, READ), 0);
    a.release();
    EXPECT_EQ(loop.reactor.remove_handler(a.pair.here, ALL), 0);
    EXPECT_EQ(again, -1);
    EXPECT_EQ(again_error, ENOENT);
    EXPECT_EQ(silently, 0);
    EXPECT_EQ(after, -1);
    EXPECT_EQ(a.record.closes.size(), 1U);
    EXPECT_FALSE(a.record.alive);
}

TEST(Epoll_Reactor_Dispatch, a_handle_can_be_registered_again_while_its_handler_is_in_handle_close)
{
    Loop loop;
    Probe a;
    Held_Probe held_next(a.pair.here);
    Reactor_Record& next_record = held_next.record;
    Reactor_Probe* const next = held_next.probe;
    a.probe->on_close = [&] { EXPECT_EQ(loop.reactor.register_handler(next, READ), 0); };
    ASSERT_EQ(loop.reactor.register_handler(a.probe, READ), 0);
    a.release();
    EXPECT_EQ(loop.reactor.remove_handler(a.pair.here, ALL), 0);
    EXPECT_FALSE(a.record.alive);
    EXPECT_EQ(loop.mask(next), static_cast<int>(READ));
    EXPECT_EQ(next->references(), 2);
    a.pair.send();
    EXPECT_EQ(loop.round(), 1);
    EXPECT_EQ(next_record.inputs, 1);
}

TEST(Epoll_Reactor_Dispatch, a_removed_handler_is_out_of_the_epoll_set)
{
    Loop loop;
    Probe a;
    ASSERT_EQ(loop.reactor.register_handler(a.probe, READ), 0);
    a.pair.close_there();
    ASSERT_EQ(loop.reactor.remove_handler(a.probe, ALL), 0);
    EXPECT_EQ(loop.reactor.work_pending(), 0);
}

// Handlers that ask to be called again

TEST(Epoll_Reactor_Dispatch, a_positive_result_calls_again_without_new_input)
{
    Loop loop;
    Probe a;
    int left = 3;
    a.probe->on_input = [&](ACE_HANDLE) {
        a.pair.drain();
        return --left > 0 ? 1 : 0;
    };
    ASSERT_EQ(loop.reactor.register_handler(a.probe, READ), 0);
    a.pair.send();
    for (int round = 1; round <= 3; ++round) {
        // Without a limit: a round that waited for the descriptor would never end.
        EXPECT_EQ(loop.reactor.handle_events(), 1);
        EXPECT_EQ(a.record.inputs, round);
    }
    EXPECT_EQ(loop.round(), 0);
    EXPECT_THAT(a.record.handles, ElementsAre(a.pair.here, a.pair.here, a.pair.here));
    EXPECT_EQ(a.probe->references(), 2);
}

TEST(Epoll_Reactor_Dispatch, who_is_made_ready_is_called_once_without_new_input)
{
    Loop loop;
    Probe a;
    ASSERT_EQ(loop.reactor.register_handler(a.probe, READ), 0);
    ASSERT_EQ(loop.reactor.ready_ops(a.probe, READ, ACE_Reactor::ADD_MASK), 0);
    EXPECT_EQ(a.probe->references(), 2) << "nothing is held beyond the registration";
    EXPECT_EQ(loop.reactor.handle_events(), 1);
    EXPECT_EQ(loop.round(), 0);
    EXPECT_THAT(a.record.handles, ElementsAre(a.pair.here));

    ASSERT_EQ(loop.reactor.ready_ops(a.pair.here, READ, ACE_Reactor::ADD_MASK), 0);
    EXPECT_EQ(loop.reactor.handle_events(), 1);
    EXPECT_EQ(a.record.inputs, 2);
}

TEST(Epoll_Reactor_Dispatch, who_is_made_ready_by_another_thread_ends_the_wait)
{
    Loop loop;
    Probe a;
    ASSERT_EQ(loop.reactor.register_handler(a.probe, READ), 0);
    std::thread other([&] { loop.reactor.ready_ops(a.probe, READ, ACE_Reactor::ADD_MASK); });
    while (a.record.inputs == 0) {
        ASSERT_NE(loop.reactor.handle_events(), -1); // without a limit
    }
    other.join();
    EXPECT_EQ(a.record.inputs, 1);
}

TEST(Epoll_Reactor_Dispatch, who_is_made_ready_is_not_called_when_it_has_left_or_is_suspended)
{
    Loop loop;
    Probe removed;
    Probe suspended;
    for (Probe* const it : {&removed, &suspended}) {
        ASSERT_EQ(loop.reactor.register_handler(it->probe, READ), 0);
        ASSERT_EQ(loop.reactor.ready_ops(it->probe, READ, ACE_Reactor::ADD_MASK), 0);
    }
    ASSERT_EQ(loop.reactor.remove_handler(removed.probe, READ), 0);
    ASSERT_EQ(loop.reactor.suspend_handler(suspended.probe), 0);
    EXPECT_EQ(loop.round(), 0);
    EXPECT_EQ(removed.record.inputs, 0);
    EXPECT_EQ(suspended.record.inputs, 0);
}

TEST(Epoll_Reactor_Dispatch, only_a_handler_that_wants_the_event_can_be_made_ready)
{
    Loop loop;
    Probe a;
    Probe stranger;
    ASSERT_EQ(loop.reactor.register_handler(a.probe, READ), 0);
    EXPECT_EQ(loop.reactor.ready_ops(stranger.probe, READ, ACE_Reactor::ADD_MASK), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(loop.reactor.ready_ops(a.probe, WRITE, ACE_Reactor::ADD_MASK), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(loop.reactor.ready_ops(a.probe, 0, ACE_Reactor::ADD_MASK), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(loop.implementation.ready_ops(static_cast<ACE_Event_Handler*>(nullptr), READ,
                                            ACE_Reactor::ADD_MASK),
              -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(loop.round(), 0);
}

TEST(Epoll_Reactor_Dispatch, who_is_called_again_comes_after_the_others_of_the_round)
{
    Loop loop;
    Probe a;
    Probe b;
    std::string order;
    a.probe->on_input = [&](ACE_HANDLE) {
        order += 'a';
        a.pair.drain();
        return order.size() < 6 ? 1 : 0;
    };
    b.probe->on_input = [&](ACE_HANDLE) {
        order += 'b';
        return 0;
    };
    ASSERT_EQ(loop.reactor.register_handler(a.probe, READ), 0);
    ASSERT_EQ(loop.reactor.register_handler(b.probe, READ), 0);
    a.pair.send();
    EXPECT_EQ(loop.round(), 1);
    b.pair.send();
    EXPECT_EQ(loop.round(), 2);
    EXPECT_EQ(loop.round(), 2);
    EXPECT_EQ(loop.round(), 2);
    EXPECT_EQ(order, "abababa");
}

TEST(Epoll_Reactor_Dispatch, who_asks_for_it_is_called_again_at_once_and_so_often)
{
    Loop loop;
    Probe a;
    Probe b;
    std::string order;
    size_t wanted = 3;
    a.probe->on_input = [&](ACE_HANDLE) {
        a.pair.drain();
        order += 'a';
        const auto calls = static_cast<size_t>(std::count(order.begin(), order.end(), 'a'));
        return calls < wanted ? int{Epoll_Reactor::AGAIN_AT_ONCE} : 0;
    };
    b.probe->on_input = [&](ACE_HANDLE) {
        b.pair.drain();
        order += 'b';
        return 0;
    };
    ASSERT_EQ(loop.reactor.register_handler(a.probe, READ), 0);
    ASSERT_EQ(loop.reactor.register_handler(b.probe, READ), 0);
    a.pair.send();
    b.pair.send();
    EXPECT_EQ(loop.round(), 2);
    EXPECT_EQ(order, "aaab");

    // The rest follows in the next round.
    order.clear();
    wanted = Epoll_Reactor::MOST_IN_A_ROW + 2;
    a.pair.send();
    b.pair.send();
    EXPECT_EQ(loop.round(), 2);
    EXPECT_EQ(order, std::string(Epoll_Reactor::MOST_IN_A_ROW, 'a') + 'b');
    EXPECT_EQ(loop.round(), 1);
    EXPECT_EQ(order, std::string(Epoll_Reactor::MOST_IN_A_ROW, 'a') + "baa");
}

TEST(Epoll_Reactor_Dispatch, who_asks_to_be_called_at_once_is_not_when_it_has_left_or_is_suspended)
{
    for (const bool leaves : {true, false}) {
        SCOPED_TRACE(leaves);
        Loop loop;
        Probe a;
        a.probe->on_input = [&](ACE_HANDLE handle) {
            const int result = leaves ? loop.reactor.remove_handler(a.probe, READ | DONT_CALL)
                                      : loop.reactor.suspend_handler(handle);
            EXPECT_EQ(result, 0);
            return int{Epoll_Reactor::AGAIN_AT_ONCE};
        };
        ASSERT_EQ(loop.reactor.register_handler(a.probe, READ), 0);
        a.pair.send();
        EXPECT_EQ(loop.round(), 1);
        EXPECT_EQ(loop.round(), 0);
        EXPECT_EQ(a.record.inputs, 1);
    }
}

TEST(Epoll_Reactor_Dispatch,
     who_is_called_again_is_called_once_a_round_although_its_descriptor_is_ready)
{
    Loop loop;
    Probe a;
    a.probe->on_input = [](ACE_HANDLE) { return 1; };
    ASSERT_EQ(loop.reactor.register_handler(a.probe, READ), 0);
    a.pair.send();
    for (int round = 0; round < 4; ++round) {
        EXPECT_EQ(loop.round(), 1);
    }
    EXPECT_EQ(a.record.inputs, 4);
}

TEST(Epoll_Reactor_Dispatch, who_wants_to_be_called_again_is_not_when_it_has_left_or_is_suspended)
{
    struct Row {
        const char* name;
        std::function<void(Loop&, Probe&)> act;
    };
    const Row rows[] = {
        {"removed", [](Loop& loop, Probe& a) { loop.reactor.remove_handler(a.probe, ALL); }},
        {"silently removed",
         [](Loop& loop, Probe& a) { loop.reactor.remove_handler(a.probe, ALL | DONT_CALL); }},
        {"suspended", [](Loop& loop, Probe& a) { loop.reactor.suspend_handler(a.probe); }},
        {"not for this event",
         [](Loop& loop, Probe& a) {
             loop.reactor.mask_ops(a.probe, EXCEPT, ACE_Reactor::SET_MASK);
         }},
        {"registered anew",
         [](Loop& loop, Probe& a) {
             loop.reactor.remove_handler(a.probe, ALL | DONT_CALL);
             loop.reactor.register_handler(a.probe, READ);
         }},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        Loop loop;
        Probe a;
        Probe b;
        a.probe->on_input = [&](ACE_HANDLE) {
            a.pair.drain();
            return 1;
        };
        b.probe->on_input = [&](ACE_HANDLE) {
            b.pair.drain();
            row.act(loop, a);
            return 0;
        };
        ASSERT_EQ(loop.reactor.register_handler(a.probe, READ), 0);
        ASSERT_EQ(loop.reactor.register_handler(b.probe, READ), 0);
        a.pair.send();
        EXPECT_EQ(loop.round(), 1);
        b.pair.send();
        EXPECT_EQ(loop.round(), 1);
        EXPECT_EQ(a.record.inputs, 1);
        EXPECT_EQ(loop.round(), 0);
    }
}

TEST(Epoll_Reactor_Dispatch, who_waits_to_be_called_again_does_not_hold_back_its_other_events)
{
    Loop loop;
    Probe a;
    a.probe->on_output = [&](ACE_HANDLE) { return a.record.outputs < 2 ? 1 : 0; };
    a.probe->on_input = [&](ACE_HANDLE) { return a.pair.drain(); };
    ASSERT_EQ(loop.reactor.register_handler(a.probe, READ | WRITE), 0);
    EXPECT_EQ(loop.round(), 1);
    a.pair.fill();
    a.pair.send();
    EXPECT_EQ(loop.round(), 2);
    EXPECT_EQ(a.record.inputs, 1);
    EXPECT_EQ(a.record.outputs, 2);
}

// Suspending

TEST(Epoll_Reactor_Dispatch, a_suspended_handler_is_not_called_until_it_is_resumed)
{
    Loop loop;
    Probe a;
    ASSERT_EQ(loop.reactor.register_handler(a.probe, READ), 0);
    ASSERT_EQ(loop.reactor.suspend_handler(a.probe), 0);
    ASSERT_EQ(loop.reactor.suspend_handler(a.probe), 0);
    a.pair.send();
    EXPECT_EQ(loop.round(), 0);
    ASSERT_EQ(loop.reactor.resume_handler(a.probe), 0);
    ASSERT_EQ(loop.reactor.resume_handler(a.probe), 0);
    EXPECT_EQ(loop.round(), 1);
    EXPECT_EQ(a.record.inputs, 1);
}

TEST(Epoll_Reactor_Dispatch, suspending_inside_an_upcall_holds)
{
    for (const int result : {0, 1}) {
        SCOPED_TRACE(result);
        Loop loop;
        Probe a;
        a.probe->on_input = [&](ACE_HANDLE) {
            EXPECT_EQ(loop.reactor.suspend_handler(a.probe), 0);
            return result;
        };
        ASSERT_EQ(loop.reactor.register_handler(a.probe, READ), 0);
        a.pair.send();
        EXPECT_EQ(loop.round(), 1);
        EXPECT_EQ(loop.round(), 0);
        EXPECT_EQ(loop.round(), 0);
        ASSERT_EQ(loop.reactor.resume_handler(a.probe), 0);
        EXPECT_EQ(loop.round(), 1);
    }
}

TEST(Epoll_Reactor_Dispatch, a_hang_up_of_a_suspended_handler_or_one_without_events_wakes_nobody)
{
    Loop loop;
    Probe suspended;
    Probe masked;
    ASSERT_EQ(loop.reactor.register_handler(suspended.probe, READ), 0);
    ASSERT_EQ(loop.reactor.register_handler(masked.probe, READ), 0);
    ASSERT_EQ(loop.reactor.suspend_handler(suspended.probe), 0);
    ASSERT_EQ(loop.reactor.cancel_wakeup(masked.probe, READ), static_cast<int>(READ));
    suspended.pair.close_there();
    masked.pair.close_there();
    EXPECT_EQ(loop.reactor.work_pending(), 0);
    ASSERT_EQ(loop.reactor.resume_handler(suspended.probe), 0);
    ASSERT_EQ(loop.reactor.schedule_wakeup(masked.probe, READ), 0);
    EXPECT_EQ(loop.reactor.work_pending(), 1);
    EXPECT_EQ(loop.round(), 2);
}

TEST(Epoll_Reactor_Dispatch, events_asked_for_while_suspended_count_when_resumed)
{
    Loop loop;
    Probe a;
    ASSERT_EQ(loop.reactor.register_handler(a.probe, READ), 0);
    ASSERT_EQ(loop.reactor.suspend_handler(a.probe), 0);
    ASSERT_EQ(loop.reactor.register_handler(a.probe, WRITE), 0);
    EXPECT_EQ(loop.round(), 0);
    ASSERT_EQ(loop.reactor.resume_handler(a.probe), 0);
    EXPECT_EQ(loop.round(), 1);
    EXPECT_EQ(a.record.outputs, 1);
}

TEST(Epoll_Reactor_Dispatch, suspends_and_resumes_all_by_set_or_by_handle)
{
    Loop loop;
    Probe a;
    Probe b;
    ACE_Handle_Set set;
    set.set_bit(a.pair.here);
    set.set_bit(b.pair.here);
    struct Row {
        const char* name;
        std::function<int()> suspend;
        std::function<int()> resume;
    };
    const Row rows[] = {
        {"all", [&] { return loop.reactor.suspend_handlers(); },
         [&] { return loop.reactor.resume_handlers(); }},
        {"set", [&] { return loop.reactor.suspend_handler(set); },
         [&] { return loop.reactor.resume_handler(set); }},
        {"handle",
         [&] {
             return loop.reactor.suspend_handler(a.pair.here) +
                    loop.reactor.suspend_handler(b.pair.here);
         },
         [&] {
             return loop.reactor.resume_handler(a.pair.here) +
                    loop.reactor.resume_handler(b.pair.here);
         }},
    };
    ASSERT_EQ(loop.reactor.register_handler(a.probe, READ), 0);
    ASSERT_EQ(loop.reactor.register_handler(b.probe, READ), 0);
    a.pair.send();
    b.pair.send();
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(row.suspend(), 0);
        EXPECT_EQ(loop.round(), 0);
        EXPECT_EQ(row.resume(), 0);
        EXPECT_EQ(loop.round(), 2);
    }
}

TEST(Epoll_Reactor_Dispatch, registers_and_removes_a_handler_for_a_set_of_handles)
{
    Loop loop;
    Probe a;
    Reactor_Pair second;
    ACE_Handle_Set set;
    set.set_bit(a.pair.here);
    set.set_bit(second.here);
    ASSERT_EQ(loop.reactor.register_handler(set, a.probe, READ), 0);
    EXPECT_EQ(a.probe->references(), 3);
    second.send();
    EXPECT_EQ(loop.round(), 1);
    EXPECT_THAT(a.record.handles, ElementsAre(second.here));
    ASSERT_EQ(loop.reactor.remove_handler(set, ALL | DONT_CALL), 0);
    EXPECT_EQ(a.probe->references(), 1);
    EXPECT_EQ(loop.reactor.remove_handler(set, ALL | DONT_CALL), -1);
}
