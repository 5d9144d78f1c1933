#include "support/descriptor_write.h"

#include "support/descriptor_wait.h"
#include "support/socket_helpers.h"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>

namespace {

/**
 * Keeps SIGPIPE from this thread while it lives and takes away the one that a write has raised
 * meanwhile: write(2) has no MSG_NOSIGNAL. A signal that was pending before stays.
 */
class Sigpipe_Guard {
public:
    Sigpipe_Guard()
    {
        sigset_t pending;
        sigpending(&pending);
        was_pending_ = sigismember(&pending, SIGPIPE) == 1;
        sigemptyset(&sigpipe_);
        sigaddset(&sigpipe_, SIGPIPE);
        pthread_sigmask(SIG_BLOCK, &sigpipe_, &old_mask_);
    }

    ~Sigpipe_Guard()
    {
        const int error = errno;
        const timespec at_once{0, 0};
        while (!was_pending_ && sigtimedwait(&sigpipe_, nullptr, &at_once) == -1 &&
               errno == EINTR) {
        }
        pthread_sigmask(SIG_SETMASK, &old_mask_, nullptr);
        errno = error;
    }

    Sigpipe_Guard(const Sigpipe_Guard&) = delete;
    Sigpipe_Guard& operator=(const Sigpipe_Guard&) = delete;

private:
    sigset_t sigpipe_{};
    sigset_t old_mask_{};
    bool was_pending_ = false;
};

/// The most that one write may take: a blocking pipe that polls writable has room for PIPE_BUF.
size_t piece_limit(int handle)
{
    const int flags = fcntl(handle, F_GETFL);
    return flags != -1 && (flags & O_NONBLOCK) != 0 ? SIZE_MAX : PIPE_BUF;
}

ssize_t write_pieces(int handle, const char* data, size_t length, size_t limit, int cancel)
{
    size_t done = 0;
    while (done < length) {
        if (wait_for_room(handle, DEFAULT_SEND_LIMIT * 1000, cancel) == -1) {
            return -1;
        }
        const ssize_t written = write(handle, data + done, std::min(length - done, limit));
        if (written >= 0) {
            done += static_cast<size_t>(written);
        } else if (errno != EINTR && errno != EAGAIN) {
            return -1;
        }
    }
    return static_cast<ssize_t>(length);
}

} // namespace

ssize_t write_all(int handle, const void* data, size_t length, int cancel)
{
    const Sigpipe_Guard guard;
    return write_pieces(handle, static_cast<const char*>(data), length, piece_limit(handle),
                        cancel);
}

ssize_t writev_all(int handle, const iovec* iov, int count, int cancel)
{
    size_t total = 0;
    if (iovec_total(iov, count, total) == -1) {
        return -1;
    }
    const Sigpipe_Guard guard;
    const size_t limit = piece_limit(handle);
    char buffer[PIPE_BUF]; // small entries leave together, one write for all
    size_t used = 0;
    for (int i = 0; i < count; ++i) {
        const char* data = static_cast<const char*>(iov[i].iov_base);
        size_t length = iov[i].iov_len;
        if (used + length > sizeof buffer) {
            if (write_pieces(handle, buffer, used, limit, cancel) == -1) {
                return -1;
            }
            used = 0;
        }
        if (length > sizeof buffer) {
            if (write_pieces(handle, data, length, limit, cancel) == -1) {
                return -1;
            }
            length = 0;
        }
        if (length > 0) {
            std::memcpy(buffer + used, data, length);
            used += length;
        }
    }
    return write_pieces(handle, buffer, used, limit, cancel) == -1 ? -1
                                                                   : static_cast<ssize_t>(total);
}

ssize_t writev_file(int handle, const iovec* iov, int count)
{
    size_t total = 0;
    if (iovec_total(iov, count, total) == -1) {
        return -1;
    }
    size_t done = 0;
    size_t offset = 0; // into the first entry
    while (done < total) {
        while (offset >= iov->iov_len) { // entries that are done, and empty ones
            offset -= iov->iov_len;
            ++iov;
            --count;
        }
        // What a full disk or a limit has cut an entry to is written alone: the rest follows.
        const ssize_t written =
            offset == 0 ? writev(handle, iov, std::min(count, IOV_MAX))
                        : write(handle, static_cast<const char*>(iov->iov_base) + offset,
                                iov->iov_len - offset);
        if (written >= 0) {
            offset += static_cast<size_t>(written);
            done += static_cast<size_t>(written);
        } else if (errno != EINTR) {
            return -1;
        }
    }
    return static_cast<ssize_t>(total);
}

ssize_t writev_now(int handle, const iovec* iov, int count)
{
    const Sigpipe_Guard guard;
    const size_t limit = piece_limit(handle);
    size_t done = 0;
    for (int i = 0; i < count; ++i) {
        const char* const data = static_cast<const char*>(iov[i].iov_base);
        for (size_t at = 0; at < iov[i].iov_len;) {
            const int ready = wait_for_handle(handle, POLLOUT, Deadline::after_ms(0));
            if (ready <= 0) {
                return ready == 0 ? static_cast<ssize_t>(done) : -1;
            }
            const ssize_t written = write(handle, data + at, std::min(iov[i].iov_len - at, limit));
            if (written >= 0) {
                at += static_cast<size_t>(written);
                done += static_cast<size_t>(written);
            } else if (errno == EAGAIN) {
                return static_cast<ssize_t>(done);
            } else if (errno != EINTR) {
                return -1;
            }
        }
    }
    return static_cast<ssize_t>(done);
}

int iovec_total(const iovec* iov, int count, size_t& total)
{
    constexpr size_t MOST = SSIZE_MAX;
    total = 0;
    for (int i = 0; i < count; ++i) {
        if (iov[i].iov_len > MOST - total) {
            errno = EINVAL;
            return -1;
        }
        total += iov[i].iov_len;
    }
    if (count < 0) {
        errno = EINVAL;
        return -1;
    }
    return 0;
}
