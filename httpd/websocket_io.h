#pragma once

#include "httpd/http_io.h"
#include "support/websocket_data_frame.h"

/**
 * A connection as a WebSocket plug-in sees it: HTTP_IO, and the operations to send frames. To be
 * called from the thread that runs the plug-in's callbacks or, while reading is suspended, from one
 * that the plug-in chose: until it is resumed no frame is delivered, answered or pinged. To send
 * from any thread at any time there is WebSocket_Outbox.
 */
class HTTPD_EXPORT WebSocket_IO : public HTTP_IO {
public:
    /**
     * Sends one data frame.
     * @param final   ends the message
     * @param binary  a binary message, else text (which must then be UTF-8)
     * @return bytes written, header included, or -1 (logged).
     */
    virtual ssize_t send_frame(const void* data, size_t length, bool final, bool binary) = 0;

    /// send_frame() with the payload gathered from `count` entries.
    virtual ssize_t sendv_frame(const iovec* iov, int count, bool final, bool binary) = 0;

    /**
     * Sends a ping.
     * @param wait  also wait, up to the ping timeout, for input and process it: for a plug-in in
     * its own thread
     * @return 0, or -1.
     */
    virtual int send_ping(bool wait) = 0;

    /// Sends the close frame; a second call sends nothing. @return 0 or more, or -1.
    virtual int send_close_frame(WebSocket_Data_Frame::Close_Status status,
                                 const void* reason = nullptr, size_t length = 0) = 0;

    /// Closes the connection; only the first call has an effect.
    virtual void shutdown() = 0;

    ~WebSocket_IO() override;

protected:
    WebSocket_IO();
};
