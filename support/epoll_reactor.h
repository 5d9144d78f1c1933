#pragma once

#include "support/epoll_handler_table.h"
#include "support/epoll_notifications.h"
#include "support/epoll_timer_queue.h"
#include "support/export.h"

#include <ace/Reactor_Impl.h>
#include <ace/Sig_Handler.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>

struct epoll_event;

/**
 * An ACE reactor over level-triggered epoll, for one thread that runs the events and any number of
 * threads that register, remove, suspend, schedule and notify.
 *
 * A round is one epoll_wait for many events and nothing else: a handler is neither re-armed nor
 * locked out around its upcall, registering from another thread neither wakes nor blocks the loop,
 * and timers cost the rounds between them nothing.
 *
 * What it promises beyond, or other than, ACE's own reactors:
 * - An event never reaches a handler that has been removed or suspended before its turn, also not
 *   when the descriptor's number has been given to another handler within the same round.
 * - After an upcall that returned 0 the handler is touched only to release its reference, so an
 *   upcall may hand the handler to another thread. -1 and > 0 are acted upon only while the handler
 *   is still registered as it was when it was called.
 * - A handler that returns > 0 is called again in the next round, after the round's other handlers,
 *   without waiting for its descriptor; unless it is removed or suspended by then. The same holds
 *   for what an upcall by notify() returns, when the handler is registered under get_handle().
 * - A handle_input that returns AGAIN_AT_ONCE is called again before the round's other handlers, up
 *   to MOST_IN_A_ROW calls; then it counts as any other > 0.
 * - Inside handle_close the handler's mask is 0 when nothing is left of it, also at close(); it is
 *   -1 when the handle is not registered, or registered by another handler.
 * - A handle that another handler holds cannot be registered: EEXIST.
 * - A descriptor that epoll refuses with EPERM, since it never waits (a regular file, the null
 *   device), counts as always ready for input and output, and never as exceptional: its handler is
 *   called once in each round, between the others, until it is removed or suspended. While one is
 *   registered the loop does not rest.
 * - EPOLLHUP and EPOLLERR go to handle_input, else to handle_output, else to handle_exception.
 * - Timers run on CLOCK_MONOTONIC: timer_queue()->gettimeofday() and the time that handle_timeout
 *   gets are that clock's.
 * - No handler is called and no reference is dropped while a lock is held.
 *
 * A failed wait by EINTR is repeated unless restart(false) was called.
 */
class HTTPD_SUPPORT_EXPORT Epoll_Reactor : public ACE_Reactor_Impl {
public:
    /// What a handler returns that has a little more to do for the same descriptor, and would find
    /// less of it in the processor's caches after the other handlers.
    enum : int { AGAIN_AT_ONCE = 2 };
    enum : int { MOST_IN_A_ROW = 16 };

    /// Opens; initialized() tells whether it succeeded (errno otherwise).
    Epoll_Reactor();
    ~Epoll_Reactor() override; ///< close()
    Epoll_Reactor(const Epoll_Reactor&) = delete;
    Epoll_Reactor& operator=(const Epoll_Reactor&) = delete;

    /**
     * Opens the reactor again after close().
     *
     * @param size                Not used: the table grows with the descriptors.
     * @param restart             See restart(bool).
     * @param signals, timers     Used in the place of its own when not null; not owned.
     * @param disable_notify_pipe Not used: deactivate() needs the means of notify() in any case.
     * @param notify              Must be null (ENOTSUP): ACE's know ACE's reactors only.
     * @return -1 with errno; EBUSY when it is open.
     */
    int open(size_t size, bool restart = false, ACE_Sig_Handler* signals = nullptr,
             ACE_Timer_Queue* timers = nullptr, int disable_notify_pipe = 0,
             ACE_Reactor_Notify* notify = nullptr) override;

    /**
     * Removes every handler through its handle_close, drops the timers (each through
     * handle_close(ACE_INVALID_HANDLE, TIMER_MASK)) and the notifications. Harmless when closed.
     * To be called when no thread runs the events any more, by whichever thread.
     */
    int close() override;
    bool initialized() override;

    /// One round, or with a limit as many as it takes for one upcall: the number of upcalls and
    /// requested wake-ups, 0 when the limit has passed, -1 with errno (ESHUTDOWN: deactivated or
    /// closed). The limit is reduced by the time that was spent, and rounded up to whole
    /// milliseconds.
    int handle_events(ACE_Time_Value* max_wait_time = nullptr) override;
    int handle_events(ACE_Time_Value& max_wait_time) override;
    int alertable_handle_events(ACE_Time_Value* max_wait_time = nullptr) override;
    int alertable_handle_events(ACE_Time_Value& max_wait_time) override;
    int work_pending(const ACE_Time_Value& max_wait_time = ACE_Time_Value::zero) override;

    /// May be called in a signal handler.
    void deactivate(int do_stop) override;
    int deactivated() override;
    void wakeup_all_threads() override;

    int register_handler(ACE_Event_Handler* handler, ACE_Reactor_Mask mask) override;
    int register_handler(ACE_HANDLE handle, ACE_Event_Handler* handler,
                         ACE_Reactor_Mask mask) override;
    int register_handler(ACE_HANDLE event_handle, ACE_HANDLE io_handle, ACE_Event_Handler* handler,
                         ACE_Reactor_Mask mask) override; ///< ENOTSUP
    int register_handler(const ACE_Handle_Set& handles, ACE_Event_Handler* handler,
                         ACE_Reactor_Mask mask) override;
    int register_handler(int signum, ACE_Event_Handler* new_handler,
                         ACE_Sig_Action* new_action = nullptr,
                         ACE_Event_Handler** old_handler = nullptr,
                         ACE_Sig_Action* old_action = nullptr) override;
    int register_handler(const ACE_Sig_Set& signals, ACE_Event_Handler* new_handler,
                         ACE_Sig_Action* new_action = nullptr) override;

    int remove_handler(ACE_Event_Handler* handler, ACE_Reactor_Mask mask) override;
    int remove_handler(ACE_HANDLE handle, ACE_Reactor_Mask mask) override;
    int remove_handler(const ACE_Handle_Set& handles, ACE_Reactor_Mask mask) override;
    int remove_handler(int signum, ACE_Sig_Action* new_action, ACE_Sig_Action* old_action = nullptr,
                       int sigkey = -1) override;
    int remove_handler(const ACE_Sig_Set& signals) override;

    int suspend_handler(ACE_Event_Handler* handler) override;
    int suspend_handler(ACE_HANDLE handle) override;
    int suspend_handler(const ACE_Handle_Set& handles) override;
    int suspend_handlers() override;
    int resume_handler(ACE_Event_Handler* handler) override;
    int resume_handler(ACE_HANDLE handle) override;
    int resume_handler(const ACE_Handle_Set& handles) override;
    int resume_handlers() override;
    int resumable_handler() override;
    bool uses_event_associations() override;

    long schedule_timer(ACE_Event_Handler* handler, const void* act, const ACE_Time_Value& delay,
                        const ACE_Time_Value& interval = ACE_Time_Value::zero) override;
    int reset_timer_interval(long timer_id, const ACE_Time_Value& interval) override;
    int cancel_timer(ACE_Event_Handler* handler, int dont_call_handle_close = 1) override;
    int cancel_timer(long timer_id, const void** act = nullptr,
                     int dont_call_handle_close = 1) override;
    /// The given queue is not owned; null brings back the reactor's own.
    int timer_queue(ACE_Timer_Queue* timers) override;
    ACE_Timer_Queue* timer_queue() const override;

    int schedule_wakeup(ACE_Event_Handler* handler, ACE_Reactor_Mask mask) override;
    int schedule_wakeup(ACE_HANDLE handle, ACE_Reactor_Mask mask) override;
    int cancel_wakeup(ACE_Event_Handler* handler, ACE_Reactor_Mask mask) override;
    int cancel_wakeup(ACE_HANDLE handle, ACE_Reactor_Mask mask) override;

    /// Never waits. A null handler only ends the current wait, or the next one.
    int notify(ACE_Event_Handler* handler = nullptr,
               ACE_Reactor_Mask mask = ACE_Event_Handler::EXCEPT_MASK,
               ACE_Time_Value* timeout = nullptr) override;
    void max_notify_iterations(int iterations) override;
    int max_notify_iterations() override;
    int purge_pending_notifications(
        ACE_Event_Handler* handler = nullptr,
        ACE_Reactor_Mask mask = ACE_Event_Handler::ALL_EVENTS_MASK) override;

    /// The result carries a reference for the caller.
    ACE_Event_Handler* find_handler(ACE_HANDLE handle) override;
    /// So does `*handler`.
    int handler(ACE_HANDLE handle, ACE_Reactor_Mask mask,
                ACE_Event_Handler** handler = nullptr) override;
    int handler(int signum, ACE_Event_Handler** handler = nullptr) override;

    size_t size() const override;
    ACE_Lock& lock() override;
    int owner(ACE_thread_t new_owner, ACE_thread_t* old_owner = nullptr) override;
    int owner(ACE_thread_t* owner) override;
    bool restart() override;
    bool restart(bool restart) override;
    void requeue_position(int position) override;
    int requeue_position() override;

    int mask_ops(ACE_Event_Handler* handler, ACE_Reactor_Mask mask, int operation) override;
    int mask_ops(ACE_HANDLE handle, ACE_Reactor_Mask mask, int operation) override;
    /**
     * ADD_MASK alone (ENOTSUP otherwise): the handler is called for `mask` in the next round as if
     * its last upcall had returned > 0. Other than notify(), it holds no reference meanwhile, and a
     * handler that is removed first is not called. @return 0, or -1 with errno: ENOENT, EINVAL.
     */
    int ready_ops(ACE_Event_Handler* handler, ACE_Reactor_Mask mask, int operation) override;
    int ready_ops(ACE_HANDLE handle, ACE_Reactor_Mask mask, int operation) override;

    int set_sig_handler(ACE_Sig_Handler* signals) override;
    int current_info(ACE_HANDLE handle, size_t& size) override;
    void dump() const override;

private:
    using Upcall = Epoll_Handler_Table::Upcall;

    int run_round(int milliseconds);
    int wait(epoll_event* events, int milliseconds);
    int limit_by_foreign_timers(int milliseconds);
    int dispatch_batch(const epoll_event* events, int count);
    int dispatch(const Upcall& upcall);
    int dispatch_several(const Upcall& upcall);
    int call_at_once(const Upcall& upcall);
    void dispatch_one(const Upcall& upcall, ACE_Reactor_Mask event);
    int dispatch_notifications(size_t left);
    void dispatch_notification(const ACE_Notification_Buffer& notification);
    int dispatch_queued(size_t left);
    void settle(const Upcall& upcall, ACE_Reactor_Mask event, int result);
    bool has_work() const;
    void wake();
    int wake_for_queue(int result);
    bool owns_timers() const { return timers_ == own_timers_.get(); }

    // The loop and those who wake it agree by one word: only a loop that waits, or is about to, has
    // to be woken, and only by the first who does.
    enum Wait_State { BUSY, WAITING, WOKEN };

    Epoll_Handler_Table table_;
    Epoll_Notifications notifications_;
    std::unique_ptr<Epoll_Timer_Queue> own_timers_;
    ACE_Timer_Queue* timers_;
    ACE_Sig_Handler own_signals_;
    ACE_Sig_Handler* signals_;
    ACE_HANDLE wake_handle_;
    std::atomic<int> wait_state_;
    std::atomic<bool> wake_requested_;
    std::atomic<bool> deactivated_;
    std::atomic<bool> restart_;
    std::atomic<ACE_thread_t> owner_;
};
