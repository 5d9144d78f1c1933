#pragma once

#include "support/export.h"

/**
 * The two state words of a connection: one for what it reads (8 to 17), one for what it sends
 * (3 to 7, and 14 to 17 once it speaks WebSocket).
 */
enum HTTP_SOCK_State {
    HTTP_SOCK_STATE_CLOSING = 0,
    HTTP_SOCK_STATE_CLOSED = 1,
    HTTP_SOCK_STATE_CONNECTING = 2,
    HTTP_SOCK_STATE_CONNECTED = 3,
    HTTP_SOCK_STATE_HEADER_SENDING = 4,
    HTTP_SOCK_STATE_HEADER_SENT = 5,
    HTTP_SOCK_STATE_CONTENT_SENDING = 6,
    HTTP_SOCK_STATE_CONTENT_SENT = 7,
    HTTP_SOCK_STATE_HEADER_RECEIVING = 8,
    HTTP_SOCK_STATE_HEADER_RECEIVED = 9,
    HTTP_SOCK_STATE_HEADER_PROCESSING = 10,
    HTTP_SOCK_STATE_CONTENT_RECEIVING = 11,
    HTTP_SOCK_STATE_CONTENT_RECEIVED = 12,
    HTTP_SOCK_STATE_WEBSOCKET_HANDSHAKING = 13,
    HTTP_SOCK_STATE_WEBSOCKET_HANDSHAKED = 14,
    HTTP_SOCK_STATE_WEBSOCKET_FRAMING = 15,
    HTTP_SOCK_STATE_WEBSOCKET_CLOSING = 16,
    HTTP_SOCK_STATE_WEBSOCKET_PONGING = 17
};

/// The enumerator's own name, for log lines; "unknown" for a value outside the enumeration.
HTTPD_SUPPORT_EXPORT const char* http_sock_state_name(HTTP_SOCK_State state);
