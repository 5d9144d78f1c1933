#pragma once

#include "httpd/export.h"
#include "httpd/service_share.h"
#include "support/event_loop_manager.h"

#include <ace/Service_Object.h>

#include <vector>

/**
 * The listening server as a service of the host's service configurator: `init` turns a command line
 * into a running server, `fini` takes it down.
 *
 * The listening sockets are registered with the process-wide reactor, which the host runs; the
 * connections live on event loops of the service's own. `init` and `fini` are called by the thread
 * that configures the services, `fini` not while another thread runs the process-wide reactor.
 */
class HTTPD_EXPORT HTTP_Service : public ACE_Service_Object {
public:
    HTTP_Service();

    /// Like fini(), but what the process shares (options, plug-ins) is left alone.
    ~HTTP_Service() override;

    HTTP_Service(const HTTP_Service&) = delete;
    HTTP_Service& operator=(const HTTP_Service&) = delete;

    /**
     * Reads the options, starts the event loops and listens. Addresses that cannot be listened on
     * are logged and skipped. Called again, it starts anew, with the options added up. SIGPIPE is
     * ignored from then on, unless the host has chosen otherwise.
     *
     * @param argv  no program name: argv[0] is the first option; null when argc is 0
     * @return 0; -1 (logged) when the options cannot be read or the loops not be started.
     */
    int init(int argc, char** argv) override;

    /**
     * Stops listening, stops the loops, closes every connection, and releases the options and the
     * plug-ins, unless a plug-in does not come back within 10 seconds: then they are left alone,
     * since it still uses them. Of several services in one process the last one
     * waits and releases. @return 0
     */
    int fini() override;

private:
    void clear();

    std::vector<ACE_Service_Object*> acceptors_; ///< owned, in the order of the listen addresses
    Event_Loop_Manager loops_;
    Service_Share share_; ///< held while connections may exist that came in through this service
};

extern "C" {

/**
 * The service's factory, for the service configurator.
 * @param gobbler  receives the function that deletes what this one returns; may be null
 * @return the service, or null with ENOMEM
 */
HTTPD_EXPORT ACE_Service_Object* _make_HTTP_Service(void (**gobbler)(void*));

/// Deletes a service. @param _p  not null
HTTPD_EXPORT void _gobble_HTTP_Service(void* _p);
}
