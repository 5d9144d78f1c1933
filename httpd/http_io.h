#pragma once

#include "httpd/export.h"
#include "support/http_message.h"
#include "support/http_sock_state.h"

#include <ace/Event_Handler.h>
#include <ace/INET_Addr.h>

#include <sys/uio.h>

#include <atomic>
#include <cstddef>
#include <string>

class ACE_Message_Block;

/**
 * A connection as an HTTP plug-in sees it: the request, the response being built, and the
 * operations to answer and to tune the connection.
 *
 * The connection engine creates and owns it. A plug-in calls it from one thread at a time: the
 * thread that called the plug-in, or, while reading is suspended, one that the plug-in chose. To
 * keep it beyond the call that gave it, hold a reference (add_reference, remove_reference).
 *
 * A send operation returns -1 when it failed, and also when it completed a response on a connection
 * that is not kept alive. In both cases the plug-in passes the -1 on: it is the request to close.
 */
class HTTPD_EXPORT HTTP_IO {
public:
    using size_type = size_t;

    virtual ~HTTP_IO();
    HTTP_IO(const HTTP_IO&) = delete;
    HTTP_IO& operator=(const HTTP_IO&) = delete;

    const HTTP_Request& request() const { return request_; }

    /// Status and header fields, to be set before the first send.
    HTTP_Response& response() { return response_; }

    /// Where the part of the request's path below the plug-in's own URI begins.
    void uri_off(size_type offset) { uri_off_ = offset; }
    size_type uri_off() const { return uri_off_; }

    /// The receive buffer; null while no input has arrived that is not handled yet. Only to be
    /// looked at.
    const ACE_Message_Block* mb() const { return mb_; }

    HTTP_SOCK_State request_state() const { return request_state_; }

    /// May be read by any thread; what was sent before a state is visible with it.
    HTTP_SOCK_State response_state() const
    {
        return response_state_.load(std::memory_order_acquire);
    }

    /**
     * Sends a file as the whole body of the response, in this thread: sets Content-Length (unless
     * the response is chunked) and Content-Type. For GET only.
     * @return 0; -1 when it failed (logged) or the connection is to be closed.
     */
    virtual int send_file(const char* path) = 0;

    /**
     * Sends a complete response. Fields set earlier stay in it.
     * @param status  HTTP status
     * @param body    null: no body
     * @param length  of body, bytes
     * @return 0; -1 when it failed or the connection is to be closed.
     */
    virtual int send_error(int status, const void* body = nullptr, size_t length = 0) = 0;

    /**
     * Sends the header (first call) and a piece of body.
     *
     * With Content-Length on a kept connection the response is complete when that many bytes were
     * sent, whatever `last` says. Without it the body is chunked where the response says so, and
     * otherwise ends with the connection.
     * @param data    null: no body bytes now
     * @param length  of data, bytes
     * @param last    ends the body
     * @return 0; -1 when it failed (logged) or the connection is to be closed.
     */
    virtual int send(const void* data, size_t length, bool last) = 0;

    /// The address of this end of the connection. @return 0, or -1 with errno.
    virtual int get_local_addr(ACE_Addr& address) const = 0;

    /// The peer's address. @return 0; -1 unless `address` is an IPv4 or IPv6 address object.
    virtual int get_remote_addr(ACE_Addr& address) const = 0;

    /// The client's address: the peer's, or what a trusted proxy told of it. Result as above.
    virtual int get_original_addr(ACE_Addr& address) const = 0;

    /// The peer's address as text, with or without its port; "" when it has none.
    virtual std::string get_remote_addr(bool with_port) const = 0;

    /// The client's address as text, without port; "" when it has none.
    virtual std::string get_original_addr() const = 0;

    /// send() with the piece of body gathered from `count` entries.
    virtual int sendv_n(const iovec* iov, int count, bool last) = 0;

    /**
     * Stops or resumes reading from the connection, so that a response can be completed later, also
     * by another thread. While it is suspended no next request is begun; completing the response
     * resumes it. @return 0; -1 with errno (logged).
     */
    virtual int suspend_read(bool suspend) = 0;

    /// Switches Nagle's algorithm off (true) or on. @return 0, or -1 with errno.
    virtual int tcp_nodelay(bool on) const = 0;

    /**
     * Limits how long one blocking send or receive on the socket may take.
     *
     * @param send_seconds     0 = not configured.
     * @param receive_seconds  0 = not configured; otherwise keep-alive probing (60 s) is tried
     * first and this limit is set only where probing is refused.
     * @return 0, or -1 with errno. Call it from the thread that runs the handler.
     */
    virtual int socket_timeout(int send_seconds, int receive_seconds) const = 0;

    /// True for a connection over TLS.
    virtual bool is_ssl() const = 0;

    /// Takes and drops a reference; the connection is deleted with the last one. Any thread.
    virtual ACE_Event_Handler::Reference_Count add_reference() = 0;
    virtual ACE_Event_Handler::Reference_Count remove_reference() = 0;

protected:
    HTTP_IO();

    void response_state(HTTP_SOCK_State state)
    {
        response_state_.store(state, std::memory_order_release);
    }

    HTTP_SOCK_State request_state_ = HTTP_SOCK_STATE_CLOSED;
    std::atomic<HTTP_SOCK_State> response_state_{HTTP_SOCK_STATE_CLOSED};
    HTTP_Request request_;
    HTTP_Response response_;
    ACE_Message_Block* mb_ = nullptr; ///< the receive buffer, owned; null while it is empty
    size_type uri_off_ = 0;
    ACE_INET_Addr original_addr_;
};
