#pragma once

#include "httpd/http_handler.h"
#include "httpd/http_io.h"

#include <initializer_list>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

/**
 * A connection without a socket: takes a request as text, lets a handler answer it, and keeps what
 * was sent. Its send operations follow the rules of the connection engine (what is kept alive, when
 * a response is complete, what they return), so that a handler can be held to them.
 */
class Fake_HTTP_IO : public HTTP_IO {
public:
    using Fields = std::initializer_list<std::pair<std::string_view, std::string_view>>;

    /// One call of a send operation.
    struct Sent {
        std::string body; ///< piece of body of this call
        bool last;
        int result;
    };

    /// Begins the next request of the connection; what was sent before is forgotten.
    void begin(std::string_view method, std::string_view target, Fields fields = {},
               int minor_version = 1);

    /// What the engine does with a request whose body is `body`, given to the handler in pieces of
    /// at most `step` bytes. @return -1 when the connection is to be closed
    int run(HTTP_Handler& handler, std::string_view body = {}, size_t step = 8192);

    /// The response as it was when its header was sent.
    int status() const { return status_; }
    /// A field of the response's header, "" when it is not there.
    std::string field(std::string_view name) const;
    bool has_field(std::string_view name) const;

    /// The body that reached the client.
    const std::string& body() const { return body_; }
    const std::vector<Sent>& sends() const { return sends_; }
    bool complete() const { return response_state() == HTTP_SOCK_STATE_CONTENT_SENT; }

    /// The connection would serve another request after this one.
    bool kept() const { return complete() && response_.keep_alive(); }

    /// Calls of send operations when the response was complete: never right.
    int wrong_state_calls() const { return wrong_state_calls_; }

    /// The send operation with that number (0 is the first) fails; -1: none.
    void fail_at(int number) { fail_at_ = number; }

    int send_file(const char* path) override;
    int send_error(int status, const void* body = nullptr, size_t length = 0) override;
    int send(const void* data, size_t length, bool last) override;
    int sendv_n(const iovec* iov, int count, bool last) override;
    int get_local_addr(ACE_Addr& address) const override;
    int get_remote_addr(ACE_Addr& address) const override;
    int get_original_addr(ACE_Addr& address) const override;
    std::string get_remote_addr(bool with_port) const override;
    std::string get_original_addr() const override;
    int suspend_read(bool suspend) override;
    int tcp_nodelay(bool on) const override;
    int socket_timeout(int send_seconds, int receive_seconds) const override;
    bool is_ssl() const override;
    ACE_Event_Handler::Reference_Count add_reference() override;
    ACE_Event_Handler::Reference_Count remove_reference() override;

    HTTP_Request& mutable_request() { return request_; }

private:
    int send_piece(std::string piece, bool last, bool head_drops_body);
    int send_header(const std::string& piece, bool last, bool head_drops_body);
    int send_rest(const std::string& piece, bool last);
    int send_chunked_header(const std::string& piece, bool last);
    void keep_header();

    int status_ = 0;
    std::vector<std::pair<std::string, std::string>> fields_;
    std::string body_;
    std::vector<Sent> sends_;
    std::uint64_t content_length_ = 0;
    std::uint64_t content_sent_ = 0;
    int wrong_state_calls_ = 0;
    int fail_at_ = -1;
};
