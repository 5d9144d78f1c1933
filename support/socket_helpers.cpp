#include "support/socket_helpers.h"

#include "support/descriptor_wait.h"
#include "support/descriptor_write.h"
#include "support/short_text.h"
#include "support/uncancelled.h"

#include <ace/SOCK.h>

#include <fcntl.h>
#include <linux/sockios.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <string_view>

namespace {

/// Up to here one copy and a plain send are cheaper than a gathered one.
constexpr size_t FLAT_LIMIT = 4096;

/// Entries that are rebuilt on the stack to go on inside an entry of the caller's vector.
constexpr int WINDOW = 64;

/// Neither blocks nor raises SIGPIPE, whatever the descriptor's mode.
constexpr int SEND_FLAGS = MSG_NOSIGNAL | MSG_DONTWAIT;

int set_int_option(const ACE_SOCK& socket, int level, int option, int value)
{
    return setsockopt(socket.get_handle(), level, option, &value, sizeof value);
}

int set_time_option(const ACE_SOCK& socket, int option, int seconds)
{
    const timeval value{seconds, 0};
    return setsockopt(socket.get_handle(), SOL_SOCKET, option, &value, sizeof value);
}

bool is_unix_socket(int handle)
{
    int domain = 0;
    socklen_t length = sizeof domain;
    return getsockopt(handle, SOL_SOCKET, SO_DOMAIN, &domain, &length) == 0 && domain == AF_UNIX;
}

/// What follows a send that returned `sent`, not all of the bytes.
[[gnu::noinline]] ssize_t send_rest(int handle, const char* data, size_t length, int flags,
                                    ssize_t sent)
{
    size_t done = 0;
    for (;;) {
        if (sent >= 0) {
            done += static_cast<size_t>(sent);
        } else if (errno == ENOTSOCK) {
            return write_all(handle, data, length);
        } else if (wait_after_failed_send(handle) == -1) {
            return -1;
        }
        if (done == length) {
            return static_cast<ssize_t>(length);
        }
        sent = uncancelled_send(handle, data + done, length - done, SEND_FLAGS | flags);
    }
}

ssize_t send_all(int handle, const char* data, size_t length, int flags = 0)
{
    if (length == 0) {
        return 0;
    }
    const ssize_t sent = uncancelled_send(handle, data, length, SEND_FLAGS | flags);
    return sent == static_cast<ssize_t>(length) ? sent
                                                : send_rest(handle, data, length, flags, sent);
}

ssize_t send_gathered(int handle, const iovec* iov, int count)
{
    msghdr message{};
    // sendmsg does not change the entries; only its type is not const.
    message.msg_iov = const_cast<iovec*>(iov);
    message.msg_iovlen = static_cast<size_t>(count);
    return sendmsg(handle, &message, SEND_FLAGS);
}

/// Sends a part of what is left of the vector, from byte `offset` of its first entry.
ssize_t send_part(int handle, const iovec* iov, int count, size_t offset)
{
    if (offset == 0) {
        return send_gathered(handle, iov, std::min(count, IOV_MAX));
    }
    iovec window[WINDOW];
    const int used = std::min(count, WINDOW);
    std::copy(iov, iov + used, window);
    window[0].iov_base = static_cast<char*>(window[0].iov_base) + offset;
    window[0].iov_len -= offset;
    return send_gathered(handle, window, used);
}

ssize_t send_vector(int handle, const iovec* iov, int count, size_t total)
{
    int first = 0;
    size_t offset = 0;
    size_t done = 0;
    while (done < total) {
        while (offset >= iov[first].iov_len) { // entries that are done, and empty ones
            offset -= iov[first].iov_len;
            ++first;
        }
        const ssize_t sent = send_part(handle, iov + first, count - first, offset);
        if (sent >= 0) {
            offset += static_cast<size_t>(sent);
            done += static_cast<size_t>(sent);
        } else if (errno == ENOTSOCK) {
            return writev_all(handle, iov, count);
        } else if (wait_after_failed_send(handle) == -1) {
            return -1;
        }
    }
    return static_cast<ssize_t>(total);
}

/// A small vector as one piece: one plain send costs less than a gathered one.
struct Flat {
    /// Copies the entries one behind the other. @return false when they are too much for that.
    bool take(const iovec* iov, int count)
    {
        char* out = bytes_;
        size_t room = sizeof bytes_;
        for (int i = 0; i < count; ++i) {
            const std::string_view entry(static_cast<const char*>(iov[i].iov_base), iov[i].iov_len);
            if (entry.size() > room) {
                return false;
            }
            room -= entry.size();
            out = copy_short(out, entry);
        }
        length_ = sizeof bytes_ - room;
        return count >= 0;
    }

    size_t length_ = 0;
    char bytes_[FLAT_LIMIT];
};

/// Apart from ace_sendv(), which needs no room for a copy when there is one entry.
[[gnu::noinline]] ssize_t send_entries(int handle, const iovec* iov, int count)
{
    if (Flat flat; flat.take(iov, count)) {
        return send_all(handle, flat.bytes_, flat.length_);
    }
    size_t total = 0;
    return iovec_total(iov, count, total) == -1 ? -1 : send_vector(handle, iov, count, total);
}

} // namespace

int set_sock_nodelay(const ACE_SOCK& socket, bool on)
{
    if (set_int_option(socket, IPPROTO_TCP, TCP_NODELAY, on ? 1 : 0) == 0) {
        return 0;
    }
    const int error = errno;
    if (is_unix_socket(socket.get_handle())) {
        return 0;
    }
    errno = error;
    return -1;
}

int set_sock_keepalive(const ACE_SOCK& socket, int seconds)
{
    // The time first: where it is refused (UNIX-domain), nothing has been changed.
    if (set_int_option(socket, IPPROTO_TCP, TCP_KEEPIDLE, seconds) == -1) {
        return -1;
    }
    return set_int_option(socket, SOL_SOCKET, SO_KEEPALIVE, 1);
}

int set_sock_timeout(const ACE_SOCK& socket, int send_seconds, int receive_seconds)
{
    if (send_seconds > 0 && set_time_option(socket, SO_SNDTIMEO, send_seconds) == -1) {
        return -1;
    }
    return receive_seconds > 0 ? set_time_option(socket, SO_RCVTIMEO, receive_seconds) : 0;
}

int enable_fd_cloexec(int handle)
{
    const int flags = fcntl(handle, F_GETFD);
    if (flags == -1) {
        return -1;
    }
    return (flags & FD_CLOEXEC) != 0 ? 0 : fcntl(handle, F_SETFD, flags | FD_CLOEXEC);
}

int set_fd_nonblock(int handle, bool on)
{
    const int flags = fcntl(handle, F_GETFL);
    if (flags == -1) {
        return -1;
    }
    const int wanted = on ? flags | O_NONBLOCK : flags & ~O_NONBLOCK;
    return wanted == flags ? 0 : fcntl(handle, F_SETFL, wanted);
}

ssize_t ace_send(int handle, const void* data, size_t length)
{
    return send_all(handle, static_cast<const char*>(data), length);
}

ssize_t ace_sendv(int handle, const iovec* iov, int count)
{
    return count == 1 ? ace_send(handle, iov->iov_base, iov->iov_len)
                      : send_entries(handle, iov, count);
}

ssize_t ace_sendv_more(int handle, const iovec* iov, int count)
{
    if (Flat flat; flat.take(iov, count)) {
        return send_all(handle, flat.bytes_, flat.length_, MSG_MORE);
    }
    return ace_sendv(handle, iov, count); // much: it leaves by itself
}

ssize_t ace_sendv_now(int handle, const iovec* iov, int count)
{
    Flat flat;
    const bool small = flat.take(iov, count);
    if (size_t total = 0; !small && iovec_total(iov, count, total) == -1) {
        return -1;
    }
    if (small && flat.length_ == 0) {
        return 0;
    }
    for (;;) {
        const ssize_t sent = small ? uncancelled_send(handle, flat.bytes_, flat.length_, SEND_FLAGS)
                                   : send_gathered(handle, iov, count);
        if (sent >= 0) {
            return sent;
        }
        if (errno != EINTR) {
            return errno == EAGAIN || errno == EWOULDBLOCK ? 0 : -1;
        }
    }
}

int send_limit_ms(int handle)
{
    const int error = errno;
    timeval limit{};
    socklen_t length = sizeof limit;
    int64_t milliseconds = 0;
    if (getsockopt(handle, SOL_SOCKET, SO_SNDTIMEO, &limit, &length) == 0) {
        milliseconds = static_cast<int64_t>(limit.tv_sec) * 1000 + (limit.tv_usec + 999) / 1000;
    }
    errno = error;
    return milliseconds > 0 ? static_cast<int>(std::min<int64_t>(milliseconds, INT_MAX))
                            : DEFAULT_SEND_LIMIT * 1000;
}

bool socket_has_room(int handle)
{
    constexpr int AT_ONCE = 0;
    return wait_for_handle(handle, POLLOUT, Deadline::after_ms(AT_ONCE)) != 0;
}

int unsent_bytes(int handle)
{
    int bytes = 0;
    return ioctl(handle, SIOCOUTQ, &bytes) == 0 ? bytes : 0;
}

void widen_send_buffer(int handle, int bytes)
{
    // The system counts its own overhead in, and doubles for that what it is asked for.
    int size = 0;
    int locks = 0;
    socklen_t length = sizeof size;
    if (getsockopt(handle, SOL_SOCKET, SO_SNDBUF, &size, &length) != 0 || size / 2 >= bytes) {
        return;
    }
    const bool known = getsockopt(handle, SOL_SOCKET, SO_BUF_LOCK, &locks, &length) == 0;
    if (setsockopt(handle, SOL_SOCKET, SO_SNDBUF, &bytes, sizeof bytes) == 0 && known) {
        // The call above has also fixed the size: a long answer over a long way needs more.
        setsockopt(handle, SOL_SOCKET, SO_BUF_LOCK, &locks, sizeof locks);
    }
}
