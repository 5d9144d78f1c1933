#include "httpd/whole_body_handler.h"

#include "httpd/http_io.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <exception>

namespace {

/// A declared length is memory only as far as bytes arrive; this much is set aside beforehand.
constexpr std::uint64_t MAX_RESERVED = 64 * 1024;

constexpr bool LAST_PIECE = true;

} // namespace

Whole_Body_Handler::~Whole_Body_Handler() = default;

HTTP_Handler::CONCURRENCY Whole_Body_Handler::concurrency(const HTTP_Request&, HANDLE_METHOD) const
{
    return INHERITED;
}

int Whole_Body_Handler::handle_request(HTTP_IO& io)
{
    const HTTP_Request& request = io.request();
    const bool chunked = request.chunked_transfer_encoding();
    if (!chunked && request.headers().get(HTTP_HEAD_TRANSFER_ENCODING) != nullptr) {
        return refuse(io, 501);
    }
    expected_ = chunked ? 0 : request.content_length();
    if (!chunked && expected_ == 0) {
        return handle_empty_body(io);
    }
    if (request.method() == HTTP_METHOD_HEAD) {
        return refuse(io, 400);
    }
    return expected_ > limit_ ? refuse(io, 413) : 0;
}

int Whole_Body_Handler::handle_body(HTTP_IO& io, const void* data, size_t length)
{
    if (data == nullptr) {
        return handle_whole_body(io, body_);
    }
    if (length > limit_ - body_.size()) {
        return refuse(io, 413);
    }
    if (expected_ == length) { // all of it at once: handed on where it lies
        return handle_whole_body(io, {static_cast<const char*>(data), length});
    }
    if (!append(data, length)) {
        return refuse(io, 500);
    }
    return body_.size() == expected_ ? handle_whole_body(io, body_) : 0;
}

int Whole_Body_Handler::refuse(HTTP_IO& io, int status)
{
    HTTP_Response& response = io.response();
    response.status(status);
    response.chunked_transfer_encoding(false);
    response.headers().put(HTTP_HEAD_CONTENT_LENGTH, static_cast<const char*>(nullptr));
    io.send(nullptr, 0, LAST_PIECE);
    return -1;
}

int Whole_Body_Handler::handle_empty_body(HTTP_IO& io)
{
    const int result = handle_whole_body(io, {});
    const HTTP_Request& request = io.request();
    // Left to the connection, an answer that was not begun would become 411, since this request
    // has no Content-Length either.
    if (result == 0 && io.response_state() == HTTP_SOCK_STATE_CONNECTED &&
        request.method() != HTTP_METHOD_HEAD &&
        request.headers().get(HTTP_HEAD_CONTENT_LENGTH) == nullptr) {
        return io.send_error(io.response().status());
    }
    return result;
}

bool Whole_Body_Handler::append(const void* data, size_t length)
{
    try {
        if (body_.empty()) {
            body_.reserve(static_cast<size_t>(std::min(expected_, MAX_RESERVED)));
        }
        body_.append(static_cast<const char*>(data), length);
    } catch (const std::exception&) { // no memory, or more than a string can hold
        errno = ENOMEM;
        return false;
    }
    return true;
}
