#pragma once

#include <chrono>

/**
 * Starts the detached threads that connections live in, and knows how many there are.
 *
 * A thread starts with the default scheduling and the signal mask of its starter, and its log
 * messages go where those of its starter go, except to a callback. ACE's own ways to start a thread
 * end the process when memory is short, on either side; this one tells.
 *
 * Any thread.
 */
class Worker_Threads {
public:
    /// @param has_log  false: there is no memory for the thread's log messages; it should do no
    /// more
    ///                 than to give `argument` free.
    using Body = void (*)(void* argument, bool has_log);

    /// @return 0, or -1 with errno, ENOMEM or EAGAIN; `body` is not called then.
    static int start(Body body, void* argument);

    /// Waits until every thread has ended, with what it has to do for ACE after its body.
    /// @return false when there is one left at `deadline`.
    static bool wait_until(std::chrono::steady_clock::time_point deadline);
};
