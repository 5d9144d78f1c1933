#pragma once

#include "httpd/export.h"

/**
 * One service's share in what the services of a process have in common: the options, the plug-ins
 * and the connections. The last one that stops waits for the connections of all, so that nothing is
 * released that another one still uses.
 *
 * Called by the thread that configures the services.
 */
class HTTPD_EXPORT Service_Share {
public:
    Service_Share() = default;
    ~Service_Share() { this->stop(); }
    Service_Share(const Service_Share&) = delete;
    Service_Share& operator=(const Service_Share&) = delete;

    /// From now on the service may have connections.
    void start();

    /**
     * The service has let go of its connections. When no other service goes on, those that are left
     * are waited for: the ones in worker threads are interrupted, and their plug-ins get 10 seconds
     * to return (an error line names the one that does not).
     * @return false: connections may be left. Without start() it does nothing, true.
     */
    bool stop();

    /// No other service goes on, and no connection was left by stop(): what is shared may go.
    bool is_last() const;

private:
    bool started_ = false;
    bool drained_ = true;
};

/// A send to a peer that has gone must end in an error: TLS and shared-memory streams write without
/// a way to say so for the single call. A disposition that the host has chosen is kept.
void ignore_sigpipe();
