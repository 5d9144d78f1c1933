#include "bench/load/target.h"

#include "bench/common/fail.h"
#include "bench/load/options.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

constexpr time_t PATIENCE = 5; // seconds that a server may take while connections are opened

int closed_with_errno(int fd)
{
    const int error = errno;
    close(fd);
    errno = error;
    return -1;
}

} // namespace

Target::Target(const Load_Options& options)
{
    if (options.unix_path_.empty()) {
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address.sin_port = htons(static_cast<in_port_t>(options.port_));
        length_ = sizeof address;
        std::memcpy(&address_, &address, sizeof address);
        return;
    }
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (options.unix_path_.size() >= sizeof address.sun_path) {
        fail("--unix: the path is too long");
    }
    std::memcpy(address.sun_path, options.unix_path_.c_str(), options.unix_path_.size() + 1);
    length_ = sizeof address;
    std::memcpy(&address_, &address, sizeof address);
}

int Target::connect_and_wait() const
{
    const int fd = socket(address_.ss_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd == -1) {
        return -1;
    }
    const timeval patience = {PATIENCE, 0};
    const int on = 1;
    if (setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience) == -1 ||
        setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience) == -1 ||
        (!is_unix() && setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on) == -1) ||
        connect(fd, reinterpret_cast<const sockaddr*>(&address_), length_) == -1) {
        return closed_with_errno(fd);
    }
    return fd;
}

int Target::begin_connect(bool& waiting) const
{
    const int fd = socket(address_.ss_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd == -1) {
        return -1;
    }
    waiting = connect(fd, reinterpret_cast<const sockaddr*>(&address_), length_) == -1;
    return !waiting || errno == EINPROGRESS ? fd : closed_with_errno(fd);
}

void stop_blocking(int fd)
{
    if (fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK) == -1) {
        fail_errno("fcntl");
    }
}
