#include "support/http_chunk_iovec.h"

#include <charconv>

namespace {

constexpr char MORE_FOLLOWS[] = "\r\n";
constexpr char LAST_CHUNK[] = "0\r\n\r\n";
constexpr char END_AND_LAST_CHUNK[] = "\r\n0\r\n\r\n";

// Filled in by the system call only: a vector entry of something to write has no const pointer.
template <size_t SIZE>
iovec constant(const char (&text)[SIZE])
{
    return {const_cast<char*>(text), SIZE - 1};
}

bool is_empty(const iovec& piece)
{
    return piece.iov_base == nullptr || piece.iov_len == 0;
}

struct Extent {
    int pieces = 0; ///< those that hold bytes
    size_t bytes = 0;
};

Extent measure(const iovec* iov, int count)
{
    Extent extent;
    for (int i = 0; iov != nullptr && i < count; ++i) {
        if (!is_empty(iov[i])) {
            ++extent.pieces;
            extent.bytes += iov[i].iov_len;
        }
    }
    return extent;
}

} // namespace

int HTTP_Chunk_iovec::iovec_count(const void* data, size_t length, bool last)
{
    const iovec piece = {const_cast<void*>(data), length};
    return iovec_count(&piece, 1, last);
}

int HTTP_Chunk_iovec::iovec_count(const iovec* iov, int count, bool last)
{
    const int pieces = measure(iov, count).pieces;
    if (pieces == 0) {
        return last ? 1 : 0;
    }
    return 1 + pieces + 1; // size line, pieces, line end
}

int HTTP_Chunk_iovec::to_iovec(const void* data, size_t length, bool last)
{
    const iovec piece = {const_cast<void*>(data), length};
    return frame(&piece, 1, last);
}

int HTTP_Chunk_iovec::to_iovec(const iovec* iov, int count, bool last)
{
    return frame(iov, count, last);
}

int HTTP_Chunk_iovec::frame(const iovec* iov, int count, bool last)
{
    const Extent extent = measure(iov, count);
    payload_size_ = extent.bytes;
    if (extent.pieces == 0) {
        if (!last) {
            return 0;
        }
        iov_[0] = constant(LAST_CHUNK);
        return 1;
    }

    char* end = std::to_chars(size_line_, size_line_ + sizeof(size_line_), payload_size_, 16).ptr;
    *end++ = '\r';
    *end++ = '\n';
    int filled = 0;
    iov_[filled++] = {size_line_, static_cast<size_t>(end - size_line_)};
    for (int i = 0; i < count; ++i) {
        if (!is_empty(iov[i])) {
            iov_[filled++] = iov[i];
        }
    }
    iov_[filled++] = last ? constant(END_AND_LAST_CHUNK) : constant(MORE_FOLLOWS);
    return filled;
}
