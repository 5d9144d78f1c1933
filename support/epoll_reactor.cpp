#include "support/epoll_reactor.h"

#include "support/uncancelled.h"

#include <ace/Handle_Set.h>
#include <ace/Reactor.h>
#include <ace/Signal.h>

#include <poll.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <new>

namespace {

// Events taken from the kernel at once. More saves nothing: it is one call in so many upcalls.
constexpr int BATCH_EVENTS = 512;

// How the reactor's own descriptors are known among the events.
constexpr uint64_t TIMER_TAG = Epoll_Handler_Table::FIRST_OWN_TAG;
constexpr uint64_t WAKE_TAG = TIMER_TAG + 1;

constexpr int WITHOUT_LIMIT = -1;

// Longer delays mean "never"; the sum of a time and a delay must not overflow.
constexpr time_t LONGEST_DELAY_SECONDS = 100L * 365 * 24 * 3600;

int not_supported()
{
    errno = ENOTSUP;
    return -1;
}

/// Up, never down: a wait that ends early is followed by another one, and another.
int to_milliseconds(const ACE_Time_Value& time)
{
    if (time <= ACE_Time_Value::zero) {
        return 0;
    }
    if (time.sec() >= INT_MAX / 1000) {
        return INT_MAX;
    }
    return static_cast<int>(time.sec() * 1000 + (time.usec() + 999) / 1000);
}

ACE_Time_Value monotonic_now()
{
    return ACE_Monotonic_Time_Policy()();
}

int call(const Epoll_Handler_Table::Upcall& upcall, ACE_Reactor_Mask event)
{
    switch (event) {
    case ACE_Event_Handler::READ_MASK:
        return upcall.handler->handle_input(upcall.handle);
    case ACE_Event_Handler::WRITE_MASK:
        return upcall.handler->handle_output(upcall.handle);
    default:
        return upcall.handler->handle_exception(upcall.handle);
    }
}

/// Releases the reference that an upcall holds, also when the upcall throws.
class Reference_Guard {
public:
    explicit Reference_Guard(ACE_Event_Handler* handler) : handler_(handler) {}
    ~Reference_Guard() { handler_->remove_reference(); }
    Reference_Guard(const Reference_Guard&) = delete;
    Reference_Guard& operator=(const Reference_Guard&) = delete;

private:
    ACE_Event_Handler* handler_;
};

template <typename Operation>
int for_each_handle(const ACE_Handle_Set& handles, Operation operation)
{
    ACE_Handle_Set_Iterator next(handles);
    for (ACE_HANDLE handle = next(); handle != ACE_INVALID_HANDLE; handle = next()) {
        if (operation(handle) == -1) {
            return -1;
        }
    }
    return 0;
}

template <typename Operation>
int for_each_signal(const ACE_Sig_Set& signals, Operation operation)
{
    for (int signum = 1; signum < ACE_NSIG; ++signum) {
        if (signals.is_member(signum) == 1 && operation(signum) == -1) {
            return -1;
        }
    }
    return 0;
}

} // namespace

Epoll_Reactor::Epoll_Reactor()
    : timers_(nullptr), signals_(&own_signals_), wake_handle_(ACE_INVALID_HANDLE),
      wait_state_(BUSY), wake_requested_(false), deactivated_(false), restart_(true),
      owner_(::pthread_self())
{
    constexpr bool RESTART = true;
    this->Epoll_Reactor::open(0, RESTART);
}

Epoll_Reactor::~Epoll_Reactor()
{
    this->Epoll_Reactor::close();
}

int Epoll_Reactor::open(size_t, bool restart, ACE_Sig_Handler* signals, ACE_Timer_Queue* timers,
                        int, ACE_Reactor_Notify* notify)
{
    if (notify != nullptr) {
        return not_supported();
    }
    if (table_.is_open()) {
        errno = EBUSY;
        return -1;
    }

    own_timers_.reset(new (std::nothrow) Epoll_Timer_Queue);
    if (own_timers_ == nullptr) {
        errno = ENOMEM;
        return -1;
    }
    timers_ = timers != nullptr ? timers : own_timers_.get();
    signals_ = signals != nullptr ? signals : &own_signals_;
    restart_ = restart;
    deactivated_ = false;
    wake_requested_ = false;
    wait_state_ = BUSY;
    wake_handle_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (own_timers_->handle() == ACE_INVALID_HANDLE || wake_handle_ == ACE_INVALID_HANDLE ||
        table_.open() == -1 || table_.watch(own_timers_->handle(), TIMER_TAG) == -1 ||
        table_.watch(wake_handle_, WAKE_TAG) == -1) {
        const int error = errno;
        this->Epoll_Reactor::close();
        errno = error;
        return -1;
    }
    notifications_.open();
    return 0;
}

int Epoll_Reactor::close()
{
    table_.refuse();
    for (ACE_HANDLE next = 0; table_.remove_next(next);) {
    }
    if (own_timers_ != nullptr) {
        own_timers_->close();
    }
    // Another thread may still notify: its handler's reference must not stay in the queue for ever.
    notifications_.refuse();
    ACE_Notification_Buffer notification;
    while (notifications_.pop(notification)) {
        notification.eh_->remove_reference();
    }
    table_.close();
    if (wake_handle_ != ACE_INVALID_HANDLE) {
        ::close(wake_handle_);
        wake_handle_ = ACE_INVALID_HANDLE;
    }
    return 0;
}

bool Epoll_Reactor::initialized()
{
    return table_.is_open();
}

int Epoll_Reactor::handle_events(ACE_Time_Value* max_wait_time)
{
    if (max_wait_time == nullptr) {
        return this->run_round(WITHOUT_LIMIT);
    }
    const ACE_Time_Value start = monotonic_now();
    const ACE_Time_Value limit = *max_wait_time;
    int dispatched = 0;
    do {
        dispatched = this->run_round(to_milliseconds(*max_wait_time));
        const ACE_Time_Value spent = monotonic_now() - start;
        *max_wait_time = spent < limit ? limit - spent : ACE_Time_Value::zero;
    } while (dispatched == 0 && *max_wait_time > ACE_Time_Value::zero);
    return dispatched;
}

int Epoll_Reactor::handle_events(ACE_Time_Value& max_wait_time)
{
    return this->handle_events(&max_wait_time);
}

int Epoll_Reactor::alertable_handle_events(ACE_Time_Value* max_wait_time)
{
    return this->handle_events(max_wait_time);
}

int Epoll_Reactor::alertable_handle_events(ACE_Time_Value& max_wait_time)
{
    return this->handle_events(&max_wait_time);
}

int Epoll_Reactor::run_round(int milliseconds)
{
    if (deactivated_ || !table_.is_open()) {
        errno = ESHUTDOWN;
        return -1;
    }
    // On the stack, so that a handler may run events itself.
    epoll_event events[BATCH_EVENTS];
    const int count = this->wait(events, milliseconds);
    if (count == -1) {
        return errno == EINTR && restart_ ? 0 : -1;
    }

    int dispatched = 0;
    if (wake_requested_.load(std::memory_order_relaxed) && wake_requested_.exchange(false)) {
        ++dispatched;
    }
    if (!this->owns_timers()) {
        dispatched += timers_->expire();
    }
    // What the handlers ask for in this round is done in the next one, so that none of them can
    // keep the loop to itself.
    const size_t notified = notifications_.size();
    const size_t queued = table_.queued();
    dispatched += this->dispatch_batch(events, count);
    if (notified != 0) {
        dispatched += this->dispatch_notifications(notified);
    }
    if (queued != 0) {
        dispatched += this->dispatch_queued(queued);
    }
    return dispatched;
}

int Epoll_Reactor::wait(epoll_event* events, int milliseconds)
{
    // Who adds work now either sees this state and wakes the loop, or is seen by has_work().
    wait_state_.store(WAITING);
    if (this->has_work()) {
        milliseconds = 0;
    } else if (!this->owns_timers()) {
        milliseconds = this->limit_by_foreign_timers(milliseconds);
    }
    const int count =
        uncancelled_epoll_wait(table_.epoll_handle(), events, BATCH_EVENTS, milliseconds);
    wait_state_.store(BUSY, std::memory_order_release);
    return count;
}

int Epoll_Reactor::limit_by_foreign_timers(int milliseconds)
{
    ACE_Time_Value next;
    if (timers_->calculate_timeout(nullptr, &next) == nullptr) {
        return milliseconds;
    }
    const int until_timer = to_milliseconds(next);
    return milliseconds == WITHOUT_LIMIT ? until_timer : std::min(milliseconds, until_timer);
}

bool Epoll_Reactor::has_work() const
{
    return table_.queued() != 0 || notifications_.size() != 0 || wake_requested_ || deactivated_;
}

[[gnu::always_inline]] inline int Epoll_Reactor::dispatch(const Upcall& upcall)
{
    const Reference_Guard guard(upcall.handler);
    // Nearly always there is input and nothing else, and then the table need not be asked again.
    if (upcall.ready == ACE_Event_Handler::READ_MASK) {
        int result = upcall.handler->handle_input(upcall.handle);
        if (result == AGAIN_AT_ONCE) {
            result = this->call_at_once(upcall);
        }
        if (result != 0) {
            this->settle(upcall, ACE_Event_Handler::READ_MASK, result);
        }
        return 1;
    }
    return this->dispatch_several(upcall);
}

int Epoll_Reactor::dispatch_batch(const epoll_event* events, int count)
{
    int dispatched = 0;
    for (const epoll_event* event = events; event != events + count; ++event) {
        const uint64_t tag = event->data.u64;
        Upcall upcall;
        if (tag < Epoll_Handler_Table::FIRST_OWN_TAG) {
            if (table_.take(tag, event->events, upcall)) {
                dispatched += this->dispatch(upcall);
            }
        } else if (tag == TIMER_TAG) {
            dispatched += own_timers_->expire();
        } else {
            eventfd_t wakes = 0;
            ::eventfd_read(wake_handle_, &wakes); // it said all there is to know by being readable
        }
    }
    return dispatched;
}

/// The calls after the first. @return the last one's result.
int Epoll_Reactor::call_at_once(const Upcall& upcall)
{
    int result = AGAIN_AT_ONCE;
    for (int left = MOST_IN_A_ROW - 1; left > 0 && result == AGAIN_AT_ONCE &&
                                       table_.still_wants(upcall, ACE_Event_Handler::READ_MASK);
         --left) {
        result = upcall.handler->handle_input(upcall.handle);
    }
    return result;
}

int Epoll_Reactor::dispatch_several(const Upcall& upcall)
{
    if (upcall.ready == ACE_Event_Handler::WRITE_MASK ||
        upcall.ready == ACE_Event_Handler::EXCEPT_MASK) {
        this->dispatch_one(upcall, upcall.ready);
        return 1;
    }
    int dispatched = 0;
    // Output first, as in ACE's reactors: what can leave makes room for what comes in.
    for (const ACE_Reactor_Mask event : {ACE_Reactor_Mask{ACE_Event_Handler::WRITE_MASK},
                                         ACE_Reactor_Mask{ACE_Event_Handler::EXCEPT_MASK},
                                         ACE_Reactor_Mask{ACE_Event_Handler::READ_MASK}}) {
        if ((upcall.ready & event) != 0 && table_.still_wants(upcall, event)) {
            this->dispatch_one(upcall, event);
            ++dispatched;
        }
    }
    return dispatched;
}

void Epoll_Reactor::dispatch_one(const Upcall& upcall, ACE_Reactor_Mask event)
{
    const int result = call(upcall, event);
    if (result != 0) {
        this->settle(upcall, event, result);
    }
}

void Epoll_Reactor::settle(const Upcall& upcall, ACE_Reactor_Mask event, int result)
{
    if (result < 0) {
        table_.remove_after(upcall, event);
    } else {
        table_.queue(upcall, event);
    }
}

int Epoll_Reactor::dispatch_notifications(size_t left)
{
    int dispatched = 0;
    ACE_Notification_Buffer notification;
    for (; left != 0 && notifications_.pop(notification); --left) {
        const Reference_Guard guard(notification.eh_);
        this->dispatch_notification(notification);
        ++dispatched;
    }
    return dispatched;
}

void Epoll_Reactor::dispatch_notification(const ACE_Notification_Buffer& notification)
{
    ACE_Event_Handler* const handler = notification.eh_;
    ACE_Reactor_Mask event = ACE_Event_Handler::EXCEPT_MASK;
    int result = 0;
    switch (notification.mask_) {
    case ACE_Event_Handler::READ_MASK:
    case ACE_Event_Handler::ACCEPT_MASK:
        event = ACE_Event_Handler::READ_MASK;
        result = handler->handle_input(ACE_INVALID_HANDLE);
        break;
    case ACE_Event_Handler::WRITE_MASK:
        event = ACE_Event_Handler::WRITE_MASK;
        result = handler->handle_output(ACE_INVALID_HANDLE);
        break;
    case ACE_Event_Handler::QOS_MASK:
        result = handler->handle_qos(ACE_INVALID_HANDLE);
        break;
    case ACE_Event_Handler::GROUP_QOS_MASK:
        result = handler->handle_group_qos(ACE_INVALID_HANDLE);
        break;
    default:
        result = handler->handle_exception(ACE_INVALID_HANDLE);
        break;
    }
    if (result == 0) {
        return;
    }
    Upcall upcall;
    if (table_.identify(handler, handler->get_handle(), event, upcall)) {
        this->settle(upcall, event, result);
    } else if (result < 0) {
        handler->handle_close(ACE_INVALID_HANDLE, ACE_Event_Handler::EXCEPT_MASK);
    }
}

int Epoll_Reactor::dispatch_queued(size_t left)
{
    int dispatched = 0;
    for (; left != 0; --left) {
        Upcall upcall;
        if (table_.take_queued(upcall)) {
            dispatched += this->dispatch(upcall);
        }
    }
    return dispatched;
}

/// A descriptor that epoll cannot watch ends no wait by itself. @return `result`
int Epoll_Reactor::wake_for_queue(int result)
{
    if (table_.queued() != 0) {
        this->wake();
    }
    return result;
}

int Epoll_Reactor::work_pending(const ACE_Time_Value& max_wait_time)
{
    if (!table_.is_open()) {
        errno = ESHUTDOWN;
        return -1;
    }
    if (this->has_work()) {
        return 1;
    }
    pollfd ready{table_.epoll_handle(), POLLIN, 0};
    int milliseconds = to_milliseconds(max_wait_time);
    if (!this->owns_timers()) {
        milliseconds = this->limit_by_foreign_timers(milliseconds);
    }
    return ::poll(&ready, 1, milliseconds);
}

void Epoll_Reactor::wake()
{
    int waiting = WAITING;
    if (wait_state_.compare_exchange_strong(waiting, WOKEN)) {
        const int error = errno;
        ::eventfd_write(wake_handle_, 1);
        errno = error;
    }
}

void Epoll_Reactor::deactivate(int do_stop)
{
    deactivated_ = do_stop != 0;
    if (do_stop != 0) {
        this->wakeup_all_threads();
    }
}

int Epoll_Reactor::deactivated()
{
    return deactivated_ ? 1 : 0;
}

void Epoll_Reactor::wakeup_all_threads()
{
    wake_requested_ = true;
    this->wake();
}

int Epoll_Reactor::register_handler(ACE_Event_Handler* handler, ACE_Reactor_Mask mask)
{
    if (handler == nullptr) {
        errno = EINVAL;
        return -1;
    }
    return this->wake_for_queue(table_.bind(handler->get_handle(), handler, mask));
}

int Epoll_Reactor::register_handler(ACE_HANDLE handle, ACE_Event_Handler* handler,
                                    ACE_Reactor_Mask mask)
{
    return this->wake_for_queue(table_.bind(handle, handler, mask));
}

int Epoll_Reactor::register_handler(ACE_HANDLE, ACE_HANDLE, ACE_Event_Handler*, ACE_Reactor_Mask)
{
    return not_supported();
}

int Epoll_Reactor::register_handler(const ACE_Handle_Set& handles, ACE_Event_Handler* handler,
                                    ACE_Reactor_Mask mask)
{
    return for_each_handle(handles, [&](ACE_HANDLE handle) {
        return this->wake_for_queue(table_.bind(handle, handler, mask));
    });
}

int Epoll_Reactor::register_handler(int signum, ACE_Event_Handler* new_handler,
                                    ACE_Sig_Action* new_action, ACE_Event_Handler** old_handler,
                                    ACE_Sig_Action* old_action)
{
    return signals_->register_handler(signum, new_handler, new_action, old_handler, old_action);
}

int Epoll_Reactor::register_handler(const ACE_Sig_Set& signals, ACE_Event_Handler* new_handler,
                                    ACE_Sig_Action* new_action)
{
    return for_each_signal(signals, [&](int signum) {
        return signals_->register_handler(signum, new_handler, new_action);
    });
}

int Epoll_Reactor::remove_handler(ACE_Event_Handler* handler, ACE_Reactor_Mask mask)
{
    if (handler == nullptr) {
        errno = EINVAL;
        return -1;
    }
    return table_.remove(handler->get_handle(), handler, mask);
}

int Epoll_Reactor::remove_handler(ACE_HANDLE handle, ACE_Reactor_Mask mask)
{
    return table_.remove(handle, nullptr, mask);
}

int Epoll_Reactor::remove_handler(const ACE_Handle_Set& handles, ACE_Reactor_Mask mask)
{
    return for_each_handle(handles,
                           [&](ACE_HANDLE handle) { return table_.remove(handle, nullptr, mask); });
}

int Epoll_Reactor::remove_handler(int signum, ACE_Sig_Action* new_action,
                                  ACE_Sig_Action* old_action, int sigkey)
{
    return signals_->remove_handler(signum, new_action, old_action, sigkey);
}

int Epoll_Reactor::remove_handler(const ACE_Sig_Set& signals)
{
    return for_each_signal(signals, [&](int signum) { return signals_->remove_handler(signum); });
}

int Epoll_Reactor::suspend_handler(ACE_Event_Handler* handler)
{
    return table_.suspend(handler->get_handle(), handler);
}

int Epoll_Reactor::suspend_handler(ACE_HANDLE handle)
{
    return table_.suspend(handle, nullptr);
}

int Epoll_Reactor::suspend_handler(const ACE_Handle_Set& handles)
{
    return for_each_handle(handles,
                           [&](ACE_HANDLE handle) { return table_.suspend(handle, nullptr); });
}

int Epoll_Reactor::suspend_handlers()
{
    table_.suspend_all();
    return 0;
}

int Epoll_Reactor::resume_handler(ACE_Event_Handler* handler)
{
    return this->wake_for_queue(table_.resume(handler->get_handle(), handler));
}

int Epoll_Reactor::resume_handler(ACE_HANDLE handle)
{
    return this->wake_for_queue(table_.resume(handle, nullptr));
}

int Epoll_Reactor::resume_handler(const ACE_Handle_Set& handles)
{
    return for_each_handle(handles, [&](ACE_HANDLE handle) {
        return this->wake_for_queue(table_.resume(handle, nullptr));
    });
}

int Epoll_Reactor::resume_handlers()
{
    table_.resume_all();
    return this->wake_for_queue(0);
}

int Epoll_Reactor::resumable_handler()
{
    return 0;
}

bool Epoll_Reactor::uses_event_associations()
{
    return false;
}

long Epoll_Reactor::schedule_timer(ACE_Event_Handler* handler, const void* act,
                                   const ACE_Time_Value& delay, const ACE_Time_Value& interval)
{
    if (timers_ == nullptr) {
        errno = ESHUTDOWN;
        return -1;
    }
    const ACE_Time_Value longest(LONGEST_DELAY_SECONDS);
    const long id =
        timers_->schedule(handler, act, timers_->gettimeofday() + std::min(delay, longest),
                          std::min(interval, longest));
    if (id != -1 && !this->owns_timers()) {
        this->wakeup_all_threads();
    }
    return id;
}

int Epoll_Reactor::reset_timer_interval(long timer_id, const ACE_Time_Value& interval)
{
    return timers_ != nullptr ? timers_->reset_interval(timer_id, interval) : -1;
}

int Epoll_Reactor::cancel_timer(ACE_Event_Handler* handler, int dont_call_handle_close)
{
    return timers_ != nullptr && handler != nullptr
               ? timers_->cancel(handler, dont_call_handle_close)
               : 0;
}

int Epoll_Reactor::cancel_timer(long timer_id, const void** act, int dont_call_handle_close)
{
    return timers_ != nullptr ? timers_->cancel(timer_id, act, dont_call_handle_close) : 0;
}

int Epoll_Reactor::timer_queue(ACE_Timer_Queue* timers)
{
    timers_ = timers != nullptr ? timers : own_timers_.get();
    return 0;
}

ACE_Timer_Queue* Epoll_Reactor::timer_queue() const
{
    return timers_;
}

int Epoll_Reactor::schedule_wakeup(ACE_Event_Handler* handler, ACE_Reactor_Mask mask)
{
    return this->mask_ops(handler, mask, ACE_Reactor::ADD_MASK);
}

int Epoll_Reactor::schedule_wakeup(ACE_HANDLE handle, ACE_Reactor_Mask mask)
{
    return this->mask_ops(handle, mask, ACE_Reactor::ADD_MASK);
}

int Epoll_Reactor::cancel_wakeup(ACE_Event_Handler* handler, ACE_Reactor_Mask mask)
{
    return this->mask_ops(handler, mask, ACE_Reactor::CLR_MASK);
}

int Epoll_Reactor::cancel_wakeup(ACE_HANDLE handle, ACE_Reactor_Mask mask)
{
    return this->mask_ops(handle, mask, ACE_Reactor::CLR_MASK);
}

int Epoll_Reactor::notify(ACE_Event_Handler* handler, ACE_Reactor_Mask mask, ACE_Time_Value*)
{
    if (handler == nullptr) {
        if (!table_.is_open()) {
            errno = ESHUTDOWN;
            return -1;
        }
        this->wakeup_all_threads();
        return 0;
    }
    if (notifications_.push(handler, mask) == -1) {
        return -1;
    }
    this->wake();
    return 0;
}

void Epoll_Reactor::max_notify_iterations(int) {}

int Epoll_Reactor::max_notify_iterations()
{
    return -1;
}

int Epoll_Reactor::purge_pending_notifications(ACE_Event_Handler* handler, ACE_Reactor_Mask mask)
{
    return notifications_.purge(handler, mask);
}

ACE_Event_Handler* Epoll_Reactor::find_handler(ACE_HANDLE handle)
{
    return table_.find(handle, ACE_Event_Handler::NULL_MASK);
}

int Epoll_Reactor::handler(ACE_HANDLE handle, ACE_Reactor_Mask mask, ACE_Event_Handler** handler)
{
    ACE_Event_Handler* const found = table_.find(handle, mask);
    if (found == nullptr) {
        return -1;
    }
    if (handler != nullptr) {
        *handler = found;
    } else {
        found->remove_reference();
    }
    return 0;
}

int Epoll_Reactor::handler(int signum, ACE_Event_Handler** handler)
{
    ACE_Event_Handler* const found = signals_->handler(signum);
    if (found == nullptr) {
        return -1;
    }
    if (handler != nullptr) {
        *handler = found;
    }
    return 0;
}

size_t Epoll_Reactor::size() const
{
    return table_.size();
}

ACE_Lock& Epoll_Reactor::lock()
{
    return table_.lock();
}

int Epoll_Reactor::owner(ACE_thread_t new_owner, ACE_thread_t* old_owner)
{
    const ACE_thread_t old = owner_.exchange(new_owner);
    if (old_owner != nullptr) {
        *old_owner = old;
    }
    return 0;
}

int Epoll_Reactor::owner(ACE_thread_t* owner)
{
    *owner = owner_;
    return 0;
}

bool Epoll_Reactor::restart()
{
    return restart_;
}

bool Epoll_Reactor::restart(bool restart)
{
    return restart_.exchange(restart);
}

void Epoll_Reactor::requeue_position(int) {}

int Epoll_Reactor::requeue_position()
{
    return 0;
}

int Epoll_Reactor::mask_ops(ACE_Event_Handler* handler, ACE_Reactor_Mask mask, int operation)
{
    return this->wake_for_queue(table_.mask_ops(handler->get_handle(), handler, mask, operation));
}

int Epoll_Reactor::mask_ops(ACE_HANDLE handle, ACE_Reactor_Mask mask, int operation)
{
    return this->wake_for_queue(table_.mask_ops(handle, nullptr, mask, operation));
}

int Epoll_Reactor::ready_ops(ACE_Event_Handler* handler, ACE_Reactor_Mask mask, int operation)
{
    if (operation != ACE_Reactor::ADD_MASK) {
        return not_supported();
    }
    if (handler == nullptr) {
        errno = EINVAL;
        return -1;
    }
    return this->wake_for_queue(table_.queue(handler->get_handle(), handler, mask));
}

int Epoll_Reactor::ready_ops(ACE_HANDLE handle, ACE_Reactor_Mask mask, int operation)
{
    return operation == ACE_Reactor::ADD_MASK
               ? this->wake_for_queue(table_.queue(handle, nullptr, mask))
               : not_supported();
}

int Epoll_Reactor::set_sig_handler(ACE_Sig_Handler* signals)
{
    signals_ = signals != nullptr ? signals : &own_signals_;
    return 0;
}

int Epoll_Reactor::current_info(ACE_HANDLE, size_t&)
{
    return not_supported();
}

void Epoll_Reactor::dump() const {}
