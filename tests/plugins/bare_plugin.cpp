// Plug-ins that allocate nothing themselves, so that what a request costs the server can be
// counted, and one that answers with the count.

#include "httpd/http_handler.h"
#include "httpd/http_io.h"
#include "httpd/object_creator_t.h"
#include "httpd/simple_creator_t.h"

#include <dlfcn.h>

#include <cstdio>
#include <string_view>

namespace {

class Bare_Handler : public HTTP_Handler {
public:
    CONCURRENCY concurrency(const HTTP_Request&, HANDLE_METHOD) const override { return INHERITED; }

    int handle_request(HTTP_IO& io) override
    {
        return io.request().content_length() > 0 ? 0 : answer(io);
    }

    int handle_body(HTTP_IO& io, const void*, size_t length) override
    {
        received_ += length;
        return received_ < io.request().content_length() ? 0 : answer(io);
    }

    int handle_close() override { return 0; }

private:
    static int answer(HTTP_IO& io)
    {
        static constexpr std::string_view TEXT = "Hello, World!";
        constexpr bool LAST = true;
        io.response().content_type("text/plain");
        io.response().content_length(TEXT.size());
        return io.send(TEXT.data(), TEXT.size(), LAST);
    }

    size_t received_ = 0;
};

/// One allocation for each request.
class Bare_Creator : public Object_Creator_T<HTTP_Handler> {
public:
    HTTP_Handler* create() override { return new Bare_Handler; }
    void destroy(HTTP_Handler* handler) override { delete handler; }
};

/// Answers with the allocations of the process until now, which a library that was loaded before
/// all others has counted; "none" without it.
class Count_Handler : public HTTP_Handler {
public:
    CONCURRENCY concurrency(const HTTP_Request&, HANDLE_METHOD) const override { return INHERITED; }

    int handle_request(HTTP_IO& io) override
    {
        using Counter = unsigned long (*)();
        const auto counter =
            reinterpret_cast<Counter>(::dlsym(RTLD_DEFAULT, "httpd_test_malloc_count"));
        char text[32] = "none";
        if (counter != nullptr) {
            std::snprintf(text, sizeof text, "%lu", counter());
        }
        constexpr bool LAST = true;
        const std::string_view body(text);
        io.response().content_length(body.size());
        return io.send(body.data(), body.size(), LAST);
    }

    int handle_body(HTTP_IO&, const void*, size_t) override { return -1; }
    int handle_close() override { return 0; }
};

} // namespace

HTTPD_PLUGIN_FACTORY(_make_Bare, Bare_Creator)
HTTPD_PLUGIN_FACTORY(_make_Bare_Recycled, Simple_Creator_T<HTTP_Handler, Bare_Handler>)
HTTPD_PLUGIN_FACTORY(_make_Allocation_Count, Simple_Creator_T<HTTP_Handler, Count_Handler>)
