#pragma once

#include "httpd/export.h"

#include <cstddef>
#include <memory>
#include <string>

class WebSocket_IO;

/**
 * Lets any thread push messages to one WebSocket connection, although the connection belongs to its
 * event loop: messages are queued, the loop is woken and sends what the connection takes. It never
 * waits for a peer that does not read; such a peer is dropped when its queue has grown too long.
 *
 * The plug-in of the connection makes it (create()), hands copies of the pointer to whoever pushes,
 * and calls close() in its handle_close() and its destructor: a connection can end without
 * handle_close().
 *
 * While it is open, the other frames of the connection (send_frame() of the plug-in, pongs, the
 * close frame) do not wait either: what finds no room is kept, in order, and counts as sent. A
 * posted message is one frame, and is sent neither between the fragments of a message that the
 * plug-in is sending (send_frame() with `final` false) nor after a close frame. A direct
 * send_frame() overtakes posted messages that wait.
 *
 * When a message does not fit the limit any more, the queue is dropped, the peer is told with close
 * code 1013 (as soon as there is room), and the connection is shut down when the peer has not
 * closed it within CLOSE_SECONDS.
 */
class HTTPD_EXPORT WebSocket_Outbox {
public:
    /// Shared by all outboxes that it was posted to; not to be changed any more.
    using Message = std::shared_ptr<const std::string>;

    enum { CLOSE_SECONDS = 5 };

    /// What a waiting message counts against the limit beside its bytes.
    static constexpr size_t MESSAGE_COST = 64;

    /**
     * Called in a callback of the connection, by the thread that drives it: in handle_handshaking()
     * (where a failure can still refuse the upgrade) or in handle_handshaked(). What is posted from
     * then on leaves behind the 101, and not at all when an authenticator refuses the client. The
     * plug-in's concurrency() is INHERITED.
     * @param io     the connection; used until close()
     * @param limit  bytes that may wait, MESSAGE_COST included for each message
     * @return null with errno: ENOTSUP when the connection lives in a worker thread (its plug-in
     *         asked for THREAD, or an earlier request on the connection was served in one), EBUSY
     *         when it has an outbox already, ENOMEM.
     */
    static std::shared_ptr<WebSocket_Outbox> create(WebSocket_IO& io, size_t limit);

    /// close(), if it was forgotten: then by the thread that drives the connection.
    ~WebSocket_Outbox();
    WebSocket_Outbox(const WebSocket_Outbox&) = delete;
    WebSocket_Outbox& operator=(const WebSocket_Outbox&) = delete;

    /**
     * Queues a message; any thread. Messages leave in the order of the calls.
     * @param binary  a binary message, else text (which must then be UTF-8)
     * @return false with errno when it is not queued: EPIPE (closed, or dropped before), ENOBUFS
     *         (this one was too much: the connection is dropped), EINVAL (null), ENOMEM, or
     *         ESHUTDOWN (the service ends).
     */
    bool post(Message message, bool binary);

    /// True while post() may succeed; any thread.
    bool is_open() const;

    /**
     * Ends it: drops what waits, and the connection is not touched any more. By the thread that
     * drives the connection; a second call does nothing. It belongs to the connection's end: a
     * frame that is sent behind it fails when there is no room for it at once.
     */
    void close();

private:
    class Impl;

    explicit WebSocket_Outbox(Impl* impl) : impl_(impl) {}

    Impl* impl_; ///< holds a reference
};
