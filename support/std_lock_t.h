#pragma once

#include <cerrno>

/**
 * A mutex of the standard library under the names that ACE's guards, adapters and containers call.
 * Unlike ACE's own classes it locks in place, not inside libACE: an instrumented build sees it.
 */
template <typename Mutex>
class Std_Lock_T {
public:
    int acquire()
    {
        mutex_.lock();
        return 0;
    }
    int tryacquire()
    {
        if (mutex_.try_lock()) {
            return 0;
        }
        errno = EBUSY;
        return -1;
    }
    int release()
    {
        mutex_.unlock();
        return 0;
    }
    int acquire_read() { return this->acquire(); }
    int acquire_write() { return this->acquire(); }
    int tryacquire_read() { return this->tryacquire(); }
    int tryacquire_write() { return this->tryacquire(); }
    int tryacquire_write_upgrade() { return 0; }
    int remove() { return 0; }

private:
    Mutex mutex_;
};
