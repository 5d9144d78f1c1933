#pragma once

#include "support/export.h"

#include <cstddef>

/**
 * Unmasks a piece of payload in place (RFC 6455, section 5.3), in machine words whatever its
 * alignment.
 * @param offset  position in the frame's payload of data[0], modulo 4
 */
HTTPD_SUPPORT_EXPORT void websocket_unmask(char* data, size_t length, const unsigned char key[4],
                                           unsigned offset);
