#pragma once

#include <sys/socket.h>

struct Load_Options;

/// Where the server listens.
class Target {
public:
    /// Ends the program where the options name no usable address.
    explicit Target(const Load_Options& options);

    bool is_unix() const { return address_.ss_family == AF_UNIX; }

    /// Connects, waiting at most some seconds: a descriptor that blocks, or -1 with errno.
    int connect_and_wait() const;

    /**
     * Begins to connect.
     *
     * @return a descriptor that does not block, or -1 with errno
     * @param waiting  true: the connection is made when the descriptor can be written
     */
    int begin_connect(bool& waiting) const;

private:
    sockaddr_storage address_ = {};
    socklen_t length_ = 0;
};

/// Makes a blocking descriptor one that does not block.
void stop_blocking(int fd);
