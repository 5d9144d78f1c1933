#include "support/peer_stream_io.h"

#include <fcntl.h>
#include <sys/socket.h>

#include <cerrno>

int Peer_Stream_IO_T<Pipe_Stream>::prepare(Pipe_Stream& stream)
{
    // The descriptors stay as they are: their mode is shared with other processes.
    return stream.make_interruptible();
}

ssize_t Peer_Stream_IO_T<Pipe_Stream>::receive(Pipe_Stream& stream, void* buffer, size_t length,
                                               Receive_Mode mode, const ACE_Time_Value* limit)
{
    if (mode == Receive_Mode::WAIT) {
        return stream.recv(buffer, length, limit);
    }
    const ssize_t received = stream.recv(buffer, length, &ACE_Time_Value::zero);
    if (received == -1 && errno == ETIME) {
        errno = EAGAIN;
    }
    return received;
}

bool Peer_Stream_IO_T<Pipe_Stream>::pending(Pipe_Stream&)
{
    return false;
}

ssize_t Peer_Stream_IO_T<Pipe_Stream>::send(Pipe_Stream& stream, const void* data, size_t length)
{
    return stream.send(data, length);
}

ssize_t Peer_Stream_IO_T<Pipe_Stream>::sendv(Pipe_Stream& stream, const iovec* iov, int count)
{
    return stream.sendv(iov, count);
}

ssize_t Peer_Stream_IO_T<Pipe_Stream>::sendv_now(Pipe_Stream& stream, const iovec* iov, int count)
{
    return stream.sendv_now(iov, count);
}

void Peer_Stream_IO_T<Pipe_Stream>::close(Pipe_Stream& stream)
{
    stream.close();
}

void Peer_Stream_IO_T<Pipe_Stream>::interrupt(Pipe_Stream& stream)
{
    stream.interrupt();
}

int Peer_Stream_IO_T<Pipe_Stream>::half_close_and_detach(Pipe_Stream& stream)
{
    // What a pipe holds is not lost when its other side has input left that nobody reads.
    int handle = ACE_INVALID_HANDLE;
    if (stream.is_one_socket()) {
        ::shutdown(stream.get_handle(false), SHUT_WR);
        // The socket may belong to others: a copy is given away.
        handle = ::fcntl(stream.get_handle(true), F_DUPFD_CLOEXEC, 0);
    }
    stream.close();
    return handle;
}
