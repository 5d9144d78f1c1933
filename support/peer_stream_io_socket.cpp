#include "support/descriptor_wait.h"
#include "support/peer_stream_io.h"
#include "support/socket_helpers.h"
#include "support/uncancelled.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

namespace {

/// Again for as long as signals interrupt it, which they hardly ever do.
[[gnu::noinline]] ssize_t receive_again(int handle, void* buffer, size_t length)
{
    ssize_t received = -1;
    while (received == -1 && errno == EINTR) {
        received = uncancelled_recv(handle, buffer, length, MSG_DONTWAIT);
    }
    return received;
}

ssize_t receive_now(int handle, void* buffer, size_t length)
{
    const ssize_t received = uncancelled_recv(handle, buffer, length, MSG_DONTWAIT);
    return received >= 0 ? received : receive_again(handle, buffer, length);
}

ssize_t receive_before(int handle, void* buffer, size_t length, const Deadline& deadline)
{
    for (;;) {
        const int ready = wait_for_handle(handle, POLLIN, deadline);
        if (ready == 0) {
            errno = ETIME;
        }
        if (ready <= 0) {
            return -1;
        }
        const ssize_t received = receive_now(handle, buffer, length);
        if (received >= 0 || errno != EAGAIN) {
            return received;
        }
    }
}

bool is_nonblocking(int handle)
{
    const int flags = fcntl(handle, F_GETFL);
    return flags != -1 && (flags & O_NONBLOCK) != 0;
}

/// A blocking receive ends with EAGAIN when the socket's own limit (SO_RCVTIMEO) has passed.
ssize_t receive_blocking(int handle, void* buffer, size_t length)
{
    for (;;) {
        const ssize_t received = uncancelled_recv(handle, buffer, length, 0);
        if (received >= 0 || (errno != EINTR && errno != EAGAIN)) {
            return received;
        }
        if (errno == EAGAIN) {
            if (is_nonblocking(handle)) {
                return receive_before(handle, buffer, length, receive_deadline(handle));
            }
            errno = ETIME;
            return -1;
        }
    }
}

ssize_t socket_receive(int handle, void* buffer, size_t length, Receive_Mode mode,
                       const ACE_Time_Value* limit)
{
    if (mode == Receive_Mode::NEVER_WAIT) {
        return receive_now(handle, buffer, length);
    }
    return limit == nullptr ? receive_blocking(handle, buffer, length)
                            : receive_before(handle, buffer, length, Deadline::after(limit));
}

/// In our own code and not in ACE's, where ThreadSanitizer would not see that the number is free.
template <typename Stream>
void close_socket(Stream& stream)
{
    const int handle = stream.get_handle();
    if (handle != ACE_INVALID_HANDLE) {
        stream.set_handle(ACE_INVALID_HANDLE);
        ::close(handle);
    }
}

template <typename Stream>
int half_close(Stream& stream)
{
    const int handle = stream.get_handle();
    if (handle != ACE_INVALID_HANDLE) {
        shutdown(handle, SHUT_WR); // a peer that is gone already is no failure
        stream.set_handle(ACE_INVALID_HANDLE);
    }
    return handle;
}

} // namespace

int Peer_Stream_IO_T<ACE_SOCK_Stream>::prepare(ACE_SOCK_Stream&)
{
    return 0; // each receive says itself whether it may wait
}

ssize_t Peer_Stream_IO_T<ACE_SOCK_Stream>::receive(ACE_SOCK_Stream& stream, void* buffer,
                                                   size_t length, Receive_Mode mode,
                                                   const ACE_Time_Value* limit)
{
    return socket_receive(stream.get_handle(), buffer, length, mode, limit);
}

bool Peer_Stream_IO_T<ACE_SOCK_Stream>::pending(ACE_SOCK_Stream&)
{
    return false;
}

ssize_t Peer_Stream_IO_T<ACE_SOCK_Stream>::send(ACE_SOCK_Stream& stream, const void* data,
                                                size_t length)
{
    return ace_send(stream.get_handle(), data, length);
}

ssize_t Peer_Stream_IO_T<ACE_SOCK_Stream>::sendv(ACE_SOCK_Stream& stream, const iovec* iov,
                                                 int count)
{
    return ace_sendv(stream.get_handle(), iov, count);
}

ssize_t Peer_Stream_IO_T<ACE_SOCK_Stream>::sendv_now(ACE_SOCK_Stream& stream, const iovec* iov,
                                                     int count)
{
    return ace_sendv_now(stream.get_handle(), iov, count);
}

void Peer_Stream_IO_T<ACE_SOCK_Stream>::close(ACE_SOCK_Stream& stream)
{
    close_socket(stream);
}

void Peer_Stream_IO_T<ACE_SOCK_Stream>::interrupt(ACE_SOCK_Stream& stream)
{
    ::shutdown(stream.get_handle(), SHUT_RDWR);
}

int Peer_Stream_IO_T<ACE_SOCK_Stream>::half_close_and_detach(ACE_SOCK_Stream& stream)
{
    return half_close(stream);
}

int Peer_Stream_IO_T<LSOCK_Stream>::prepare(LSOCK_Stream&)
{
    return 0;
}

ssize_t Peer_Stream_IO_T<LSOCK_Stream>::receive(LSOCK_Stream& stream, void* buffer, size_t length,
                                                Receive_Mode mode, const ACE_Time_Value* limit)
{
    return socket_receive(stream.get_handle(), buffer, length, mode, limit);
}

bool Peer_Stream_IO_T<LSOCK_Stream>::pending(LSOCK_Stream&)
{
    return false;
}

ssize_t Peer_Stream_IO_T<LSOCK_Stream>::send(LSOCK_Stream& stream, const void* data, size_t length)
{
    return ace_send(stream.get_handle(), data, length);
}

ssize_t Peer_Stream_IO_T<LSOCK_Stream>::sendv(LSOCK_Stream& stream, const iovec* iov, int count)
{
    return ace_sendv(stream.get_handle(), iov, count);
}

ssize_t Peer_Stream_IO_T<LSOCK_Stream>::sendv_now(LSOCK_Stream& stream, const iovec* iov, int count)
{
    return ace_sendv_now(stream.get_handle(), iov, count);
}

void Peer_Stream_IO_T<LSOCK_Stream>::close(LSOCK_Stream& stream)
{
    close_socket(stream);
}

void Peer_Stream_IO_T<LSOCK_Stream>::interrupt(LSOCK_Stream& stream)
{
    ::shutdown(stream.get_handle(), SHUT_RDWR);
}

int Peer_Stream_IO_T<LSOCK_Stream>::half_close_and_detach(LSOCK_Stream& stream)
{
    return half_close(stream);
}
