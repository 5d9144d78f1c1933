#pragma once

#include "httpd/export.h"
#include "httpd/http_svc_handler_t.h"
#include "httpd/service_share.h"

#include <ace/Null_Mutex.h>
#include <ace/Service_Object.h>
#include <ace/Synch_Traits.h>

/**
 * The one connection of the stdin/stdout service, driven by the process-wide reactor or, for a
 * plug-in that asks for it, by a worker thread.
 */
class HTTPD_EXPORT HTTP_Stdin_Stout_Svc_Handler
    : public HTTP_Svc_Handler_T<Pipe_Stream, ACE_NULL_SYNCH> {
public:
    ~HTTP_Stdin_Stout_Svc_Handler() override;

    /// The connection has ended: so does the event loop of the process-wide reactor, by which the
    /// host learns of it. The handler itself stays until its service lets go of it. @return 0
    int handle_close(ACE_HANDLE handle, ACE_Reactor_Mask mask) override;

    /// For the service, to be called before it drops its reference.
    using HTTP_Svc_Handler_T<Pipe_Stream, ACE_NULL_SYNCH>::stop_connection;
};

/**
 * A service that serves exactly one HTTP connection: requests come from descriptor 0, responses go
 * to descriptor 1, and the end of the connection ends the event loop of the process-wide reactor.
 *
 * It takes the options of HTTP_Service; those about listening, event loops and accepting have no
 * effect. `init` and `fini` are called by the thread that runs that event loop.
 */
class HTTPD_EXPORT HTTP_Stdin_Stout_Service : public ACE_Service_Object {
public:
    HTTP_Stdin_Stout_Service();

    /// Like fini(), but what the process shares (options, plug-ins) is left alone.
    ~HTTP_Stdin_Stout_Service() override;

    HTTP_Stdin_Stout_Service(const HTTP_Stdin_Stout_Service&) = delete;
    HTTP_Stdin_Stout_Service& operator=(const HTTP_Stdin_Stout_Service&) = delete;

    /**
     * Reads the options and opens the connection. SIGPIPE is ignored from then on, unless the host
     * has chosen otherwise.
     *
     * @param argv  no program name: argv[0] is the first option; null when argc is 0
     * @return 0; -1: the options cannot be read, there is no memory (ENOMEM), or the connection
     *         cannot be opened.
     */
    int init(int argc, char** argv) override;

    /**
     * Closes the connection, and releases the options and the plug-ins but the authenticators,
     * unless a plug-in does not come back within 10 seconds or another service of this library goes
     * on: then they are left alone. A client that is still sending is given 2 seconds to read the
     * response. @return 0
     */
    int fini() override;

private:
    void clear();

    HTTP_Stdin_Stout_Svc_Handler* handler_ = nullptr; ///< one reference to it is the service's
    Service_Share share_;
};

extern "C" {

/**
 * The service's factory, for the service configurator.
 * @param gobbler  receives the function that deletes what this one returns; may be null
 * @return the service, or null with ENOMEM
 */
HTTPD_EXPORT ACE_Service_Object* _make_HTTP_Stdin_Stout_Service(void (**gobbler)(void*));

/// Deletes a service. @param _p  not null
HTTPD_EXPORT void _gobble_HTTP_Stdin_Stout_Service(void* _p);
}
