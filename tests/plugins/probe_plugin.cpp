// A plug-in that answers in every manner that the interface allows, chosen by the request's path
// below its own URI, and that logs each call that it gets as a line "probe: ...".

#include "httpd/http_authenticator.h"
#include "httpd/http_handler.h"
#include "httpd/http_io.h"
#include "httpd/http_io_ostreambuf.h"
#include "httpd/object_creator_t.h"
#include "support/log.h"

#include <ace/INET_Addr.h>
#include <ace/UNIX_Addr.h>

#include <fcntl.h>
#include <unistd.h>

#include <condition_variable>
#include <cstdlib>
#include <map>
#include <mutex>
#include <ostream>
#include <string>
#include <string_view>
#include <thread>

namespace {

constexpr bool LAST = true;
constexpr bool MORE = false;
constexpr std::string_view HELLO = "Hello, World!";

/// What a suspended answer waits for, until another request opens it for good.
class Gate {
public:
    void open()
    {
        const std::lock_guard<std::mutex> guard(mutex_);
        open_ = true;
        opened_.notify_all();
    }

    void wait()
    {
        std::unique_lock<std::mutex> guard(mutex_);
        opened_.wait(guard, [this] { return open_; });
    }

private:
    std::mutex mutex_;
    std::condition_variable opened_;
    bool open_ = false;
};

Gate gate;

class Probe_Handler : public HTTP_Handler {
public:
    explicit Probe_Handler(std::string params) : params_(std::move(params)) {}

    CONCURRENCY concurrency(const HTTP_Request& request, HANDLE_METHOD) const override
    {
        const std::string_view uri = request.uri(true);
        if (uri.find("/thread") != std::string_view::npos) {
            return THREAD;
        }
        if (uri.find("/reactive") != std::string_view::npos) {
            return REACTIVE;
        }
        return uri.find("/proactive") != std::string_view::npos ? PROACTIVE : INHERITED;
    }

    int handle_request(HTTP_IO& io) override
    {
        const std::string_view uri = io.request().uri(true);
        mode_ = std::string(uri.substr(uri.rfind('/') + 1));
        HTTPD_INFO("probe: handle_request %s %s off=%B params=%s", io.request().method_text(),
                   io.request().uri(true), io.uri_off(), params_.c_str());
        const auto found = request_modes().find(mode_);
        return found != request_modes().end() ? found->second(*this, io) : 0;
    }

    int handle_body(HTTP_IO& io, const void* data, size_t length) override
    {
        HTTPD_INFO("probe: handle_body %B%s", length, data == nullptr ? " end" : "");
        if (data != nullptr) {
            body_.append(static_cast<const char*>(data), length);
        }
        const auto found = body_modes().find(mode_);
        return found != body_modes().end() ? found->second(*this, io, data, length) : 0;
    }

    int handle_close() override
    {
        HTTPD_INFO("probe: handle_close %s", mode_.c_str());
        return 0;
    }

private:
    using Request_Mode = int (*)(Probe_Handler&, HTTP_IO&);
    using Body_Mode = int (*)(Probe_Handler&, HTTP_IO&, const void*, size_t);

    static int counted(HTTP_IO& io, std::string_view text)
    {
        io.response().content_type("text/plain");
        io.response().content_length(text.size());
        return io.send(text.data(), text.size(), LAST);
    }

    bool is_whole(HTTP_IO& io, const void* data) const
    {
        return data == nullptr || (!io.request().chunked_transfer_encoding() &&
                                   body_.size() >= io.request().content_length());
    }

    /**
     * Suspends reading and keeps the connection in a thread of its own, until a byte comes from the
     * FIFO that the query names.
     */
    int hold(HTTP_IO& io, bool answer) const
    {
        constexpr bool SUSPEND = true;
        if (io.request().query() == nullptr || io.suspend_read(SUSPEND) == -1) {
            return -1;
        }
        io.add_reference();
        std::thread([&io, answer, body = body_, fifo = std::string(io.request().query())] {
            const int word = ::open(fifo.c_str(), O_RDONLY | O_CLOEXEC);
            char byte = 0;
            const bool given = ::read(word, &byte, 1) == 1;
            ::close(word);
            if (answer && given) {
                counted(io, body);
            }
            io.remove_reference();
        }).detach();
        return 0;
    }

    static const std::map<std::string, Request_Mode>& request_modes();
    static const std::map<std::string, Body_Mode>& body_modes();

    std::string params_;
    std::string mode_;
    std::string body_;
};

const std::map<std::string, Probe_Handler::Request_Mode>& Probe_Handler::request_modes()
{
    // Never destroyed: a thread may still look things up while the process ends.
    static const auto& modes = *new const std::map<std::string, Request_Mode>{
        {"hello", [](Probe_Handler&, HTTP_IO& io) { return counted(io, HELLO); }},
        {"thread", [](Probe_Handler&, HTTP_IO& io) { return counted(io, HELLO); }},
        // Busy for as long as the process lives.
        {"thread-stuck",
         [](Probe_Handler&, HTTP_IO&) -> int {
             for (;;) {
                 ::pause();
             }
         }},
        // Sends nothing: the engine answers for it.
        {"silent", [](Probe_Handler&, HTTP_IO&) { return 0; }},
        {"silent-204",
         [](Probe_Handler&, HTTP_IO& io) {
             io.response().status(204);
             return 0;
         }},
        {"fail", [](Probe_Handler&, HTTP_IO&) { return -1; }},
        {"chunked",
         [](Probe_Handler&, HTTP_IO& io) {
             io.response().chunked_transfer_encoding(true);
             if (io.send("Hello, ", 7, MORE) == -1 || io.send(nullptr, 0, MORE) == -1) {
                 return -1;
             }
             return io.send("World!", 6, LAST);
         }},
        {"chunked-vector",
         [](Probe_Handler&, HTTP_IO& io) {
             io.response().chunked_transfer_encoding(true);
             const iovec first[2] = {{const_cast<char*>("Hel"), 3}, {const_cast<char*>("lo, "), 4}};
             const iovec second[1] = {{const_cast<char*>("World!"), 6}};
             if (io.sendv_n(first, 2, MORE) == -1 || io.sendv_n(nullptr, 0, MORE) == -1 ||
                 io.sendv_n(second, 1, MORE) == -1) {
                 return -1;
             }
             return io.sendv_n(nullptr, 0, LAST);
         }},
        {"vector",
         [](Probe_Handler&, HTTP_IO& io) {
             io.response().content_length(13);
             const iovec iov[3] = {{const_cast<char*>("Hello"), 5},
                                   {const_cast<char*>(", "), 2},
                                   {const_cast<char*>("World!"), 6}};
             return io.sendv_n(iov, 3, MORE);
         }},
        {"vector-body",
         [](Probe_Handler&, HTTP_IO& io) {
             io.response().content_length(13);
             const iovec iov[2] = {{const_cast<char*>(", "), 2}, {const_cast<char*>("World!"), 6}};
             if (io.sendv_n(nullptr, 0, MORE) == -1 || io.send("Hello", 5, MORE) == -1) {
                 return -1;
             }
             return io.sendv_n(iov, 2, MORE);
         }},
        // Content-Length, in pieces; `last` comes one call too late and is a wrong-state call.
        {"pieces",
         [](Probe_Handler&, HTTP_IO& io) {
             io.response().content_length(13);
             if (io.send(nullptr, 0, MORE) == -1 || io.send("Hello, ", 7, MORE) == -1) {
                 return -1;
             }
             return io.send("World!", 6, MORE);
         }},
        {"twice",
         [](Probe_Handler&, HTTP_IO& io) {
             const int first = counted(io, HELLO);
             const int second = io.send(nullptr, 0, LAST);
             const int third = io.sendv_n(nullptr, 0, LAST);
             HTTPD_INFO("probe: twice %d %d %d", first, second, third);
             return first;
         }},
        // Neither Content-Length nor chunked: the body ends with the connection.
        {"until-close",
         [](Probe_Handler&, HTTP_IO& io) {
             if (io.send("Hello, ", 7, MORE) == -1) {
                 return -1;
             }
             const int result = io.send("World!", 6, LAST);
             HTTPD_INFO("probe: until-close result %d", result);
             return result;
         }},
        {"half",
         [](Probe_Handler&, HTTP_IO& io) {
             io.response().content_length(13);
             io.send("Hello", 5, MORE);
             return -1;
         }},
        {"stream",
         [](Probe_Handler&, HTTP_IO& io) {
             io.response().chunked_transfer_encoding(true);
             {
                 HTTP_IO_ostreambuf buffer(io, 5);
                 std::ostream out(&buffer);
                 out << HELLO;
             }
             return io.response().keep_alive() ? 0 : -1;
         }},
        {"teapot", [](Probe_Handler&, HTTP_IO& io) { return io.send_error(418, "tea", 3); }},
        {"file",
         [](Probe_Handler&, HTTP_IO& io) {
             return io.request().query() != nullptr ? io.send_file(io.request().query()) : -1;
         }},
        {"chunked-file",
         [](Probe_Handler&, HTTP_IO& io) {
             io.response().chunked_transfer_encoding(true);
             return io.request().query() != nullptr ? io.send_file(io.request().query()) : -1;
         }},
        // 1 MiB in one send.
        {"large",
         [](Probe_Handler&, HTTP_IO& io) {
             const std::string body(1024 * 1024, 'x');
             io.response().content_length(body.size());
             return io.send(body.data(), body.size(), LAST);
         }},
        {"addresses",
         [](Probe_Handler&, HTTP_IO& io) {
             ACE_INET_Addr inet;
             ACE_UNIX_Addr unix_domain;
             std::string text = "remote=" + io.get_remote_addr(false) +
                                " original=" + io.get_original_addr() +
                                " ssl=" + std::to_string(io.is_ssl()) +
                                " inet=" + std::to_string(io.get_remote_addr(inet)) +
                                " unix=" + std::to_string(io.get_remote_addr(unix_domain)) +
                                " nodelay=" + std::to_string(io.tcp_nodelay(true)) +
                                " timeout=" + std::to_string(io.socket_timeout(10, 30));
             return counted(io, text);
         }},
        // What the plug-in sees of the request line and of the host.
        {"describe",
         [](Probe_Handler&, HTTP_IO& io) {
             const HTTP_Request& request = io.request();
             const char* const query = request.query();
             const char* const host = request.headers().get(HTTP_HEAD_HOST, true);
             return counted(io, std::string(request.method_text()) + " " + request.uri(true) + " " +
                                    request.uri(false) + " " + (query != nullptr ? query : "-") +
                                    " " + (host != nullptr ? host : "-"));
         }},
        // The thread that serves the connection.
        {"tid",
         [](Probe_Handler&, HTTP_IO& io) { return counted(io, std::to_string(::gettid())); }},
        // The length of a body that HEAD does not get; sends nothing.
        {"length-only",
         [](Probe_Handler&, HTTP_IO& io) {
             io.response().content_length(HELLO.size());
             return 0;
         }},
        {"gate-open",
         [](Probe_Handler&, HTTP_IO& io) {
             gate.open();
             return counted(io, HELLO);
         }},
        {"bad-header",
         [](Probe_Handler&, HTTP_IO& io) {
             const int by_id = io.response().headers().put(HTTP_HEAD_LOCATION, "/a\r\nX: y", true);
             const int by_name = io.response().headers().put("X-Evil", "a\nb");
             return counted(io, std::to_string(by_id) + " " + std::to_string(by_name));
         }},
    };
    return modes;
}

const std::map<std::string, Probe_Handler::Body_Mode>& Probe_Handler::body_modes()
{
    static const auto& modes = *new const std::map<std::string, Body_Mode>{
        {"collect", [](Probe_Handler& self, HTTP_IO& io, const void* data,
                       size_t) { return self.is_whole(io, data) ? counted(io, self.body_) : 0; }},
        {"thread-collect",
         [](Probe_Handler& self, HTTP_IO& io, const void* data, size_t) {
             return self.is_whole(io, data) ? counted(io, self.body_) : 0;
         }},
        {"count",
         [](Probe_Handler& self, HTTP_IO& io, const void* data, size_t) {
             return self.is_whole(io, data) ? counted(io, std::to_string(self.body_.size())) : 0;
         }},
        {"body-fail", [](Probe_Handler&, HTTP_IO&, const void*, size_t) { return -1; }},
        // Reading is suspended at the end of the body; another thread answers.
        {"suspend",
         [](Probe_Handler& self, HTTP_IO& io, const void* data, size_t) {
             if (!self.is_whole(io, data)) {
                 return 0;
             }
             constexpr bool SUSPEND = true;
             if (io.suspend_read(SUSPEND) == -1) {
                 return -1;
             }
             io.add_reference();
             // The thread has a copy of what it needs: the handler may be gone before it.
             std::thread([&io, body = self.body_] {
                 counted(io, body);
                 io.remove_reference();
             }).detach();
             return 0;
         }},
        // As "suspend", but the answer waits for "gate-open".
        {"gate",
         [](Probe_Handler& self, HTTP_IO& io, const void* data, size_t) {
             if (!self.is_whole(io, data)) {
                 return 0;
             }
             constexpr bool SUSPEND = true;
             if (io.suspend_read(SUSPEND) == -1) {
                 return -1;
             }
             io.add_reference();
             std::thread([&io, body = self.body_] {
                 gate.wait();
                 HTTPD_INFO("probe: gate passed");
                 counted(io, body);
                 io.remove_reference();
             }).detach();
             return 0;
         }},
        // As "suspend", but the answer waits for a word that also reaches a server which takes no
        // other request. The thread logs nothing: what a thread keeps for its log lines would be a
        // leak when the process ends first.
        {"late", [](Probe_Handler& self, HTTP_IO& io, const void* data,
                    size_t) { return self.is_whole(io, data) ? self.hold(io, true) : 0; }},
        // As "late", but the answer never comes.
        {"hold", [](Probe_Handler& self, HTTP_IO& io, const void* data,
                    size_t) { return self.is_whole(io, data) ? self.hold(io, false) : 0; }},
        {"thread-suspend",
         [](Probe_Handler& self, HTTP_IO& io, const void* data, size_t length) {
             return body_modes().at("suspend")(self, io, data, length);
         }},
        // A response whose bytes have begun before the request's body is complete.
        {"stream-back",
         [](Probe_Handler& self, HTTP_IO& io, const void* data, size_t length) {
             if (io.response_state() == HTTP_SOCK_STATE_CONNECTED) {
                 io.response().content_length(io.request().content_length());
             }
             static_cast<void>(self);
             return io.send(data, length, MORE);
         }},
    };
    return modes;
}

class Probe_Creator : public Object_Creator_T<HTTP_Handler> {
public:
    HTTP_Handler* create() override
    {
        std::string params;
        for (int i = 0; i < argc_; ++i) {
            params += (i > 0 ? "," : "") + std::string(argv_[i]);
        }
        return new Probe_Handler(params);
    }
    void destroy(HTTP_Handler* handler) override { delete handler; }
};

class Empty_Creator : public Object_Creator_T<HTTP_Handler> {
public:
    HTTP_Handler* create() override { return nullptr; }
    void destroy(HTTP_Handler*) override {}
};

/// Admits a request by its X-Pass field: absent or "200" passes, any other number is the status.
class Probe_Authenticator : public HTTP_Authenticator {
public:
    int authenticate(const HTTP_IO&, HTTP_Request& request, HTTP_Response& response) const override
    {
        HTTPD_INFO("probe: authenticate %s", request.uri(true));
        const char* const pass = request.headers().get("X-Pass");
        response.headers().put("X-Authenticated", "yes");
        return pass != nullptr ? std::atoi(pass) : 200;
    }
};

class Probe_Authenticator_Creator : public Object_Creator_T<HTTP_Authenticator> {
public:
    HTTP_Authenticator* create() override { return new Probe_Authenticator; }
    void destroy(HTTP_Authenticator* authenticator) override { delete authenticator; }
};

class Empty_Authenticator_Creator : public Object_Creator_T<HTTP_Authenticator> {
public:
    HTTP_Authenticator* create() override { return nullptr; }
    void destroy(HTTP_Authenticator*) override {}
};

template <typename Creator>
Creator* make(void (**gobbler)(void*))
{
    if (gobbler != nullptr) {
        *gobbler = [](void* creator) { delete static_cast<Creator*>(creator); };
    }
    return new Creator;
}

} // namespace

#define PROBE_EXPORT extern "C" __attribute__((visibility("default")))

PROBE_EXPORT Object_Creator_T<HTTP_Handler>* _make_Probe(void (**gobbler)(void*));
PROBE_EXPORT Object_Creator_T<HTTP_Handler>* _make_Empty(void (**gobbler)(void*));
PROBE_EXPORT Object_Creator_T<HTTP_Authenticator>* _make_Probe_Auth(void (**gobbler)(void*));
PROBE_EXPORT Object_Creator_T<HTTP_Authenticator>* _make_Empty_Auth(void (**gobbler)(void*));

Object_Creator_T<HTTP_Handler>* _make_Probe(void (**gobbler)(void*))
{
    return make<Probe_Creator>(gobbler);
}

Object_Creator_T<HTTP_Handler>* _make_Empty(void (**gobbler)(void*))
{
    return make<Empty_Creator>(gobbler);
}

Object_Creator_T<HTTP_Authenticator>* _make_Probe_Auth(void (**gobbler)(void*))
{
    return make<Probe_Authenticator_Creator>(gobbler);
}

Object_Creator_T<HTTP_Authenticator>* _make_Empty_Auth(void (**gobbler)(void*))
{
    return make<Empty_Authenticator_Creator>(gobbler);
}
