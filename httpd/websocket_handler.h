#pragma once

#include "httpd/export.h"
#include "support/websocket_data_frame.h"

#include <cstddef>
#include <string>
#include <vector>

class WebSocket_IO;

/**
 * Base class of a plug-in that speaks WebSocket: one object for each connection, made by its
 * factory (Object_Creator_T<WebSocket_Handler>) at the handshake and returned when the connection
 * is deleted. All calls come from the thread that drives the connection: an event loop, which must
 * not be blocked, or with THREAD the connection's own thread.
 *
 * Order of calls: handle_handshaking, select_protocol (when the client offers any), concurrency,
 * handle_handshaked, any number of handle_data_framing and handle_ping, one handle_close.
 */
class HTTPD_EXPORT WebSocket_Handler {
public:
    enum CONCURRENCY {
        INHERITED = 0, ///< in the thread that the connection is in
        REACTIVE = 1,  ///< not supported
        THREAD = 2,    ///< in a thread of the connection's own
        PROACTIVE = 3  ///< not supported
    };

    WebSocket_Handler() = default;
    virtual ~WebSocket_Handler();
    WebSocket_Handler(const WebSocket_Handler&) = delete;
    WebSocket_Handler& operator=(const WebSocket_Handler&) = delete;

    /// For the plug-in's factory to call, if it likes; the engine does not. @return 0, or -1.
    virtual int init(int argc, char** argv);
    virtual int fini();

    /**
     * Chooses among the sub-protocols that the client offers. Splits the header at "," and asks the
     * list form; only blanks behind a comma are skipped.
     * @param header  the Sec-WebSocket-Protocol field; null gives null
     * @return the choice, valid until the next one or the end of this object, or null for none.
     */
    virtual const char* select_protocol(const char* header);

    /// The base class takes the first offer. @return one of `protocols`, or null.
    virtual const char* select_protocol(const std::vector<std::string>& protocols);

    /// Before the 101 is sent; keep `io` for the calls that follow. @return 0; -1 refuses with 400.
    virtual int handle_handshaking(WebSocket_IO& io);

    /// After the 101 was sent. @return 0; -1 closes.
    virtual int handle_handshaked();

    /**
     * A piece of a message, as it arrives.
     * @param last    this piece ends the message
     * @param binary  the message's type
     * @return 0; -1 closes.
     */
    virtual int handle_data_framing(const void* data, size_t length, bool last, bool binary) = 0;

    /**
     * The connection ends; called exactly once.
     * @param status  the peer's, CLOSE_NO_STATUS when its close frame had none, CLOSE_ABNORMAL when
     *                there was no close frame
     * @param reason  not terminated; null when there is none
     * @return not used
     */
    virtual int handle_close(WebSocket_Data_Frame::Close_Status status, const char* reason,
                             size_t length);

    /// The peer's ping has been answered. @return 0; -1 closes.
    virtual int handle_ping();

    virtual CONCURRENCY concurrency() const;

protected:
    std::string subprotocol_; ///< the sub-protocol last chosen by select_protocol(const char*)
};
