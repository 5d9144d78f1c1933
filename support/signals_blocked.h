#pragma once

#include <csignal>

/**
 * Blocks every signal in this thread while it lives: a thread that is started meanwhile keeps them
 * blocked, so that signals go to the host's own threads.
 */
class Signals_Blocked {
public:
    Signals_Blocked()
    {
        sigset_t all;
        sigfillset(&all);
        ::pthread_sigmask(SIG_BLOCK, &all, &previous_);
    }
    ~Signals_Blocked() { ::pthread_sigmask(SIG_SETMASK, &previous_, nullptr); }
    Signals_Blocked(const Signals_Blocked&) = delete;
    Signals_Blocked& operator=(const Signals_Blocked&) = delete;

private:
    sigset_t previous_;
};
