#pragma once

#include "httpd/export.h"

#include <cstddef>

class ACE_Message_Block;

/**
 * Receive buffers that are handed from connection to connection: a connection needs one only while
 * input is in it, so idle connections hold none, and those that are busy share the few of their
 * thread, which stay in its cache.
 *
 * Each thread keeps free buffers of its own, KEPT_BUFFERS and KEPT_BYTES at most (one in any case);
 * what it cannot keep goes back to the heap. Their memory is aligned for copies between it and the
 * kernel. Any thread.
 */
class HTTPD_EXPORT Receive_Buffers {
public:
    enum : size_t { KEPT_BUFFERS = 16, KEPT_BYTES = 1024 * 1024 };

    /// An empty buffer of `size` bytes; null with ENOMEM when there is no memory.
    static ACE_Message_Block* take(size_t size);

    /// Takes a buffer back, whatever is in it.
    static void give(ACE_Message_Block* buffer);
};
