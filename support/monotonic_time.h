#pragma once

#include <ace/Time_Value.h>

#include <ctime>

/// The clock of the event loops' timers: it never jumps when the wall clock is set.
inline ACE_Time_Value monotonic_time()
{
    timespec now = {};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return ACE_Time_Value(now.tv_sec, static_cast<suseconds_t>(now.tv_nsec / 1000));
}
