#pragma once

#include <ace/Reactor.h>

/**
 * One timer of a connection: its id, -1 when it is not armed, seen together with its reactor.
 * Timers are cancelled by id; a cancel by handler would scan every timer of the loop.
 */
class Timer_Slot {
public:
    Timer_Slot(ACE_Reactor& reactor, long& id) : reactor_(reactor), id_(id) {}

    bool armed() const { return id_ != -1; }

    /// @return how many timers were cancelled (0 or 1); handle_close is not called.
    int cancel()
    {
        if (!armed()) {
            return 0;
        }
        constexpr int DONT_CALL_HANDLE_CLOSE = 1;
        const int cancelled = reactor_.cancel_timer(id_, nullptr, DONT_CALL_HANDLE_CLOSE);
        id_ = -1;
        return cancelled;
    }

    /// @return the new id, or -1 with errno. A zero `period` fires once.
    long arm(ACE_Event_Handler* handler, const void* act, const ACE_Time_Value& delay,
             const ACE_Time_Value& period)
    {
        id_ = reactor_.schedule_timer(handler, act, delay, period);
        return id_;
    }

private:
    ACE_Reactor& reactor_;
    long& id_;
};
