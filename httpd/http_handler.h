#pragma once

#include "httpd/export.h"

#include <cstddef>

class HTTP_IO;
class HTTP_Request;

/**
 * Base class of a plug-in that answers HTTP requests.
 *
 * The plug-in's factory (Object_Creator_T<HTTP_Handler>) makes one object for each request and gets
 * it back before the next request of the connection, or when the connection is deleted. All calls
 * come from the one thread that drives the connection at that time: an event loop, which must not
 * be blocked, or with THREAD the connection's own thread, which may be.
 *
 * Order of calls: concurrency, handle_request, handle_body for each piece of body, handle_close
 * when the connection goes.
 *
 * A plug-in that answers a request with a body before it has taken the whole body must not use
 * Content-Length (nor end a chunked response early): without it the connection closes behind the
 * response, so that the unread body can never be taken for the next request.
 */
class HTTPD_EXPORT HTTP_Handler {
public:
    /// How a plug-in wants its connection run.
    enum CONCURRENCY {
        INHERITED = 0, ///< in whatever thread the connection is
        REACTIVE = 1,  ///< refused with 500
        THREAD = 2,    ///< in a thread of the connection's own, from now to its end
        PROACTIVE = 3  ///< refused with 500
    };

    /// When concurrency() is asked.
    enum HANDLE_METHOD {
        HEADER = 0, ///< the request header is complete
        CONTENT = 1 ///< for the body; not asked by this engine
    };

    HTTP_Handler() = default;
    virtual ~HTTP_Handler();
    HTTP_Handler(const HTTP_Handler&) = delete;
    HTTP_Handler& operator=(const HTTP_Handler&) = delete;

    /// For the plug-in's factory to call, if it likes; the engine does not. @return 0, or -1.
    virtual int init(int argc, char** argv);
    virtual int fini();

    /// How this request is to be run: INHERITED or THREAD.
    virtual CONCURRENCY concurrency(const HTTP_Request& request, HANDLE_METHOD method) const = 0;

    /**
     * The request header is complete. Unless the response is completed here, the body follows (a
     * request other than HEAD must then have Content-Length or be chunked, else it is refused with
     * 411). @return 0; -1 closes the connection.
     */
    virtual int handle_request(HTTP_IO& io) = 0;

    /**
     * One piece of the request's body, straight from the receive buffer.
     * @param data    valid during the call; null at the end of a chunked body. A counted body ends
     *                with the piece that completes its length and has no such call.
     * @param length  bytes
     * @return 0; -1 closes the connection.
     */
    virtual int handle_body(HTTP_IO& io, const void* data, size_t length) = 0;

    /// The connection is closing. The result is not used.
    virtual int handle_close();
};
