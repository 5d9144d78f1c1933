// Plug-ins that cost next to nothing themselves, so that what is measured is the server: a short
// text, in the event loop or in the connection's own thread, and a sink for uploads. Their objects
// come from recycled memory; a request allocates nothing.

#include "httpd/http_handler.h"
#include "httpd/http_io.h"
#include "httpd/object_creator_t.h"
#include "httpd/simple_creator_t.h"

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace {

int answer(HTTP_IO& io)
{
    static constexpr std::string_view TEXT = "Hello, World!";
    constexpr bool LAST = true;
    io.response().content_type("text/plain");
    io.response().content_length(TEXT.size());
    return io.send(TEXT.data(), TEXT.size(), LAST);
}

/// Answers any request without a body.
class Hello_Handler : public HTTP_Handler {
public:
    CONCURRENCY concurrency(const HTTP_Request&, HANDLE_METHOD) const override { return INHERITED; }
    int handle_request(HTTP_IO& io) override { return answer(io); }
    int handle_body(HTTP_IO&, const void*, size_t) override { return -1; }
    int handle_close() override { return 0; }
};

class Hello_Thread_Handler : public Hello_Handler {
public:
    CONCURRENCY concurrency(const HTTP_Request&, HANDLE_METHOD) const override { return THREAD; }
};

/// Counts the body's bytes, whichever way it is framed, and answers at its end.
class Sink_Handler : public HTTP_Handler {
public:
    CONCURRENCY concurrency(const HTTP_Request&, HANDLE_METHOD) const override { return INHERITED; }

    int handle_request(HTTP_IO& io) override
    {
        chunked_ = io.request().headers().get(HTTP_HEAD_TRANSFER_ENCODING) != nullptr;
        return !chunked_ && io.request().content_length() == 0 ? answer(io) : 0;
    }

    int handle_body(HTTP_IO& io, const void* data, size_t length) override
    {
        received_ += length;
        const bool complete =
            chunked_ ? data == nullptr : received_ >= io.request().content_length();
        return complete ? answer(io) : 0;
    }

    int handle_close() override { return 0; }

private:
    std::uint64_t received_ = 0; ///< bytes of this request's body
    bool chunked_ = false;
};

} // namespace

HTTPD_PLUGIN_FACTORY(_make_Hello, Simple_Creator_T<HTTP_Handler, Hello_Handler>)
HTTPD_PLUGIN_FACTORY(_make_Hello_Thread, Simple_Creator_T<HTTP_Handler, Hello_Thread_Handler>)
HTTPD_PLUGIN_FACTORY(_make_Sink, Simple_Creator_T<HTTP_Handler, Sink_Handler>)
