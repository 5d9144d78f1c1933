#include "support/epoll_reactor.h"

#include "tests/support/reactor_probe.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <memory>
#include <set>
#include <vector>

namespace {

constexpr ACE_Reactor_Mask READ = ACE_Event_Handler::READ_MASK;
constexpr ACE_Reactor_Mask WRITE = ACE_Event_Handler::WRITE_MASK;
constexpr ACE_Reactor_Mask ALL = ACE_Event_Handler::ALL_EVENTS_MASK;
constexpr ACE_Reactor_Mask DONT_CALL = ACE_Event_Handler::DONT_CALL;

using Loop = Reactor_Loop;
using Probe = Pair_Probe;

std::set<int> open_descriptors()
{
    std::set<int> open;
    for (int fd = 0; fd < 4096; ++fd) {
        if (::fcntl(fd, F_GETFD) != -1) {
            open.insert(fd);
        }
    }
    return open;
}

} // namespace

// What mask_ops(GET_MASK) answers, by situation

TEST(Epoll_Reactor, mask_of_a_registered_handler_is_what_it_asked_for)
{
    Loop loop;
    Probe a;
    ASSERT_EQ(loop.reactor.register_handler(a.probe, READ), 0);
    EXPECT_EQ(loop.mask(a.probe), static_cast<int>(READ));
    EXPECT_EQ(loop.mask(a.pair.here), static_cast<int>(READ));
}

TEST(Epoll_Reactor, mask_is_0_inside_handle_close_after_handle_input_returned_minus_1)
{
    Loop loop;
    Probe highest;
    Probe a;
    ASSERT_EQ(loop.reactor.register_handler(highest.probe, READ), 0);
    a.probe->on_input = [](ACE_HANDLE) { return -1; };
    ASSERT_EQ(loop.reactor.register_handler(a.probe, READ), 0);
    a.pair.send();
    EXPECT_EQ(loop.round(), 1);
    ASSERT_EQ(a.record.closes.size(), 1U);
    EXPECT_EQ(a.record.closes[0].handle, a.pair.here);
    EXPECT_EQ(a.record.closes[0].mask, READ);
    EXPECT_EQ(a.record.closes[0].left, 0);
    EXPECT_EQ(loop.mask(a.probe), -1);
}

TEST(Epoll_Reactor, mask_of_what_was_never_registered_is_minus_1)
{
    Loop loop;
    Probe a;
    Probe b;
    ASSERT_EQ(loop.reactor.register_handler(b.probe, READ), 0);
    for (const ACE_HANDLE handle : {a.pair.here, b.pair.there, 1 << 20, ACE_INVALID_HANDLE}) {
        errno = 0;
        EXPECT_EQ(loop.mask(handle), -1) << handle;
        EXPECT_EQ(errno, ENOENT) << handle;
    }
    errno = 0;
    EXPECT_EQ(loop.mask(a.probe), -1);
    EXPECT_EQ(errno, ENOENT);
}

TEST(Epoll_Reactor, mask_is_minus_1_after_a_silent_removal)
{
    Loop loop;
    Probe a;
    ASSERT_EQ(loop.reactor.register_handler(a.probe, READ), 0);
    ASSERT_EQ(loop.reactor.remove_handler(a.probe, ALL | DONT_CALL), 0);
    EXPECT_EQ(loop.mask(a.probe), -1);
    EXPECT_TRUE(a.record.closes.empty());
}

TEST(Epoll_Reactor, mask_of_a_suspended_handler_stays)
{
    Loop loop;
    Probe a;
    ASSERT_EQ(loop.reactor.register_handler(a.probe, READ), 0);
    ASSERT_EQ(loop.reactor.suspend_handler(a.probe), 0);
    EXPECT_EQ(loop.mask(a.probe), static_cast<int>(READ));
}

TEST(Epoll_Reactor, mask_is_0_inside_handle_close_of_a_removed_suspended_handler)
{
    Loop loop;
    Probe a;
    ASSERT_EQ(loop.reactor.register_handler(a.probe, READ), 0);
    ASSERT_EQ(loop.reactor.suspend_handler(a.probe), 0);
    ASSERT_EQ(loop.reactor.remove_handler(a.probe, ALL), 0);
    ASSERT_EQ(a.record.closes.size(), 1U);
    EXPECT_EQ(a.record.closes[0].mask, 0x1ffU);
    EXPECT_EQ(a.record.closes[0].left, 0);
}

TEST(Epoll_Reactor, mask_is_0_inside_handle_close_when_the_reactor_closes)
{
    Loop loop;
    Probe a;
    Probe b;
    ASSERT_EQ(loop.reactor.register_handler(a.probe, READ), 0);
    ASSERT_EQ(loop.reactor.register_handler(b.probe, READ | WRITE), 0);
    ASSERT_EQ(loop.reactor.close(), 0);
    for (const Probe* closed : {&a, &b}) {
        ASSERT_EQ(closed->record.closes.size(), 1U);
        EXPECT_EQ(closed->record.closes[0].mask, 0x1ffU);
        EXPECT_EQ(closed->record.closes[0].left, 0);
        EXPECT_EQ(closed->probe->references(), 1);
    }
}

TEST(Epoll_Reactor, mask_of_a_stale_handler_is_minus_1_when_another_holds_its_handle)
{
    Loop loop;
    Probe a;
    Reactor_Record stale_record;
    ACE_Event_Handler_var stale(new Reactor_Probe(a.pair.here, stale_record));
    ASSERT_EQ(loop.reactor.register_handler(a.probe, READ), 0);
    EXPECT_EQ(loop.mask(stale.handler()), -1);
    EXPECT_EQ(loop.reactor.remove_handler(stale.handler(), ALL), -1);
    EXPECT_EQ(loop.mask(a.probe), static_cast<int>(READ));
    EXPECT_TRUE(stale_record.closes.empty());
}

TEST(Epoll_Reactor, removing_what_is_not_registered_fails_with_enoent)
{
    Loop loop;
    Probe a;
    Reactor_Record record;
    ACE_Event_Handler_var without_handle(new Reactor_Probe(ACE_INVALID_HANDLE, record));
    for (ACE_Event_Handler* const handler :
         {static_cast<ACE_Event_Handler*>(a.probe), without_handle.handler()}) {
        errno = 0;
        EXPECT_EQ(loop.reactor.remove_handler(handler, ALL), -1);
        EXPECT_EQ(errno, ENOENT);
        errno = 0;
        EXPECT_EQ(loop.reactor.suspend_handler(handler), -1);
        EXPECT_EQ(errno, ENOENT);
        errno = 0;
        EXPECT_EQ(loop.reactor.resume_handler(handler), -1);
        EXPECT_EQ(errno, ENOENT);
    }
    EXPECT_TRUE(a.record.closes.empty());
}

// References

TEST(Epoll_Reactor, a_registration_holds_one_reference_however_often_it_is_widened)
{
    Loop loop;
    Probe a;
    ASSERT_EQ(loop.reactor.register_handler(a.probe, READ), 0);
    EXPECT_EQ(a.probe->references(), 2);
    ASSERT_EQ(loop.reactor.register_handler(a.probe, WRITE), 0);
    EXPECT_EQ(a.probe->references(), 2);
    EXPECT_EQ(loop.mask(a.probe), static_cast<int>(READ | WRITE));
    ASSERT_EQ(loop.reactor.remove_handler(a.probe, WRITE), 0);
    EXPECT_EQ(a.probe->references(), 2);
    ASSERT_EQ(a.record.closes.size(), 1U);
    EXPECT_EQ(a.record.closes[0].mask, WRITE);
    EXPECT_EQ(a.record.closes[0].left, static_cast<int>(READ));
    ASSERT_EQ(loop.reactor.remove_handler(a.probe, READ | DONT_CALL), 0);
    EXPECT_EQ(a.probe->references(), 1);
    EXPECT_EQ(a.record.closes.size(), 1U);
}

TEST(Epoll_Reactor, an_upcall_holds_a_reference)
{
    Loop loop;
    Probe a;
    ACE_Event_Handler::Reference_Count inside = 0;
    a.probe->on_input = [&](ACE_HANDLE) {
        inside = a.probe->references();
        return a.pair.drain();
    };
    ASSERT_EQ(loop.reactor.register_handler(a.probe, READ), 0);
    a.pair.send();
    EXPECT_EQ(loop.round(), 1);
    EXPECT_EQ(inside, 3);
    EXPECT_EQ(a.probe->references(), 2);
}

TEST(Epoll_Reactor, minus_1_from_an_upcall_frees_a_handler_that_only_the_reactor_holds)
{
    Loop loop;
    Probe a;
    a.probe->on_input = [](ACE_HANDLE) { return -1; };
    ASSERT_EQ(loop.reactor.register_handler(a.probe, READ), 0);
    a.release();
    EXPECT_TRUE(a.record.alive);
    a.pair.send();
    EXPECT_EQ(loop.round(), 1);
    EXPECT_FALSE(a.record.alive);
}

TEST(Epoll_Reactor, the_last_reference_may_come_back_to_the_reactor_from_its_destructor)
{
    Loop loop;
    Probe a;
    int removed = 0;
    a.probe->on_destruction = [&, probe = a.probe] {
        removed = loop.reactor.remove_handler(probe, ALL | DONT_CALL);
        loop.reactor.cancel_timer(probe);
        loop.reactor.purge_pending_notifications(probe);
    };
    ASSERT_EQ(loop.reactor.register_handler(a.probe, READ), 0);
    a.release();
    ASSERT_EQ(loop.reactor.remove_handler(a.pair.here, ALL | DONT_CALL), 0);
    EXPECT_FALSE(a.record.alive);
    EXPECT_EQ(removed, -1);
}

// Refusals

TEST(Epoll_Reactor, refuses_a_handle_that_another_handler_holds)
{
    Loop loop;
    Probe a;
    Held_Probe held_other(a.pair.here);
    Reactor_Record& other_record = held_other.record;
    Reactor_Probe* const other = held_other.probe;
    ASSERT_EQ(loop.reactor.register_handler(a.probe, READ), 0);
    errno = 0;
    EXPECT_EQ(loop.reactor.register_handler(other, READ), -1);
    EXPECT_EQ(errno, EEXIST);
    EXPECT_EQ(other->references(), 1);
    a.pair.send();
    EXPECT_EQ(loop.round(), 1);
    EXPECT_EQ(a.record.inputs, 1);
    EXPECT_EQ(other_record.inputs, 0);
}

TEST(Epoll_Reactor, refuses_what_it_cannot_register)
{
    Loop loop;
    Probe a;
    a.pair.close_there();
    const ACE_HANDLE closed = ::dup(a.pair.here);
    ::close(closed);
    struct Row {
        ACE_HANDLE handle;
        ACE_Event_Handler* handler;
        ACE_Reactor_Mask mask;
        int error;
    };
    const Row rows[] = {
        {ACE_INVALID_HANDLE, a.probe, READ, EINVAL},
        {a.pair.here, nullptr, READ, EINVAL},
        {a.pair.here, a.probe, ACE_Event_Handler::NULL_MASK, EINVAL},
        {a.pair.here, a.probe, DONT_CALL, EINVAL},
        {a.pair.here, a.probe, ACE_Event_Handler::TIMER_MASK, EINVAL},
        {closed, a.probe, READ, EBADF},
        {INT_MAX, a.probe, READ, EBADF},
    };
    for (const Row& row : rows) {
        errno = 0;
        EXPECT_EQ(loop.implementation.register_handler(row.handle, row.handler, row.mask), -1);
        EXPECT_EQ(errno, row.error) << row.handle;
    }
    EXPECT_EQ(loop.implementation.register_handler(nullptr, READ), -1);
    EXPECT_EQ(loop.implementation.remove_handler(static_cast<ACE_Event_Handler*>(nullptr), READ),
              -1);
    EXPECT_EQ(a.probe->references(), 1);
}

TEST(Epoll_Reactor, says_enotsup_to_what_an_epoll_reactor_has_not)
{
    Loop loop;
    Probe a;
    size_t size = 0;
    Epoll_Reactor& reactor = loop.implementation;
    errno = 0;
    EXPECT_EQ(reactor.ready_ops(a.probe, READ, ACE_Reactor::GET_MASK), -1);
    EXPECT_EQ(errno, ENOTSUP);
    EXPECT_EQ(reactor.ready_ops(a.pair.here, READ, ACE_Reactor::GET_MASK), -1);
    EXPECT_EQ(reactor.current_info(a.pair.here, size), -1);
    EXPECT_EQ(reactor.register_handler(a.pair.here, a.pair.here, a.probe, READ), -1);
    EXPECT_EQ(reactor.resumable_handler(), 0);
    EXPECT_FALSE(reactor.uses_event_associations());
    EXPECT_EQ(reactor.max_notify_iterations(), -1);
}

// Masks and look-ups

TEST(Epoll_Reactor, mask_operations_answer_the_mask_before_and_take_effect)
{
    Loop loop;
    Probe a;
    ASSERT_EQ(loop.reactor.register_handler(a.probe, READ), 0);
    struct Row {
        int operation;
        ACE_Reactor_Mask mask;
        ACE_Reactor_Mask before;
        ACE_Reactor_Mask after;
        int upcalls;
    };
    const Row rows[] = {
        {ACE_Reactor::ADD_MASK, WRITE, READ, READ | WRITE, 1},
        {ACE_Reactor::CLR_MASK, READ, READ | WRITE, WRITE, 1},
        {ACE_Reactor::SET_MASK, READ, WRITE, READ, 0},
        {ACE_Reactor::CLR_MASK, READ | WRITE, READ, 0, 0},
        {ACE_Reactor::ADD_MASK, WRITE, 0, WRITE, 1},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(loop.reactor.mask_ops(a.probe, row.mask, row.operation),
                  static_cast<int>(row.before));
        EXPECT_EQ(loop.mask(a.pair.here), static_cast<int>(row.after));
        EXPECT_EQ(loop.round(), row.upcalls);
        EXPECT_EQ(a.probe->references(), 2);
    }
    errno = 0;
    EXPECT_EQ(loop.reactor.mask_ops(a.probe, READ, 99), -1);
    EXPECT_EQ(errno, EINVAL);
}

TEST(Epoll_Reactor, masks_cannot_be_added_inside_handle_close)
{
    Loop loop;
    Probe a;
    int added = 0;
    int cleared = -1;
    a.probe->on_close = [&] {
        added = loop.reactor.schedule_wakeup(a.probe, WRITE);
        cleared = loop.reactor.cancel_wakeup(a.probe, WRITE);
    };
    ASSERT_EQ(loop.reactor.register_handler(a.probe, READ), 0);
    ASSERT_EQ(loop.reactor.remove_handler(a.probe, ALL), 0);
    EXPECT_EQ(added, -1);
    EXPECT_EQ(cleared, 0);
    EXPECT_EQ(loop.mask(a.probe), -1);
}

TEST(Epoll_Reactor, look_ups_give_a_reference)
{
    Loop loop;
    Probe a;
    ASSERT_EQ(loop.reactor.register_handler(a.probe, READ), 0);
    EXPECT_EQ(loop.reactor.find_handler(a.pair.here), a.probe);
    EXPECT_EQ(a.probe->references(), 3);
    a.probe->remove_reference();
    ACE_Event_Handler* found = nullptr;
    EXPECT_EQ(loop.reactor.handler(a.pair.here, READ, &found), 0);
    EXPECT_EQ(found, a.probe);
    EXPECT_EQ(a.probe->references(), 3);
    a.probe->remove_reference();
    EXPECT_EQ(loop.reactor.handler(a.pair.here, READ), 0);
    EXPECT_EQ(loop.reactor.handler(a.pair.here, WRITE, &found), -1);
    EXPECT_EQ(a.probe->references(), 2);
    EXPECT_EQ(loop.reactor.find_handler(a.pair.there), nullptr);
    EXPECT_EQ(loop.reactor.find_handler(ACE_INVALID_HANDLE), nullptr);
}

// The reactor's own life

TEST(Epoll_Reactor, its_descriptors_are_closed_on_exec_and_on_close)
{
    const std::set<int> before = open_descriptors();
    {
        Epoll_Reactor reactor;
        ASSERT_TRUE(reactor.initialized());
        int own = 0;
        for (const int fd : open_descriptors()) {
            if (before.count(fd) == 0) {
                ++own;
                EXPECT_NE(::fcntl(fd, F_GETFD) & FD_CLOEXEC, 0) << fd;
            }
        }
        EXPECT_EQ(own, 3);
        EXPECT_EQ(reactor.close(), 0);
        EXPECT_EQ(open_descriptors(), before);
    }
    EXPECT_EQ(open_descriptors(), before);
}

TEST(Epoll_Reactor, close_frees_every_handler_and_is_harmless_again)
{
    Loop loop;
    std::vector<std::unique_ptr<Probe>> probes;
    for (int i = 0; i < 20; ++i) {
        probes.push_back(std::make_unique<Probe>());
        Probe& probe = *probes.back();
        ASSERT_EQ(loop.reactor.register_handler(probe.probe, i % 2 == 0 ? READ : READ | WRITE), 0);
        if (i % 3 == 0) {
            ASSERT_EQ(loop.reactor.suspend_handler(probe.probe), 0);
        }
        if (i % 5 == 0) {
            ASSERT_EQ(loop.reactor.cancel_wakeup(probe.probe, READ | WRITE) & 1, 1);
        }
        ASSERT_NE(loop.reactor.schedule_timer(probe.probe, nullptr, ACE_Time_Value(1000)), -1);
        ASSERT_EQ(loop.reactor.notify(probe.probe, READ), 0);
        probe.release();
    }
    EXPECT_EQ(loop.reactor.close(), 0);
    for (const auto& probe : probes) {
        EXPECT_FALSE(probe->record.alive);
        EXPECT_EQ(probe->record.inputs, 0);
        ASSERT_EQ(probe->record.closes.size(), 2U);
        EXPECT_EQ(probe->record.closes[0].handle, probe->pair.here);
        EXPECT_EQ(probe->record.closes[1].handle, ACE_INVALID_HANDLE);
        EXPECT_EQ(probe->record.closes[1].mask, ACE_Reactor_Mask{ACE_Event_Handler::TIMER_MASK});
    }
    EXPECT_EQ(loop.reactor.close(), 0);
}

TEST(Epoll_Reactor, close_frees_who_waits_to_be_called_again)
{
    Loop loop;
    Probe a;
    a.probe->on_input = [](ACE_HANDLE) { return 1; };
    ASSERT_EQ(loop.reactor.register_handler(a.probe, READ), 0);
    a.pair.send();
    EXPECT_EQ(loop.round(), 1);
    a.release();
    EXPECT_EQ(loop.reactor.close(), 0);
    EXPECT_FALSE(a.record.alive);
    ASSERT_EQ(loop.implementation.open(0), 0);
    EXPECT_EQ(loop.round(), 0);
}

TEST(Epoll_Reactor, nothing_can_be_begun_on_a_closed_reactor)
{
    Loop loop;
    Probe a;
    Probe b;
    int inside = 0;
    a.probe->on_close = [&] { inside = loop.reactor.register_handler(b.probe, READ); };
    ASSERT_EQ(loop.reactor.register_handler(a.probe, READ), 0);
    ASSERT_EQ(loop.reactor.close(), 0);
    EXPECT_EQ(inside, -1);
    EXPECT_FALSE(loop.implementation.initialized());
    errno = 0;
    EXPECT_EQ(loop.reactor.register_handler(b.probe, READ), -1);
    EXPECT_EQ(errno, ESHUTDOWN);
    errno = 0;
    EXPECT_EQ(loop.reactor.schedule_timer(b.probe, nullptr, ACE_Time_Value(1)), -1);
    EXPECT_EQ(errno, ESHUTDOWN);
    errno = 0;
    EXPECT_EQ(loop.reactor.notify(b.probe, READ), -1);
    EXPECT_EQ(errno, ESHUTDOWN);
    errno = 0;
    EXPECT_EQ(loop.reactor.handle_events(), -1);
    EXPECT_EQ(errno, ESHUTDOWN);
    EXPECT_EQ(loop.reactor.work_pending(), -1);
    EXPECT_EQ(loop.reactor.cancel_timer(b.probe), 0);
    EXPECT_EQ(loop.reactor.cancel_timer(1L), 0);
    EXPECT_EQ(loop.mask(b.probe), -1);
    EXPECT_EQ(b.probe->references(), 1);
}

TEST(Epoll_Reactor, opens_again_after_close)
{
    Loop loop;
    Probe a;
    EXPECT_EQ(loop.implementation.open(100), -1);
    EXPECT_EQ(errno, EBUSY);
    ASSERT_EQ(loop.reactor.register_handler(a.probe, READ), 0);
    ASSERT_EQ(loop.reactor.close(), 0);
    ASSERT_EQ(loop.implementation.open(100), 0);
    EXPECT_FALSE(loop.reactor.restart());
    ASSERT_EQ(loop.reactor.register_handler(a.probe, READ), 0);
    a.pair.send();
    EXPECT_EQ(loop.round(), 1);
}

TEST(Epoll_Reactor, takes_no_notification_strategy_of_ace)
{
    Loop loop;
    ASSERT_EQ(loop.reactor.close(), 0);
    auto* const any = reinterpret_cast<ACE_Reactor_Notify*>(&loop);
    errno = 0;
    EXPECT_EQ(loop.implementation.open(0, true, nullptr, nullptr, 0, any), -1);
    EXPECT_EQ(errno, ENOTSUP);
}

TEST(Epoll_Reactor, remembers_its_owner_and_its_restart_policy)
{
    Loop loop;
    ACE_thread_t owner{};
    ACE_thread_t old{};
    EXPECT_EQ(loop.reactor.owner(&owner), 0);
    EXPECT_EQ(owner, ::pthread_self());
    EXPECT_EQ(loop.reactor.owner(ACE_thread_t{}, &old), 0);
    EXPECT_EQ(old, ::pthread_self());
    EXPECT_TRUE(loop.reactor.restart());
    EXPECT_TRUE(loop.reactor.restart(false));
    EXPECT_FALSE(loop.reactor.restart());
    EXPECT_EQ(loop.reactor.lock().acquire(), 0);
    EXPECT_EQ(loop.reactor.lock().release(), 0);
}

TEST(Epoll_Reactor, a_handler_may_run_events_itself)
{
    Loop loop;
    Probe a;
    Probe b;
    a.probe->on_input = [&](ACE_HANDLE) {
        a.pair.drain();
        return loop.round() == -1 ? -1 : 0;
    };
    b.probe->on_input = [&](ACE_HANDLE) { return b.pair.drain(); };
    ASSERT_EQ(loop.reactor.register_handler(a.probe, READ), 0);
    ASSERT_EQ(loop.reactor.register_handler(b.probe, READ), 0);
    a.pair.send();
    b.pair.send();
    EXPECT_GE(loop.round(), 1);
    EXPECT_EQ(a.record.inputs, 1);
    EXPECT_GE(b.record.inputs, 1);
}
