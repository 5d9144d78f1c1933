#pragma once

#include "support/export.h"

#include <memory>

class ACE_Reactor;

/// The reactor implementation that Event_Loop_Manager takes on this platform: "epoll".
HTTPD_SUPPORT_EXPORT const char* get_preferred_reactor_type();

/**
 * A fixed number of event loops, each a reactor run by a thread of its own.
 *
 * `open` and `close` are called by the thread that configures the service, `reactor` by the thread
 * that accepts connections. The loop threads block every signal but those of their own faults.
 */
class HTTPD_SUPPORT_EXPORT Event_Loop_Manager {
public:
    Event_Loop_Manager();
    ~Event_Loop_Manager(); ///< close()
    Event_Loop_Manager(const Event_Loop_Manager&) = delete;
    Event_Loop_Manager& operator=(const Event_Loop_Manager&) = delete;

    /**
     * Starts `count` loops. Their threads log as the calling thread does; a log callback of that
     * thread must live until close().
     * @return false with errno, and nothing left running: EINVAL for another type than the
     *         preferred one or a count of 0, EBUSY when it is open.
     */
    bool open(const char* reactor_type, unsigned int count);

    /// The loops' reactors in rotation; null when not open.
    ACE_Reactor* reactor();

    /**
     * Stops and joins the loops, then closes every handler that is still registered through its
     * handle_close. Returns when no loop thread runs; harmless when not open. The reactors refuse
     * everything from then on, and are freed by the next open() or the destructor.
     */
    void close();

    /// close() without freeing the reactors: someone who cannot be waited for may hold one.
    void abandon();

    /// Frees the reactors of all abandoned managers: nobody holds one any more. Called by the
    /// thread that configures the services, as abandon() is.
    static void free_abandoned();

private:
    class Impl;

    std::unique_ptr<Impl> impl_;
};
