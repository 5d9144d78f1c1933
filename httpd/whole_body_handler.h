#pragma once

#include "httpd/export.h"
#include "httpd/http_handler.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

/**
 * Base class of a plug-in that wants the whole body of a request at once, up to a limit.
 *
 * It collects counted and chunked bodies and then calls handle_whole_body, exactly once for each
 * request that is not refused; a request without a body is handed over in handle_request. Refused,
 * with the connection closed behind the answer so that the unread body is never taken for the next
 * request:
 * - 413: a body beyond the limit, as soon as its Content-Length or what has arrived shows it
 * - 501: a transfer coding other than "chunked", whose end cannot be found (RFC 9112, section 6.1)
 * - 400: a HEAD request with a body, which has no meaning (RFC 9110, section 9.3.2)
 * - 500: no memory for the body
 */
class HTTPD_EXPORT Whole_Body_Handler : public HTTP_Handler {
public:
    /// @param limit  bytes of the largest body taken; 0 takes none
    explicit Whole_Body_Handler(size_t limit) : limit_(limit) {}
    ~Whole_Body_Handler() override;

    /// In the thread that the connection is in; override it to block in handle_whole_body.
    CONCURRENCY concurrency(const HTTP_Request& request, HANDLE_METHOD method) const override;

    int handle_request(HTTP_IO& io) override;
    int handle_body(HTTP_IO& io, const void* data, size_t length) override;

protected:
    /**
     * The request is complete: io.request() and its body. A plug-in that sends nothing has the
     * status in io.response() sent for it. To answer later (HTTP_IO::suspend_read), the request
     * must have had Content-Length or have been chunked.
     * @param body  valid during the call
     * @return 0; -1 closes the connection: pass on what the send operations return.
     */
    virtual int handle_whole_body(HTTP_IO& io, std::string_view body) = 0;

    /**
     * Answers a request whose body is not read, without a body and so that the connection is
     * closed: the response has no Content-Length and is not chunked.
     * @return -1, to be passed on.
     */
    static int refuse(HTTP_IO& io, int status);

private:
    int handle_empty_body(HTTP_IO& io);
    bool append(const void* data, size_t length);

    const size_t limit_;
    std::uint64_t expected_ = 0; ///< Content-Length; 0 for a chunked body
    std::string body_;           ///< what has arrived
};
