#pragma once

#include "httpd/export.h"

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <set>
#include <string>

/**
 * Counts the connections of the process and knows those that live in worker threads, so that a
 * service can end without leaving anyone behind in a plug-in that is about to be unloaded.
 *
 * Any thread. The one object is never destroyed: a detached thread may outlive static objects.
 */
class HTTPD_EXPORT Live_Connections {
public:
    /// A connection in a worker thread.
    class Worker {
    public:
        /// Makes the thread stop as soon as its plug-in returns. Called by another thread.
        virtual void interrupt() = 0;

        /// What the thread may be busy with, for a log line. Called by another thread.
        virtual std::string plug_in() const = 0;

    protected:
        ~Worker() = default;
    };

    static Live_Connections& instance();

    /// Called by a connection's constructor and, last of all, its destructor.
    void add();
    void remove();

    /// Called when a connection goes to a worker thread, and before its stream is closed.
    bool enter_thread(Worker* worker); ///< false: there is no memory (errno)
    void leave_thread(Worker* worker);

    /// Interrupts this connection, if it is in a worker thread.
    void interrupt(Worker* worker);

    /**
     * Interrupts the connections in worker threads and waits until no connection is left and the
     * threads have ended: one that still ends when the process does meets ACE's locks destroyed.
     * @return false when `limit` has passed before; an error line then names what is left.
     */
    bool drain(std::chrono::milliseconds limit);

private:
    Live_Connections() = default;

    std::mutex mutex_;
    std::condition_variable changed_;
    size_t count_ = 0;
    std::set<Worker*> workers_;
};
