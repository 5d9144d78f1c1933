#pragma once

#include "httpd/export.h"

#include <cstdint>

class HTTP_IO;

/**
 * Sends a part of an open regular file as a piece of the response's body, in this thread: what
 * HTTP_IO::send() does with its bytes. Where the connection is a plain socket and the response not
 * chunked, they go straight from the page cache to it; else they are read in blocks. Not for HEAD.
 *
 * @param file    its own position is neither used nor changed; stays the caller's.
 * @param offset  of the part's first byte
 * @param length  bytes; 0 sends the header, or ends the body
 * @param last    the part ends the body, as with HTTP_IO::send()
 * @return 0; -1 when sending failed, when the file could not be read or has become shorter (each is
 *         logged, the last two with the request's path), or when the connection is to be closed.
 */
HTTPD_EXPORT int send_open_file(HTTP_IO& io, int file, std::uint64_t offset, std::uint64_t length,
                                bool last);
