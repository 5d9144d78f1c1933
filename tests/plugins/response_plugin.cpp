// A plug-in that sends its responses in every manner that HTTP_IO allows, chosen by the last
// segment of the request's path; the query is its argument. What the calls returned is logged as
// "response: ...".

#include "httpd/http_handler.h"
#include "httpd/http_io.h"
#include "httpd/http_io_ostreambuf.h"
#include "httpd/object_creator_t.h"
#include "support/http_sock_state.h"
#include "support/log.h"

#include <pthread.h>
#include <sys/uio.h>

#include <cstdlib>
#include <map>
#include <memory>
#include <new>
#include <ostream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace {

constexpr bool LAST = true;
constexpr bool MORE = false;
constexpr std::string_view HELLO = "Hello, World!";

/// More than the sockets between two processes hold.
constexpr size_t LARGE = 64U * 1024 * 1024;

using Mode = int (*)(HTTP_IO&);

iovec entry(std::string_view text)
{
    return {const_cast<char*>(text.data()), text.size()};
}

int counted(HTTP_IO& io, std::string_view text)
{
    io.response().content_length(text.size());
    return io.send(text.data(), text.size(), LAST);
}

/// A stream has no way to pass on what its last send returned.
int end_of_stream(const HTTP_IO& io, const HTTP_Response& response)
{
    const bool complete = io.response_state() == HTTP_SOCK_STATE_CONTENT_SENT;
    return complete && response.keep_alive() ? 0 : -1;
}

/// The query says how: "head" or "body" is the write that carries the bytes, then "chunked" and
/// "vector" in any order.
int send_large(HTTP_IO& io)
{
    const std::string how = io.request().query() != nullptr ? io.request().query() : "";
    const bool in_head = how.find("head") != std::string::npos;
    const bool vector = how.find("vector") != std::string::npos;
    const std::unique_ptr<char, decltype(&std::free)> body(
        static_cast<char*>(std::calloc(1, LARGE)), &std::free);
    const iovec halves[2] = {{body.get(), LARGE / 2}, {body.get() + LARGE / 2, LARGE / 2}};
    if (how.find("chunked") != std::string::npos) {
        io.response().chunked_transfer_encoding(true);
    } else {
        io.response().content_length(LARGE);
    }
    if (!in_head && (vector ? io.sendv_n(nullptr, 0, MORE) : io.send(nullptr, 0, MORE)) == -1) {
        return -1;
    }
    const int result = vector ? io.sendv_n(halves, 2, LAST) : io.send(body.get(), LARGE, LAST);
    HTTPD_INFO("response: large %d %s", result, http_sock_state_name(io.response_state()));
    if (result == -1 && in_head) {
        const int again = vector ? io.sendv_n(nullptr, 0, LAST) : io.send(nullptr, 0, LAST);
        HTTPD_INFO("response: again %d", again);
    }
    return result;
}

int send_fields_in_order(HTTP_IO& io)
{
    HTTP_Headers& headers = io.response().headers();
    headers.put("X-Zulu", "1");
    headers.put(HTTP_HEAD_LOCATION, "/there");
    headers.put("X-Alpha", "2");
    io.response().content_type("text/html");
    return counted(io, HELLO);
}

/// A vector of as many entries as the query says, some of them empty. In one write with the header,
/// or behind it; counted or chunked.
int send_entries(HTTP_IO& io, bool behind, bool chunked)
{
    const size_t count =
        io.request().query() != nullptr ? std::strtoul(io.request().query(), nullptr, 10) : 0;
    std::vector<std::string> texts(count);
    std::vector<iovec> entries(count);
    size_t total = 0;
    for (size_t i = 0; i < count; ++i) {
        texts[i] = i % 7 == 3 ? "" : std::to_string(i) + ",";
        entries[i] = entry(texts[i]);
        total += texts[i].size();
    }
    if (chunked) {
        io.response().chunked_transfer_encoding(true);
    } else {
        io.response().content_length(total);
    }
    if (behind && io.send(nullptr, 0, MORE) == -1) {
        return -1;
    }
    return io.sendv_n(entries.data(), static_cast<int>(count), LAST);
}

/// Pieces with empty ones between them.
int send_with_gaps(HTTP_IO& io)
{
    io.response().chunked_transfer_encoding(true);
    const int results = io.send("ab", 2, MORE) | io.send(nullptr, 0, MORE) | io.send("", 0, MORE) |
                        io.send(nullptr, 5, MORE) | io.send("c", 1, MORE) |
                        io.send(nullptr, 0, LAST);
    HTTPD_INFO("response: gaps %d", results);
    return results;
}

int send_vectors_with_gaps(HTTP_IO& io)
{
    io.response().chunked_transfer_encoding(true);
    const iovec first[2] = {entry("a"), entry("b")};
    const iovec second[1] = {entry("c")};
    const int results = io.sendv_n(first, 2, MORE) | io.sendv_n(nullptr, 0, MORE) |
                        io.sendv_n(first, 0, MORE) | io.sendv_n(nullptr, 2, MORE) |
                        io.sendv_n(second, 1, MORE) | io.sendv_n(nullptr, 0, LAST);
    HTTPD_INFO("response: gaps %d", results);
    return results;
}

/// The declared length ends the response; every call behind it comes in the wrong state.
int call_after_the_end(HTTP_IO& io)
{
    io.response().content_length(HELLO.size());
    const int end = io.send(HELLO.data(), HELLO.size(), MORE);
    const int send = io.send(nullptr, 0, LAST);
    const int sendv = io.sendv_n(nullptr, 0, LAST);
    const int error = io.send_error(500, "late", 4);
    HTTPD_INFO("response: after the end %d %d %d %d", end, send, sendv, error);
    return end;
}

int send_error_over_fields(HTTP_IO& io)
{
    io.response().headers().put("X-Kept", "yes");
    io.response().chunked_transfer_encoding(true);
    return io.send_error(503, "busy", 4);
}

int send_typed_file(HTTP_IO& io)
{
    io.response().content_type("image/x-mine");
    return io.send_file(io.request().query());
}

/// Writes through a stream whose buffer holds five bytes.
int stream_by_five(HTTP_IO& io)
{
    io.response().chunked_transfer_encoding(true);
    {
        HTTP_IO_ostreambuf buffer(io, 5);
        std::ostream out(&buffer);
        out << "HelloWorld";
    }
    return end_of_stream(io, io.response());
}

int stream_with_flush(HTTP_IO& io)
{
    io.response().chunked_transfer_encoding(true);
    {
        HTTP_IO_ostreambuf buffer(io, 5);
        std::ostream out(&buffer);
        out << "He" << std::flush << "llo";
    }
    return end_of_stream(io, io.response());
}

int stream_counted(HTTP_IO& io)
{
    io.response().content_length(HELLO.size());
    {
        HTTP_IO_ostreambuf buffer(io, 5);
        std::ostream out(&buffer);
        out << HELLO.substr(0, 12) << HELLO.substr(12);
    }
    return end_of_stream(io, io.response());
}

int stream_nothing(HTTP_IO& io)
{
    {
        HTTP_IO_ostreambuf buffer(io, 5);
    }
    return end_of_stream(io, io.response());
}

int stream_after_the_end(HTTP_IO& io)
{
    {
        HTTP_IO_ostreambuf buffer(io, 5);
        io.send_error(200, "done", 4);
    }
    return end_of_stream(io, io.response());
}

int stream_without_buffer(HTTP_IO& io)
{
    io.response().chunked_transfer_encoding(true);
    {
        HTTP_IO_ostreambuf buffer(io, 0);
        std::ostream out(&buffer);
        out << HELLO;
        HTTPD_INFO("response: stream is %s", out.bad() ? "bad" : "good");
    }
    return end_of_stream(io, io.response());
}

const std::map<std::string_view, Mode>& modes()
{
    static const std::map<std::string_view, Mode> table = {
        {"hello", [](HTTP_IO& io) { return counted(io, HELLO); }},
        {"large", &send_large},
        {"order", &send_fields_in_order},
        {"gaps", &send_with_gaps},
        {"vector-gaps", &send_vectors_with_gaps},
        {"after-the-end", &call_after_the_end},
        {"error-over-fields", &send_error_over_fields},
        {"typed-file", &send_typed_file},
        {"stream-five", &stream_by_five},
        {"stream-flush", &stream_with_flush},
        {"stream-counted", &stream_counted},
        {"stream-nothing", &stream_nothing},
        {"stream-after-the-end", &stream_after_the_end},
        {"stream-without-buffer", &stream_without_buffer},
        {"empty-error", [](HTTP_IO& io) { return io.send_error(404, nullptr, 0); }},
        {"dated",
         [](HTTP_IO& io) {
             io.response().headers().put(HTTP_HEAD_DATE, "Sun, 06 Nov 1994 08:49:37 GMT", true);
             return counted(io, HELLO);
         }},
        {"reason",
         [](HTTP_IO& io) {
             io.response().status(200, "Fine\r\nX-Evil: yes");
             return counted(io, HELLO);
         }},
        {"entries", [](HTTP_IO& io) { return send_entries(io, false, false); }},
        {"entries-behind", [](HTTP_IO& io) { return send_entries(io, true, false); }},
        {"chunked-entries", [](HTTP_IO& io) { return send_entries(io, true, true); }},
        {"throw", [](HTTP_IO&) -> int { throw std::bad_alloc(); }},
        {"throw-late",
         [](HTTP_IO& io) -> int {
             io.response().content_length(HELLO.size());
             io.send(HELLO.data(), 5, MORE);
             throw std::runtime_error("no more");
         }},
        {"throw-number", [](HTTP_IO&) -> int { throw 5; }},
        // The one piece is longer than what was declared.
        {"overrun",
         [](HTTP_IO& io) {
             io.response().content_length(5);
             return io.send(HELLO.data(), HELLO.size(), MORE);
         }},
        // The thread that serves the connection.
        {"thread-name",
         [](HTTP_IO& io) {
             char name[16] = "";
             ::pthread_getname_np(::pthread_self(), name, sizeof name);
             return counted(io, name);
         }},
    };
    return table;
}

class Response_Handler : public HTTP_Handler {
public:
    CONCURRENCY concurrency(const HTTP_Request& request, HANDLE_METHOD) const override
    {
        const std::string_view uri = request.uri(true);
        return uri.find("/thread/") != std::string_view::npos ? THREAD : INHERITED;
    }

    int handle_request(HTTP_IO& io) override
    {
        const std::string_view uri = io.request().uri(true);
        HTTPD_INFO("response: handle_request %s", io.request().uri(true));
        const auto found = modes().find(uri.substr(uri.rfind('/') + 1));
        return found != modes().end() ? found->second(io) : io.send_error(404);
    }

    int handle_body(HTTP_IO&, const void*, size_t) override { return 0; }

    int handle_close() override
    {
        HTTPD_INFO("response: handle_close");
        return 0;
    }
};

class Response_Creator : public Object_Creator_T<HTTP_Handler> {
public:
    ~Response_Creator() override { HTTPD_INFO("response: factory deleted"); }

    HTTP_Handler* create() override { return new Response_Handler; }
    void destroy(HTTP_Handler* handler) override { delete handler; }
};

} // namespace

#define RESPONSE_EXPORT extern "C" __attribute__((visibility("default")))

RESPONSE_EXPORT Object_Creator_T<HTTP_Handler>* _make_Response(void (**gobbler)(void*));

Object_Creator_T<HTTP_Handler>* _make_Response(void (**gobbler)(void*))
{
    *gobbler = [](void* creator) { delete static_cast<Response_Creator*>(creator); };
    return new Response_Creator;
}
