#include "support/file_send.h"

#include "support/descriptor_wait.h"
#include "support/socket_helpers.h"

#include <pthread.h>
#include <signal.h>
#include <sys/sendfile.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace {

constexpr size_t PAGE_SIZE = 4096;

/// The file cannot be sent this way, or not be read: reading it tells.
bool is_the_files_error(int error)
{
    return error == EINVAL || error == ENOSYS || error == EOPNOTSUPP || error == EIO ||
           error == EOVERFLOW || error == ESPIPE || error == EISDIR;
}

/// Sends what is left by reading it.
File_Sent send_by_reading(int socket, int file, off_t offset, size_t length)
{
    alignas(PAGE_SIZE) char buffer[4 * PAGE_SIZE];
    size_t done = 0;
    while (done < length) {
        const ssize_t count = pread(file, buffer, std::min(length - done, sizeof buffer),
                                    offset + static_cast<off_t>(done));
        if (count == 0) {
            return {File_Sent::FILE_ENDED, done};
        }
        if (count == -1) {
            if (errno == EINTR) {
                continue;
            }
            return {File_Sent::READ_FAILED, done};
        }
        if (ace_send(socket, buffer, static_cast<size_t>(count)) == -1) {
            return {File_Sent::SEND_FAILED, done};
        }
        done += static_cast<size_t>(count);
    }
    return {File_Sent::COMPLETE, done};
}

/**
 * Keeps SIGPIPE from this thread while it lives: sendfile(2) has no flag against it. In the event
 * loops, which block all signals, one system call.
 */
class Sigpipe_Block {
public:
    Sigpipe_Block()
    {
        sigemptyset(&sigpipe_);
        sigaddset(&sigpipe_, SIGPIPE);
        pthread_sigmask(SIG_BLOCK, &sigpipe_, &old_mask_);
    }

    ~Sigpipe_Block()
    {
        if (sigismember(&old_mask_, SIGPIPE) == 0) {
            const int error = errno;
            pthread_sigmask(SIG_SETMASK, &old_mask_, nullptr);
            errno = error;
        }
    }

    Sigpipe_Block(const Sigpipe_Block&) = delete;
    Sigpipe_Block& operator=(const Sigpipe_Block&) = delete;

    /// Takes away the signal that a write has raised.
    void take_away() const
    {
        const int error = errno;
        const timespec at_once{0, 0};
        while (sigtimedwait(&sigpipe_, nullptr, &at_once) == -1 && errno == EINTR) {
        }
        errno = error;
    }

private:
    sigset_t sigpipe_{};
    sigset_t old_mask_{};
};

File_Sent send_parts(int socket, int file, off_t offset, size_t length)
{
    size_t done = 0;
    while (done < length) {
        const off_t here = offset + static_cast<off_t>(done);
        off_t at = here;
        const ssize_t sent = sendfile(socket, file, &at, length - done);
        if (sent > 0) {
            done += static_cast<size_t>(sent);
        } else if (sent == 0) {
            return {File_Sent::FILE_ENDED, done};
        } else if (is_the_files_error(errno)) {
            const File_Sent rest = send_by_reading(socket, file, here, length - done);
            return {rest.outcome_, done + rest.sent_};
        } else if (wait_after_failed_send(socket) == -1) {
            return {File_Sent::SEND_FAILED, done};
        }
    }
    return {File_Sent::COMPLETE, done};
}

} // namespace

File_Sent ace_send_file(int socket, int file, off_t offset, size_t length)
{
    const Sigpipe_Block sigpipe;
    const File_Sent result = send_parts(socket, file, offset, length);
    if (result.outcome_ == File_Sent::SEND_FAILED && errno == EPIPE) {
        sigpipe.take_away();
    }
    return result;
}
