#pragma once

#include "support/export.h"

#include <cstddef>

/// Room that websocket_key_accept() needs: 28 characters and the NUL.
constexpr size_t WEBSOCKET_ACCEPT_SIZE = 29;

/**
 * The Sec-WebSocket-Accept value for a client's key (RFC 6455, section 4.2.2).
 * @param out  room for WEBSOCKET_ACCEPT_SIZE characters
 * @return 0, or -1 with EINVAL (a null argument) or ENOMEM.
 */
HTTPD_SUPPORT_EXPORT int websocket_key_accept(const char* key, char* out);
