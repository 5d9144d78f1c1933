#include "plugins/echo/echo_handler.h"

#include "httpd/http_io.h"

#include <algorithm>

namespace {

constexpr std::uint64_t LOOP_BODY_LIMIT = 64 * 1024;

/// The lines that describe a request. Visits the pieces of their text in order.
template <typename Visitor>
void visit_text(const HTTP_Request& request, Visitor&& visit)
{
    const auto line = [&visit](std::string_view name, std::string_view value) {
        visit(name);
        visit(": ");
        visit(value);
        visit("\n");
    };
    line("Method", request.method_text());
    line("URI", request.uri(true));
    if (request.query() != nullptr) {
        line("Query", request.query());
    }
    for (const HTTP_Headers::Field& field : request.headers()) {
        line(field.name, field.value);
    }
    visit("\n");
}

/// The text, in memory of the response. @return false when there is none left.
bool make_text(HTTP_IO& io, std::string_view& text)
{
    size_t size = 0;
    visit_text(io.request(), [&size](std::string_view piece) { size += piece.size(); });
    char* const begin = static_cast<char*>(io.response().arena().allocate(size));
    if (begin == nullptr) {
        return false;
    }
    char* end = begin;
    visit_text(io.request(), [&end](std::string_view piece) {
        end = std::copy(piece.begin(), piece.end(), end);
    });
    text = {begin, size};
    return true;
}

/// The text repeats what the client sent, so nothing may take it for a page or keep it.
void put_fields(HTTP_Response& response)
{
    response.content_type("text/plain");
    response.headers().put(HTTP_HEAD_CACHE_CONTROL, "no-store");
    response.headers().put(HTTP_HEAD_X_CONTENT_TYPE_OPTIONS, "nosniff");
}

} // namespace

HTTP_Handler::CONCURRENCY Echo_Handler::concurrency(const HTTP_Request& request,
                                                    HANDLE_METHOD) const
{
    const bool large =
        request.chunked_transfer_encoding() || request.content_length() > LOOP_BODY_LIMIT;
    return large && request.method() != HTTP_METHOD_HEAD ? THREAD : INHERITED;
}

int Echo_Handler::handle_request(HTTP_IO& io)
{
    const HTTP_Request& request = io.request();
    const bool body = request.content_length() > 0 ||
                      request.headers().get(HTTP_HEAD_TRANSFER_ENCODING) != nullptr;
    if (body && request.method() != HTTP_METHOD_HEAD) {
        // Answered as it arrives. Nothing is sent yet: the client may wait for 100 (Continue). A
        // coding that the library does not decode ends in its 411.
        return 0;
    }
    std::string_view text;
    if (!make_text(io, text)) {
        return -1;
    }
    put_fields(io.response());
    if (!body) { // the body of a HEAD request is not read: without a length the connection closes
        io.response().content_length(text.size());
    }
    return io.send(text.data(), text.size(), true);
}

int Echo_Handler::handle_body(HTTP_IO& io, const void* data, size_t length)
{
    const HTTP_Request& request = io.request();
    received_ += length;
    const bool last = request.chunked_transfer_encoding() ? data == nullptr
                                                          : received_ >= request.content_length();
    if (io.response_state() != HTTP_SOCK_STATE_CONNECTED) {
        return io.send(data, length, last);
    }

    std::string_view text;
    if (!make_text(io, text)) {
        return -1;
    }
    put_fields(io.response());
    // Its length is not told beforehand: HTTP/1.0 knows only the end of the connection for that.
    io.response().chunked_transfer_encoding(request.minor_version() > 0);
    const iovec pieces[] = {{const_cast<char*>(text.data()), text.size()},
                            {const_cast<void*>(data), length}};
    return io.sendv_n(pieces, length > 0 ? 2 : 1, last);
}
