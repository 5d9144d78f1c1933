#include "fuzz/engine/watched_plug_ins.h"

#include "fuzz/engine/failure.h"
#include "httpd/http_io.h"
#include "httpd/websocket_io.h"

#include <ace/INET_Addr.h>

#include <functional>
#include <string>
#include <vector>

namespace {

size_t live = 0;
Conversation* conversations = nullptr;
size_t conversation_count = 0;

/// A plug-in of another factory, counted.
template <typename Plug_In>
class Watched {
public:
    explicit Watched(Object_Creator_T<Plug_In>& creator)
        : creator_(creator), plug_in_(creator.create())
    {
        ++live;
    }
    ~Watched()
    {
        creator_.destroy(plug_in_);
        --live;
    }
    Watched(const Watched&) = delete;
    Watched& operator=(const Watched&) = delete;

    Plug_In* operator->() const { return plug_in_; }

private:
    Object_Creator_T<Plug_In>& creator_;
    Plug_In* const plug_in_;
};

bool has_body(const HTTP_Request& request)
{
    return request.content_length() > 0 ||
           request.headers().get(HTTP_HEAD_TRANSFER_ENCODING) != nullptr;
}

class Watched_Handler : public HTTP_Handler {
public:
    Watched_Handler(Object_Creator_T<HTTP_Handler>& creator, Request_Judge judge)
        : plug_in_(creator), judge_(judge)
    {
    }

    CONCURRENCY concurrency(const HTTP_Request& request, HANDLE_METHOD method) const override
    {
        if (!judge_(request).allowed_) {
            return INHERITED;
        }
        const CONCURRENCY wanted = plug_in_->concurrency(request, method);
        return wanted == THREAD ? INHERITED : wanted;
    }

    int handle_request(HTTP_IO& io) override
    {
        const Request_Rule rule = judge_(io.request());
        Conversation& conversation = conversation_of(io);
        conversation.requests_.push_back(
            {io.request().method() == HTTP_METHOD_HEAD, rule.allowed_ && rule.may_break_});
        conversation.comparable_ = conversation.comparable_ && rule.comparable_;
        if (rule.allowed_) {
            return plug_in_->handle_request(io);
        }
        if (!has_body(io.request())) {
            return io.send_error(404);
        }
        constexpr bool LAST = true;
        io.response().status(404);
        io.send(nullptr, 0, LAST);
        return -1;
    }

    int handle_body(HTTP_IO& io, const void* data, size_t length) override
    {
        return plug_in_->handle_body(io, data, length);
    }

    int handle_close() override { return plug_in_->handle_close(); }

private:
    Watched<HTTP_Handler> plug_in_;
    Request_Judge judge_;
};

class Watched_WebSocket : public WebSocket_Handler {
public:
    Watched_WebSocket(Object_Creator_T<WebSocket_Handler>& creator, WebSocket_Judge judge)
        : plug_in_(creator), judge_(judge)
    {
    }

    ~Watched_WebSocket() override
    {
        if (closes_ != (accepted_ ? 1 : 0)) {
            fail("a WebSocket plug-in was told " + std::to_string(closes_) + " times of the end");
        }
    }

    const char* select_protocol(const char* header) override
    {
        return plug_in_->select_protocol(header);
    }

    const char* select_protocol(const std::vector<std::string>& protocols) override
    {
        return plug_in_->select_protocol(protocols);
    }

    int handle_handshaking(WebSocket_IO& io) override
    {
        const WebSocket_Rule rule = judge_(io.request());
        Conversation& conversation = conversation_of(io);
        conversation.comparable_ = conversation.comparable_ && rule.comparable_;
        conversation.websocket_ = {true, rule.echoes_, rule.ends_with_close_};
        accepted_ = true;
        if (!rule.allowed_) {
            return -1;
        }
        allowed_ = true;
        return plug_in_->handle_handshaking(io);
    }

    int handle_handshaked() override { return plug_in_->handle_handshaked(); }

    int handle_data_framing(const void* data, size_t length, bool last, bool binary) override
    {
        return plug_in_->handle_data_framing(data, length, last, binary);
    }

    int handle_close(WebSocket_Data_Frame::Close_Status status, const char* reason,
                     size_t length) override
    {
        ++closes_;
        return allowed_ ? plug_in_->handle_close(status, reason, length) : 0;
    }

    int handle_ping() override { return plug_in_->handle_ping(); }

    CONCURRENCY concurrency() const override
    {
        const CONCURRENCY wanted = plug_in_->concurrency();
        return wanted == THREAD ? INHERITED : wanted;
    }

private:
    Watched<WebSocket_Handler> plug_in_;
    WebSocket_Judge judge_;
    bool accepted_ = false;
    bool allowed_ = false;
    int closes_ = 0;
};

class Watched_Authenticator : public HTTP_Authenticator {
public:
    explicit Watched_Authenticator(Object_Creator_T<HTTP_Authenticator>& creator)
        : plug_in_(creator)
    {
    }

    int authenticate(const HTTP_IO& io, HTTP_Request& request,
                     HTTP_Response& response) const override
    {
        const int status = plug_in_->authenticate(io, request, response);
        return status == 200 || (status >= 400 && status < 600) ? status : 403;
    }

private:
    Watched<HTTP_Authenticator> plug_in_;
};

/// Makes `Wrapper` objects around those of another factory.
template <typename Plug_In, typename Wrapper, typename... Judge>
class Watching_Creator : public Object_Creator_T<Plug_In> {
public:
    explicit Watching_Creator(Object_Creator_T<Plug_In>* creator, Judge... judge)
        : creator_(*creator), make_([this, judge...] { return new Wrapper(creator_, judge...); })
    {
    }

    Plug_In* create() override { return make_(); }
    void destroy(Plug_In* plug_in) override { delete plug_in; }

private:
    Object_Creator_T<Plug_In>& creator_;
    std::function<Plug_In*()> make_;
};

} // namespace

Object_Creator_T<HTTP_Handler>* watch(Object_Creator_T<HTTP_Handler>* creator, Request_Judge judge)
{
    return new Watching_Creator<HTTP_Handler, Watched_Handler, Request_Judge>(creator, judge);
}

Object_Creator_T<WebSocket_Handler>* watch(Object_Creator_T<WebSocket_Handler>* creator,
                                           WebSocket_Judge judge)
{
    return new Watching_Creator<WebSocket_Handler, Watched_WebSocket, WebSocket_Judge>(creator,
                                                                                       judge);
}

Object_Creator_T<HTTP_Authenticator>* watch(Object_Creator_T<HTTP_Authenticator>* creator)
{
    return new Watching_Creator<HTTP_Authenticator, Watched_Authenticator>(creator);
}

size_t live_plug_ins()
{
    return live;
}

void set_conversations(Conversation* first, size_t count)
{
    conversations = first;
    conversation_count = count;
}

Conversation& conversation_of(const HTTP_IO& io)
{
    ACE_INET_Addr address;
    io.get_remote_addr(address);
    const size_t number = address.get_port_number() - size_t{FIRST_PORT};
    if (number >= conversation_count) {
        fail("a connection of another run");
    }
    return conversations[number];
}
