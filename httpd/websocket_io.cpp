#include "httpd/websocket_io.h"

WebSocket_IO::WebSocket_IO() = default;
WebSocket_IO::~WebSocket_IO() = default;
