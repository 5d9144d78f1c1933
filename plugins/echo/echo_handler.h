#pragma once

#include "httpd/http_handler.h"

#include <cstdint>
#include <string_view>

/**
 * Answers with the request as the library saw it: method, URI, query and fields as lines of text,
 * an empty line, then the body, piece by piece as it arrives.
 */
class Echo_Handler : public HTTP_Handler {
public:
    /**
     * A body larger than what the sockets' buffers surely hold, or of unknown size, asks for a
     * thread: a client that sends it all before it reads would hold an event loop.
     */
    CONCURRENCY concurrency(const HTTP_Request& request, HANDLE_METHOD method) const override;

    int handle_request(HTTP_IO& io) override;
    int handle_body(HTTP_IO& io, const void* data, size_t length) override;

private:
    std::uint64_t received_ = 0; ///< bytes of the request's body
};
