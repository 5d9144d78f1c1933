#pragma once

#include "support/epoll_timer_queue.h"

/// The reactor's timers on a clock that stands still until it is told to go on.
class Scripted_Clock : public Epoll_Timer_Queue {
public:
    using Epoll_Timer_Queue::expire;
    using Epoll_Timer_Queue::gettimeofday;

    ACE_Time_Value gettimeofday() override { return now_; }
    int expire() override
    {
        return this->is_empty() || this->earliest_time() > now_ ? 0 : this->expire(now_);
    }

    void pass(const ACE_Time_Value& time) { now_ += time; }

private:
    ACE_Time_Value now_{1'000'000};
};
