#pragma once

#include "support/std_lock_t.h"

#include <ace/Event_Handler.h>
#include <ace/Monotonic_Time_Policy.h>
#include <ace/Timer_Heap_T.h>
#include <ace/Timer_Queue.h>

#include <mutex>

using Epoll_Timer_Lock = Std_Lock_T<std::recursive_mutex>;

/**
 * What the heap does about its handlers: it takes the reference that each pending timer holds.
 * Everything else is done by Epoll_Timer_Queue when the heap's lock has been released.
 */
class Epoll_Timer_Upcall {
public:
    int registration(ACE_Timer_Queue&, ACE_Event_Handler* handler, const void*)
    {
        handler->add_reference();
        return 0;
    }
    int cancel_type(ACE_Timer_Queue&, ACE_Event_Handler* handler, int, int&)
    {
        cancelled_ = handler;
        return 0;
    }
    int cancel_timer(ACE_Timer_Queue&, ACE_Event_Handler*, int, int) { return 0; }
    int deletion(ACE_Timer_Queue&, ACE_Event_Handler*, const void*) { return 0; }
    int preinvoke(ACE_Timer_Queue&, ACE_Event_Handler*, const void*, int, const ACE_Time_Value&,
                  const void*&)
    {
        return 0;
    }
    int postinvoke(ACE_Timer_Queue&, ACE_Event_Handler*, const void*, int, const ACE_Time_Value&,
                   const void*)
    {
        return 0;
    }
    int timeout(ACE_Timer_Queue& queue, ACE_Event_Handler* handler, const void* act, int recurring,
                const ACE_Time_Value& now);

    ACE_Event_Handler* cancelled() const { return cancelled_; }

private:
    ACE_Event_Handler* cancelled_ = nullptr;
};

/**
 * The timers of an Epoll_Reactor: ACE's timer heap on the monotonic clock, whose earliest timer is
 * armed in a timerfd. The loop thus waits without a limit and reads no clock in its rounds, a timer
 * is neither late nor approached in a spin, and one that another thread schedules wakes the loop
 * when it is due, not when it is scheduled.
 *
 * The descriptor is never read: arming it for a later time, or for none, makes it unreadable.
 * Cancelling leaves it armed; it is then readable once for nothing.
 *
 * Other than ACE's queues, it calls no handler and drops no reference under its lock, and a timer
 * that expires holds its handler from within the lock on, so that any thread may cancel it.
 */
class Epoll_Timer_Queue : public ACE_Timer_Heap_T<ACE_Event_Handler*, Epoll_Timer_Upcall,
                                                  Epoll_Timer_Lock, ACE_Monotonic_Time_Policy> {
public:
    Epoll_Timer_Queue();
    ~Epoll_Timer_Queue() override;

    /// Readable when a timer may be due; ACE_INVALID_HANDLE when it could not be created.
    ACE_HANDLE handle() const { return handle_; }

    using Heap = ACE_Timer_Heap_T<ACE_Event_Handler*, Epoll_Timer_Upcall, Epoll_Timer_Lock,
                                  ACE_Monotonic_Time_Policy>;
    using Heap::expire;

    /// -1 with ESHUTDOWN after close().
    long schedule(ACE_Event_Handler* const& handler, const void* act, const ACE_Time_Value& when,
                  const ACE_Time_Value& interval = ACE_Time_Value::zero) override;
    int cancel(ACE_Event_Handler* const& handler, int dont_call_handle_close = 1) override;
    int cancel(long timer_id, const void** act = nullptr, int dont_call_handle_close = 1) override;
    int reset_interval(long timer_id, const ACE_Time_Value& interval) override;
    int expire(const ACE_Time_Value& now) override;
    int expire() override;

    /// Drops every timer, with handle_close(ACE_INVALID_HANDLE, TIMER_MASK) for each.
    int close() override;

private:
    void arm();

    ACE_HANDLE handle_;
    bool closed_;
    bool armed_;
    long highest_id_; ///< the heap itself looks one element too far for an id out of range
    ACE_Time_Value armed_for_;
};
