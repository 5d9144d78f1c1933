#pragma once

#include "support/export.h"

#include <sys/types.h>

#include <cstddef>

/// What became of a part of a file that was to be sent.
struct File_Sent {
    enum Outcome {
        COMPLETE,    ///< all of it has been sent
        FILE_ENDED,  ///< the file has become shorter: it ended behind `sent_` bytes
        READ_FAILED, ///< errno is the file's
        SEND_FAILED  ///< errno is the socket's; ETIME as with ace_send()
    };

    Outcome outcome_;
    size_t sent_; ///< bytes; when sending failed, perhaps not all of them have left this system
};

/**
 * Sends a part of a regular file from the page cache, without a copy through this process
 * (sendfile(2)); where the file system knows no such thing, by reading it. Never raises SIGPIPE.
 *
 * @param socket  a connected TCP or UNIX-domain socket with O_NONBLOCK set: sendfile(2) has no flag
 *                that would keep it from waiting.
 * @param file    its own position is neither used nor changed.
 */
HTTPD_SUPPORT_EXPORT File_Sent ace_send_file(int socket, int file, off_t offset, size_t length);
