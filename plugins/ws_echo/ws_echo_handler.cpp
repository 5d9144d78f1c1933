#include "plugins/ws_echo/ws_echo_handler.h"

#include "httpd/websocket_io.h"
#include "plugins/ws_echo/ws_echo_options.h"

const char* WS_Echo_Handler::select_protocol(const std::vector<std::string>& protocols)
{
    return options_.protocols_.empty() ? WebSocket_Handler::select_protocol(protocols)
                                       : options_.choose(protocols);
}

int WS_Echo_Handler::handle_handshaking(WebSocket_IO& io)
{
    io_ = &io;
    return 0;
}

int WS_Echo_Handler::handle_data_framing(const void* data, size_t length, bool last, bool binary)
{
    return io_->send_frame(data, length, last, binary) == -1 ? -1 : 0;
}

WebSocket_Handler::CONCURRENCY WS_Echo_Handler::concurrency() const
{
    return options_.thread_ ? THREAD : INHERITED;
}
