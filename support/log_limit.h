#pragma once

#include <chrono>

/**
 * Keeps a failure that goes on, and that every request meets, from filling the log: lets MOST lines
 * of each second through. Not for several threads at once; the caller's lock sees to that.
 */
class Log_Limit {
public:
    enum { MOST = 10 };

    using Clock = std::chrono::steady_clock;

    /// Counts a line that is about to be logged. @return whether to log it. Keeps errno.
    bool may_log(Clock::time_point now = Clock::now())
    {
        if (count_ == 0 || now - since_ >= std::chrono::seconds(1)) {
            since_ = now;
            count_ = 0;
        }
        if (count_ == MOST) {
            return false;
        }
        ++count_;
        return true;
    }

private:
    Clock::time_point since_;
    unsigned count_ = 0; ///< lines of the second that began at since_
};
