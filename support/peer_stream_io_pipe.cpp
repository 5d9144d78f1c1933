#include "support/descriptor_wait.h"
#include "support/peer_stream_io.h"

#include <poll.h>

#include <cerrno>

int Peer_Stream_IO_T<Pipe_Stream>::prepare(Pipe_Stream&)
{
    return 0; // the descriptors' mode is shared with other processes
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

int Peer_Stream_IO_T<Pipe_Stream>::half_close_and_detach(Pipe_Stream& stream)
{
    // Only what the stream owns can be given away; one descriptor for both sides cannot be half
    // closed here, since it need not be a socket.
    const bool gives = stream.owns(true) && stream.get_handle(true) != stream.get_handle(false);
    const int handle = gives ? stream.release_read_handle() : ACE_INVALID_HANDLE;
    stream.close();
    return handle;
}
