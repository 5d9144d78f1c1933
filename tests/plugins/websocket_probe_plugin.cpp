// A WebSocket plug-in that behaves in every manner that the interface allows, chosen by the words
// of the request's path below its own URI, and that logs each call that it gets as a line "ws:
// ...".
//
// The last word is the mode: what a complete message, or another call, makes it do. Words before it
// choose the thread ("thread", "reactive", "proactive") and more.

#include "httpd/object_creator_t.h"
#include "httpd/websocket_handler.h"
#include "httpd/websocket_io.h"
#include "support/log.h"

#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace {

constexpr bool FINAL = true;
constexpr bool MORE = false;
constexpr bool TEXT = false;
constexpr bool WAIT = true;
constexpr bool DONT_WAIT = false;

iovec entry(const char* text)
{
    return {const_cast<char*>(text), std::string_view(text).size()};
}

class WebSocket_Probe : public WebSocket_Handler {
public:
    ~WebSocket_Probe() override { HTTPD_INFO("ws: destroyed"); }

    using WebSocket_Handler::select_protocol;

    const char* select_protocol(const std::vector<std::string>& offers) override
    {
        std::string list;
        for (const std::string& offer : offers) {
            list += "[" + offer + "]";
        }
        HTTPD_INFO("ws: select_protocol %s", list.c_str());
        return this->is("no-protocol") ? nullptr : WebSocket_Handler::select_protocol(offers);
    }

    int handle_handshaking(WebSocket_IO& io) override
    {
        io_ = &io;
        path_ = io.request().uri(true);
        mode_ = path_.substr(path_.rfind('/') + 1);
        HTTPD_INFO("ws: handle_handshaking off=%B", io.uri_off());
        io.response().headers().put("X-Probe", "seen");
        if (this->is("shutdown-handshaking")) {
            io.shutdown();
        }
        return this->is("refuse") ? -1 : 0;
    }

    CONCURRENCY concurrency() const override
    {
        HTTPD_INFO("ws: concurrency");
        if (this->is("thread")) {
            return THREAD;
        }
        if (this->is("reactive")) {
            return REACTIVE;
        }
        return this->is("proactive") ? PROACTIVE : INHERITED;
    }

    int handle_handshaked() override
    {
        HTTPD_INFO("ws: handle_handshaked");
        if (this->is("greet")) {
            io_->send_frame("hello", 5, FINAL, TEXT);
        }
        if (this->is("wait-when-handshaked")) {
            HTTPD_INFO("ws: send_ping %d", io_->send_ping(WAIT));
        }
        if (this->is("shutdown-handshaked")) {
            io_->shutdown();
        }
        return this->is("handshaked-fails") ? -1 : 0;
    }

    int handle_data_framing(const void* data, size_t length, bool last, bool binary) override
    {
        HTTPD_INFO("ws: data %B last=%d binary=%d", length, last, binary);
        const auto found = data_modes().find(mode_);
        if (found != data_modes().end()) {
            return found->second(*this, {static_cast<const char*>(data), length}, last);
        }
        return io_->send_frame(data, length, last, binary) == -1 ? -1 : 0; // echo
    }

    int handle_close(WebSocket_Data_Frame::Close_Status status, const char* reason,
                     size_t length) override
    {
        const std::string text = reason != nullptr ? std::string(reason, length) : "(null)";
        HTTPD_INFO("ws: handle_close %d %s %B", static_cast<int>(status), text.c_str(), length);
        if (this->is("close-in-close")) {
            HTTPD_INFO("ws: send_close_frame %d",
                       io_->send_close_frame(WebSocket_Data_Frame::CLOSE_POLICY_VIOLATION));
        }
        if (this->is("wait-in-close")) {
            HTTPD_INFO("ws: send_ping %d", io_->send_ping(WAIT));
        }
        if (this->is("shutdown-close")) {
            io_->shutdown();
        }
        return this->is("close-fails") ? -1 : 0;
    }

    int handle_ping() override
    {
        HTTPD_INFO("ws: handle_ping");
        if (this->is("shutdown-ping")) {
            io_->shutdown();
        }
        return this->is("ping-fails") ? -1 : 0;
    }

private:
    using Data_Mode = int (*)(WebSocket_Probe&, std::string_view piece, bool last);

    static const std::map<std::string, Data_Mode>& data_modes();

    /// The path has this word.
    bool is(std::string_view word) const
    {
        const std::string whole = path_ + "/";
        return whole.find("/" + std::string(word) + "/") != std::string::npos;
    }

    int echo(std::string_view piece, bool last)
    {
        return io_->send_frame(piece.data(), piece.size(), last, TEXT) == -1 ? -1 : 0;
    }

    int hold()
    {
        constexpr bool SUSPEND = true;
        const std::lock_guard<std::mutex> guard(held_mutex_);
        if (held_ != nullptr || io_->suspend_read(SUSPEND) == -1) {
            return -1;
        }
        io_->add_reference();
        held_ = io_;
        HTTPD_INFO("ws: held");
        return 0;
    }

    /// Answers in the thread of another connection, and reads on.
    static void release_held()
    {
        constexpr bool RESUME = false;
        const std::lock_guard<std::mutex> guard(held_mutex_);
        held_->send_frame("released", 8, FINAL, TEXT);
        held_->suspend_read(RESUME);
        held_->remove_reference();
        held_ = nullptr;
    }

    int ping(bool wait)
    {
        const int result = io_->send_ping(wait);
        HTTPD_INFO("ws: send_ping %d", result);
        return 0;
    }

    static inline std::mutex held_mutex_;
    static inline WebSocket_IO* held_ = nullptr; ///< the connection in mode "hold"

    WebSocket_IO* io_ = nullptr;
    std::string path_;
    std::string mode_;
};

const std::map<std::string, WebSocket_Probe::Data_Mode>& WebSocket_Probe::data_modes()
{
    static const std::map<std::string, Data_Mode> modes = {
        {"ignore", [](WebSocket_Probe&, std::string_view, bool) { return 0; }},
        {"data-fails", [](WebSocket_Probe&, std::string_view, bool) { return -1; }},
        // What it returns is a number in the piece itself.
        {"returns", [](WebSocket_Probe&, std::string_view piece,
                       bool) { return std::stoi(std::string(piece)); }},
        {"vector",
         [](WebSocket_Probe& self, std::string_view, bool) {
             const iovec iov[4] = {entry("Hel"), entry(""), entry("lo, "), entry("World!")};
             HTTPD_INFO("ws: sendv_frame %d",
                        static_cast<int>(self.io_->sendv_frame(iov, 4, FINAL, TEXT)));
             return 0;
         }},
        {"vector-of-one",
         [](WebSocket_Probe& self, std::string_view piece, bool) {
             const iovec iov = {const_cast<char*>(piece.data()), piece.size()};
             HTTPD_INFO("ws: sendv_frame %d",
                        static_cast<int>(self.io_->sendv_frame(&iov, 1, FINAL, TEXT)));
             return 0;
         }},
        {"vector-of-none",
         [](WebSocket_Probe& self, std::string_view, bool) {
             HTTPD_INFO("ws: sendv_frame %d",
                        static_cast<int>(self.io_->sendv_frame(nullptr, 0, FINAL, TEXT)));
             return 0;
         }},
        // More entries than are kept on the stack.
        {"vector-of-many",
         [](WebSocket_Probe& self, std::string_view, bool) {
             const std::vector<iovec> iov(300, entry("0123456789"));
             HTTPD_INFO("ws: sendv_frame %d",
                        static_cast<int>(self.io_->sendv_frame(
                            iov.data(), static_cast<int>(iov.size()), FINAL, TEXT)));
             return 0;
         }},
        // A message in three frames, with a ping between them.
        {"fragments",
         [](WebSocket_Probe& self, std::string_view, bool) {
             self.io_->send_frame("Hel", 3, MORE, TEXT);
             self.io_->send_ping(DONT_WAIT);
             self.io_->send_frame("lo, ", 4, MORE, TEXT);
             self.io_->send_frame("World!", 6, FINAL, TEXT);
             self.io_->send_frame("next", 4, FINAL, TEXT);
             return 0;
         }},
        {"sizes",
         [](WebSocket_Probe& self, std::string_view, bool) {
             for (const size_t size : {0U, 125U, 126U, 65535U, 65536U}) {
                 const std::string payload(size, 'x');
                 HTTPD_INFO("ws: send_frame %d", static_cast<int>(self.io_->send_frame(
                                                     payload.data(), payload.size(), FINAL, TEXT)));
             }
             return 0;
         }},
        {"null-data",
         [](WebSocket_Probe& self, std::string_view, bool) {
             const iovec iov[2] = {entry("Hel"), {nullptr, 2}};
             HTTPD_INFO("ws: send_frame %d",
                        static_cast<int>(self.io_->send_frame(nullptr, 5, FINAL, TEXT)));
             HTTPD_INFO("ws: sendv_frame %d",
                        static_cast<int>(self.io_->sendv_frame(iov, 2, FINAL, TEXT)));
             self.io_->send_frame("whole", 5, FINAL, TEXT);
             return 0;
         }},
        {"send-close",
         [](WebSocket_Probe& self, std::string_view, bool) {
             for (int i = 0; i < 2; ++i) {
                 HTTPD_INFO(
                     "ws: send_close_frame %d",
                     self.io_->send_close_frame(WebSocket_Data_Frame::CLOSE_GOING_AWAY, "bye", 3));
             }
             return 0;
         }},
        {"send-bare-close",
         [](WebSocket_Probe& self, std::string_view, bool) {
             for (int i = 0; i < 2; ++i) {
                 HTTPD_INFO("ws: send_close_frame %d",
                            self.io_->send_close_frame(WebSocket_Data_Frame::CLOSE_GOING_AWAY));
             }
             return 0;
         }},
        // A reason without length, and a length without reason: neither is one.
        {"send-half-close",
         [](WebSocket_Probe& self, std::string_view piece, bool) {
             HTTPD_INFO(
                 "ws: send_close_frame %d",
                 piece == "no length"
                     ? self.io_->send_close_frame(WebSocket_Data_Frame::CLOSE_NORMAL, "x", 0)
                     : self.io_->send_close_frame(WebSocket_Data_Frame::CLOSE_NORMAL, nullptr, 7));
             return 0;
         }},
        {"close-and-shutdown",
         [](WebSocket_Probe& self, std::string_view, bool) {
             self.io_->send_close_frame(WebSocket_Data_Frame::CLOSE_GOING_AWAY);
             self.io_->shutdown();
             return 0;
         }},
        {"close-and-fail",
         [](WebSocket_Probe& self, std::string_view, bool) {
             self.io_->send_close_frame(WebSocket_Data_Frame::CLOSE_GOING_AWAY);
             return -1;
         }},
        {"shutdown",
         [](WebSocket_Probe& self, std::string_view, bool) {
             self.io_->shutdown();
             self.io_->shutdown();
             return 0;
         }},
        {"send-after-shutdown",
         [](WebSocket_Probe& self, std::string_view, bool) {
             self.io_->shutdown();
             HTTPD_INFO("ws: send_frame %d",
                        static_cast<int>(self.io_->send_frame("x", 1, FINAL, TEXT)));
             HTTPD_INFO("ws: send_close_frame %d",
                        self.io_->send_close_frame(WebSocket_Data_Frame::CLOSE_NORMAL));
             HTTPD_INFO("ws: send_ping %d", self.io_->send_ping(DONT_WAIT));
             return 0;
         }},
        {"ping",
         [](WebSocket_Probe& self, std::string_view, bool) { return self.ping(DONT_WAIT); }},
        // Begins a message without data, which is refused; the rest it echoes.
        {"null-frame",
         [](WebSocket_Probe& self, std::string_view piece, bool last) {
             if (piece == "null") {
                 HTTPD_INFO("ws: send_frame %d",
                            static_cast<int>(self.io_->send_frame(nullptr, 5, MORE, TEXT)));
                 return 0;
             }
             return self.echo(piece, last);
         }},
        // "hold" suspends reading until "release" comes on another connection.
        {"hold",
         [](WebSocket_Probe& self, std::string_view piece, bool last) {
             if (piece == "hold") {
                 return self.hold();
             }
             if (piece == "release") {
                 release_held();
                 return 0;
             }
             return self.echo(piece, last);
         }},
        // "wait" makes it wait and then send.
        {"wait-and-send",
         [](WebSocket_Probe& self, std::string_view piece, bool) {
             if (piece.substr(0, 4) == "wait") {
                 self.ping(WAIT);
                 self.io_->send_frame("after", 5, FINAL, TEXT);
             }
             return 0;
         }},
        // A word that begins with "wait" makes it wait; the rest it only logs.
        {"ping-wait", [](WebSocket_Probe& self, std::string_view piece,
                         bool) { return piece.substr(0, 4) == "wait" ? self.ping(WAIT) : 0; }},
        // Waits each time, once it has seen a ping.
        {"wait-in-close", [](WebSocket_Probe& self, std::string_view piece,
                             bool) { return piece.substr(0, 4) == "wait" ? self.ping(WAIT) : 0; }},
    };
    return modes;
}

class WebSocket_Probe_Creator : public Object_Creator_T<WebSocket_Handler> {
public:
    WebSocket_Handler* create() override { return new WebSocket_Probe; }
    void destroy(WebSocket_Handler* handler) override { delete handler; }
};

class No_WebSocket_Creator : public Object_Creator_T<WebSocket_Handler> {
public:
    WebSocket_Handler* create() override { return nullptr; }
    void destroy(WebSocket_Handler*) override {}
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

PROBE_EXPORT Object_Creator_T<WebSocket_Handler>* _make_WS_Probe(void (**gobbler)(void*));
PROBE_EXPORT Object_Creator_T<WebSocket_Handler>* _make_WS_Empty(void (**gobbler)(void*));

Object_Creator_T<WebSocket_Handler>* _make_WS_Probe(void (**gobbler)(void*))
{
    return make<WebSocket_Probe_Creator>(gobbler);
}

Object_Creator_T<WebSocket_Handler>* _make_WS_Empty(void (**gobbler)(void*))
{
    return make<No_WebSocket_Creator>(gobbler);
}
