#include "support/gzip_file.h"

#include "support/scoped_deleter.h"

#include <cerrno>
#include <cstddef>
#include <fcntl.h>
#include <memory>
#include <new>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

namespace {

constexpr size_t BLOCK_SIZE = 64 * 1024;

struct Blocks {
    unsigned char in_[BLOCK_SIZE];
    unsigned char out_[BLOCK_SIZE];
};

void close_keeping_errno(int handle)
{
    const int error = errno;
    close(handle);
    errno = error;
}

ssize_t read_block(int handle, unsigned char* block)
{
    ssize_t count;
    do {
        count = read(handle, block, BLOCK_SIZE);
    } while (count == -1 && errno == EINTR);
    return count;
}

int write_all(int handle, const unsigned char* data, size_t length)
{
    while (length > 0) {
        const ssize_t count = write(handle, data, length);
        if (count >= 0) {
            data += count;
            length -= static_cast<size_t>(count);
        } else if (errno != EINTR) {
            return -1;
        }
    }
    return 0;
}

/// Compresses what `stream` was given and writes it; with Z_FINISH to the end.
int write_deflated(z_stream& stream, int mode, int out, unsigned char* block)
{
    do {
        stream.next_out = block;
        stream.avail_out = BLOCK_SIZE;
        if (deflate(&stream, mode) == Z_STREAM_ERROR) {
            errno = EINVAL;
            return -1;
        }
        if (write_all(out, block, BLOCK_SIZE - stream.avail_out) == -1) {
            return -1;
        }
    } while (stream.avail_out == 0); // there may be more
    return 0;
}

int deflate_file(int in, int out, int level, const std::atomic<bool>& cancelled)
{
    constexpr int GZIP_WINDOW = MAX_WBITS + 16; // 16: a gzip header and trailer
    constexpr int MEMORY = 8;
    const std::unique_ptr<Blocks> blocks(new (std::nothrow) Blocks);
    z_stream stream{};
    if (blocks == nullptr ||
        deflateInit2(&stream, level, Z_DEFLATED, GZIP_WINDOW, MEMORY, Z_DEFAULT_STRATEGY) != Z_OK) {
        errno = ENOMEM;
        return -1;
    }
    const auto end_stream = make_deleter([&stream] { deflateEnd(&stream); });
    for (;;) {
        if (cancelled.load(std::memory_order_relaxed)) {
            errno = ECANCELED;
            return -1;
        }
        const ssize_t count = read_block(in, blocks->in_);
        if (count == -1) {
            return -1;
        }
        stream.next_in = blocks->in_;
        stream.avail_in = static_cast<uInt>(count);
        const int mode = count == 0 ? Z_FINISH : Z_NO_FLUSH;
        if (write_deflated(stream, mode, out, blocks->out_) == -1) {
            return -1;
        }
        if (count == 0) {
            return 0;
        }
    }
}

int copy_attributes(int out, const struct stat& status)
{
    const timespec times[] = {status.st_atim, status.st_mtim};
    return fchmod(out, status.st_mode & 0777U) == -1 ? -1 : futimens(out, times);
}

} // namespace

int gzip_file(const char* source, const char* target, int level, const std::atomic<bool>& cancelled)
{
    const int in = open(source, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    if (in == -1) {
        return -1;
    }
    const auto close_in = make_deleter([in] { close_keeping_errno(in); });
    struct stat status;
    if (fstat(in, &status) == -1) {
        return -1;
    }
    if (!S_ISREG(status.st_mode)) {
        errno = EINVAL;
        return -1;
    }
    if (unlink(target) == -1 && errno != ENOENT) {
        return -1;
    }
    // Exclusive: a link that somebody put there is not followed.
    const int out = open(target, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (out == -1) {
        return -1;
    }
    auto remove_target = make_deleter([target] {
        const int error = errno;
        unlink(target);
        errno = error;
    });
    const auto close_out = make_deleter([out] { close_keeping_errno(out); });
    if (deflate_file(in, out, level, cancelled) == -1 || copy_attributes(out, status) == -1 ||
        fsync(out) == -1) {
        return -1;
    }
    remove_target.dismiss();
    return 0;
}
