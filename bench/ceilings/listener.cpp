#include "bench/ceilings/listener.h"

#include "bench/ceilings/options.h"
#include "bench/common/fail.h"

#include <arpa/inet.h>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

constexpr int BACKLOG = 4096;

sockaddr_un unix_address;

extern "C" void end_on_signal(int)
{
    if (unix_address.sun_path[0] != '\0') {
        unlink(unix_address.sun_path);
    }
    _exit(0);
}

int open_unix(const std::string& path, int type)
{
    if (path.size() >= sizeof unix_address.sun_path) {
        fail("--unix: the path is too long");
    }
    unix_address.sun_family = AF_UNIX;
    std::memcpy(unix_address.sun_path, path.c_str(), path.size() + 1);
    unlink(path.c_str());
    const int fd = socket(AF_UNIX, type, 0);
    if (fd == -1 ||
        bind(fd, reinterpret_cast<const sockaddr*>(&unix_address), sizeof unix_address) == -1) {
        fail_errno("%s", path.c_str());
    }
    return fd;
}

int open_tcp(int port, int type)
{
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<in_port_t>(port));
    const int on = 1;
    const int fd = socket(AF_INET, type, 0);
    if (fd == -1 || setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) == -1 ||
        setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on) == -1 ||
        bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == -1) {
        fail_errno("port %d", port);
    }
    return fd;
}

void allow_many_descriptors()
{
    rlimit limit = {};
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0) {
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &limit);
    }
}

} // namespace

int open_listener(const Ceiling_Options& options, bool blocking)
{
    allow_many_descriptors();
    std::signal(SIGTERM, end_on_signal);
    std::signal(SIGPIPE, SIG_IGN);
    const int type = SOCK_STREAM | SOCK_CLOEXEC | (blocking ? 0 : SOCK_NONBLOCK);
    const int fd = options.unix_path_.empty() ? open_tcp(options.port_, type)
                                              : open_unix(options.unix_path_, type);
    if (listen(fd, BACKLOG) == -1) {
        fail_errno("listen");
    }
    std::puts("ready");
    static_cast<void>(std::fflush(stdout));
    return fd;
}
