#pragma once

#include "httpd/websocket_handler.h"

struct WS_Echo_Options;

/**
 * Sends every message back as it arrives: each piece that the library delivers goes out as a frame
 * of its own at once, so nothing is kept, however long the message.
 */
class WS_Echo_Handler : public WebSocket_Handler {
public:
    /// @param options  of the record; must outlive this object
    explicit WS_Echo_Handler(const WS_Echo_Options& options) : options_(options) {}

    using WebSocket_Handler::select_protocol;
    const char* select_protocol(const std::vector<std::string>& protocols) override;

    int handle_handshaking(WebSocket_IO& io) override;
    int handle_data_framing(const void* data, size_t length, bool last, bool binary) override;
    CONCURRENCY concurrency() const override;

private:
    const WS_Echo_Options& options_;
    WebSocket_IO* io_ = nullptr; ///< the connection
};
