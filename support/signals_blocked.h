#pragma once

#include <signal.h>

#include <initializer_list>

/**
 * Blocks the signals in this thread while it lives: a thread that is started meanwhile keeps them
 * blocked, so that they go to the host's own threads. Faults of the thread's own instructions stay
 * as they are: blocked, they would pass by a crash handler.
 */
class Signals_Blocked {
public:
    Signals_Blocked()
    {
        sigset_t blocked;
        ::sigfillset(&blocked);
        for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGSYS}) {
            ::sigdelset(&blocked, fault);
        }
        ::pthread_sigmask(SIG_BLOCK, &blocked, &previous_);
    }
    ~Signals_Blocked() { ::pthread_sigmask(SIG_SETMASK, &previous_, nullptr); }
    Signals_Blocked(const Signals_Blocked&) = delete;
    Signals_Blocked& operator=(const Signals_Blocked&) = delete;

private:
    sigset_t previous_;
};
