#pragma once

#include "support/export.h"

#include <sys/uio.h>

#include <cstddef>

/**
 * Frames one piece of a response body in the chunked transfer coding (RFC 9112, section 7.1):
 * the size line, the caller's bytes where they are, CR LF, and behind the last piece the zero-size
 * chunk. The size line lives in this object, so the object must outlive the write.
 *
 * A piece without bytes gives no chunk (it would end the body), only the last chunk when `last`.
 */
class HTTPD_SUPPORT_EXPORT HTTP_Chunk_iovec {
public:
    /// @param iov  where to_iovec() writes; room for iovec_count() entries.
    explicit HTTP_Chunk_iovec(iovec* iov) : iov_(iov) {}

    static int iovec_count(const void* data, size_t length, bool last);
    static int iovec_count(const iovec* iov, int count, bool last);

    /// Fills the vector and sets payload_size_. @return the number of entries filled.
    int to_iovec(const void* data, size_t length, bool last);
    int to_iovec(const iovec* iov, int count, bool last);

    size_t payload_size_ = 0; ///< bytes of body framed, without the framing

private:
    int frame(const iovec* iov, int count, bool last);

    iovec* iov_;
    char size_line_[20]; ///< sixteen digits, CR LF
};
