#include "support/epoll_timer_queue.h"

#include <ace/Guard_T.h>
#include <ace/Reactor_Timer_Interface.h>

#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace {

using Guard = ACE_Guard<Epoll_Timer_Lock>;

// Enough for a loop with few connections; the heap doubles from here on.
constexpr size_t FIRST_TIMERS = 64;
constexpr bool PREALLOCATED = true; // one node less to allocate per timer

} // namespace

int Epoll_Timer_Upcall::timeout(ACE_Timer_Queue& queue, ACE_Event_Handler* handler, const void* act,
                                int recurring, const ACE_Time_Value& now)
{
    if (handler->handle_timeout(now, act) == -1) {
        ACE_Reactor_Timer_Interface* const timers = handler->reactor_timer_interface();
        if (timers != nullptr) {
            timers->cancel_timer(handler, 0);
        } else {
            queue.cancel(handler, 0);
        }
    }
    if (recurring == 0) {
        handler->remove_reference();
    }
    return 0;
}

Epoll_Timer_Queue::Epoll_Timer_Queue()
    : Heap(FIRST_TIMERS, PREALLOCATED),
      handle_(::timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC)), closed_(false),
      armed_(false), highest_id_(-1)
{
}

Epoll_Timer_Queue::~Epoll_Timer_Queue()
{
    this->Epoll_Timer_Queue::close();
}

long Epoll_Timer_Queue::schedule(ACE_Event_Handler* const& handler, const void* act,
                                 const ACE_Time_Value& when, const ACE_Time_Value& interval)
{
    Guard guard(this->mutex());
    if (closed_ || handler == nullptr) {
        errno = closed_ ? ESHUTDOWN : EINVAL;
        return -1;
    }
    const long id = Heap::schedule(handler, act, when, interval);
    highest_id_ = std::max(highest_id_, id);
    if (id != -1 && (!armed_ || when < armed_for_)) {
        this->arm();
    }
    return id;
}

int Epoll_Timer_Queue::cancel(ACE_Event_Handler* const& handler, int dont_call_handle_close)
{
    // A copy: the argument may lie in what goes away with the last reference.
    ACE_Event_Handler* const cancelled = handler;
    const int count = Heap::cancel(cancelled, dont_call_handle_close);
    if (dont_call_handle_close == 0) {
        cancelled->handle_close(ACE_INVALID_HANDLE, ACE_Event_Handler::TIMER_MASK);
    }
    for (int i = 0; i < count; ++i) {
        cancelled->remove_reference();
    }
    return count;
}

int Epoll_Timer_Queue::cancel(long timer_id, const void** act, int dont_call_handle_close)
{
    ACE_Event_Handler* cancelled = nullptr;
    {
        Guard guard(this->mutex());
        if (timer_id > highest_id_ || Heap::cancel(timer_id, act, dont_call_handle_close) != 1) {
            return 0;
        }
        cancelled = this->upcall_functor().cancelled();
    }
    if (dont_call_handle_close == 0) {
        cancelled->handle_close(ACE_INVALID_HANDLE, ACE_Event_Handler::TIMER_MASK);
    }
    cancelled->remove_reference();
    return 1;
}

int Epoll_Timer_Queue::reset_interval(long timer_id, const ACE_Time_Value& interval)
{
    Guard guard(this->mutex());
    if (timer_id > highest_id_) {
        return -1;
    }
    return Heap::reset_interval(timer_id, interval);
}

int Epoll_Timer_Queue::expire()
{
    return this->expire(this->gettimeofday_static());
}

int Epoll_Timer_Queue::expire(const ACE_Time_Value& now)
{
    int expired = 0;
    for (;;) {
        ACE_Timer_Node_Dispatch_Info_T<ACE_Event_Handler*> timer;
        {
            Guard guard(this->mutex());
            if (this->dispatch_info_i(now, timer) == 0) {
                this->arm();
                return expired;
            }
            timer.type_->add_reference();
        }
        this->upcall(timer, now);
        timer.type_->remove_reference();
        ++expired;
    }
}

int Epoll_Timer_Queue::close()
{
    for (;;) {
        ACE_Event_Handler* handler = nullptr;
        {
            Guard guard(this->mutex());
            closed_ = true;
            ACE_Timer_Node_T<ACE_Event_Handler*>* const timer = this->remove_first();
            if (timer == nullptr) {
                break;
            }
            handler = timer->get_type();
            this->return_node(timer);
        }
        handler->handle_close(ACE_INVALID_HANDLE, ACE_Event_Handler::TIMER_MASK);
        handler->remove_reference();
    }
    Guard guard(this->mutex());
    if (handle_ != ACE_INVALID_HANDLE) {
        ::close(handle_);
        handle_ = ACE_INVALID_HANDLE;
    }
    return 0;
}

/// Sets the descriptor to the earliest timer; the lock is held.
void Epoll_Timer_Queue::arm()
{
    itimerspec when{};
    armed_ = !this->is_empty();
    if (armed_) {
        armed_for_ = this->earliest_time();
        when.it_value.tv_sec = armed_for_.sec();
        when.it_value.tv_nsec = armed_for_.usec() * 1000L;
        if (when.it_value.tv_sec < 0 || armed_for_ == ACE_Time_Value::zero) {
            when.it_value = {0, 1}; // long past, but zero would mean never
        }
    }
    ::timerfd_settime(handle_, TFD_TIMER_ABSTIME, &when, nullptr);
}
