#include "fuzz/engine/own_plug_ins.h"

#include "httpd/http_io.h"
#include "httpd/websocket_io.h"

#include <array>
#include <deque>
#include <functional>
#include <string_view>
#include <utility>

namespace {

constexpr bool LAST = true;
constexpr bool MORE = false;
constexpr bool SUSPEND = true;
constexpr bool RESUME = false;

/// A suspended connection; each has a reference.
struct Held {
    HTTP_IO* io_;
    WebSocket_IO* websocket_; ///< the same, or null
    std::string body_;
};

std::deque<Held> held;

int hold(HTTP_IO& io, WebSocket_IO* websocket, std::string body)
{
    if (io.suspend_read(SUSPEND) == -1) {
        return -1;
    }
    io.add_reference();
    held.push_back({&io, websocket, std::move(body)});
    return 0;
}

template <typename Plug_In>
class Function_Creator : public Object_Creator_T<Plug_In> {
public:
    explicit Function_Creator(std::function<Plug_In*()> make) : make_(std::move(make)) {}

    Plug_In* create() override { return make_(); }
    void destroy(Plug_In* plug_in) override { delete plug_in; }

private:
    std::function<Plug_In*()> make_;
};

class Sender : public HTTP_Handler {
public:
    explicit Sender(const std::string& path) : path_(path) {}

    CONCURRENCY concurrency(const HTTP_Request&, HANDLE_METHOD) const override { return INHERITED; }

    int handle_request(HTTP_IO& io) override
    {
        const std::string_view uri = io.request().uri(true);
        const std::string_view mode = uri.substr(uri.rfind('/') + 1);
        const std::string body(20'000, 'b');
        HTTP_Response& response = io.response();
        if (mode == "file") {
            return io.send_file(path_.c_str());
        }
        if (mode == "chunked-file") {
            response.chunked_transfer_encoding(true);
            return io.send_file(path_.c_str());
        }
        if (mode == "body") {
            response.content_length(body.size());
            return io.send(body.data(), body.size(), LAST);
        }
        if (mode == "chunks") {
            response.chunked_transfer_encoding(true);
            for (size_t size = 1; size < body.size(); size *= 3) {
                if (io.send(body.data(), size, MORE) == -1) {
                    return -1;
                }
            }
            return io.send(nullptr, 0, LAST);
        }
        if (mode == "vector") { // more entries than leave in one call
            std::array<iovec, 1500> iov;
            iov.fill({const_cast<char*>(body.data()), 11});
            response.content_length(iov.size() * 11);
            return io.sendv_n(iov.data(), static_cast<int>(iov.size()), LAST);
        }
        return io.send_error(404);
    }

    int handle_body(HTTP_IO&, const void*, size_t) override { return -1; }

private:
    const std::string& path_;
};

class Holder : public HTTP_Handler {
public:
    CONCURRENCY concurrency(const HTTP_Request&, HANDLE_METHOD) const override { return INHERITED; }

    int handle_request(HTTP_IO& io) override
    {
        // What has neither length nor chunks is refused by the connection.
        const HTTP_Request& request = io.request();
        const bool no_body = request.headers().get(HTTP_HEAD_CONTENT_LENGTH) != nullptr &&
                             request.content_length() == 0;
        return no_body && request.method() != HTTP_METHOD_HEAD ? hold(io, nullptr, {}) : 0;
    }

    int handle_body(HTTP_IO& io, const void* data, size_t length) override
    {
        const HTTP_Request& request = io.request();
        if (data != nullptr) {
            body_.append(static_cast<const char*>(data), length);
        }
        const bool last = request.chunked_transfer_encoding()
                              ? data == nullptr
                              : body_.size() >= request.content_length();
        return last ? hold(io, nullptr, std::move(body_)) : 0;
    }

private:
    std::string body_;
};

class WebSocket_Holder : public WebSocket_Handler {
public:
    int handle_handshaking(WebSocket_IO& io) override
    {
        io_ = &io;
        return 0;
    }

    int handle_data_framing(const void* data, size_t length, bool last, bool) override
    {
        message_.append(static_cast<const char*>(data), length);
        return last ? hold(*io_, io_, std::exchange(message_, {})) : 0;
    }

private:
    WebSocket_IO* io_ = nullptr;
    std::string message_;
};

} // namespace

Object_Creator_T<HTTP_Handler>* make_sender(const std::string& path)
{
    const auto* const kept = new std::string(path); // as long as the factory: to the end
    return new Function_Creator<HTTP_Handler>([kept] { return new Sender(*kept); });
}

Object_Creator_T<HTTP_Handler>* make_holder()
{
    return new Function_Creator<HTTP_Handler>([] { return new Holder; });
}

Object_Creator_T<WebSocket_Handler>* make_websocket_holder()
{
    return new Function_Creator<WebSocket_Handler>([] { return new WebSocket_Holder; });
}

bool answer_held()
{
    if (held.empty()) {
        return false;
    }
    const Held first = std::move(held.front());
    held.pop_front();
    if (first.websocket_ != nullptr) {
        constexpr bool FINAL = true;
        constexpr bool BINARY = true;
        first.websocket_->send_frame(first.body_.data(), first.body_.size(), FINAL, BINARY);
        first.websocket_->suspend_read(RESUME);
    } else {
        first.io_->response().content_length(first.body_.size());
        first.io_->send(first.body_.data(), first.body_.size(), LAST);
    }
    first.io_->remove_reference();
    return true;
}

bool let_go_of_held()
{
    if (held.empty()) {
        return false;
    }
    HTTP_IO* const io = held.front().io_;
    held.pop_front();
    io->suspend_read(RESUME);
    io->remove_reference();
    return true;
}
