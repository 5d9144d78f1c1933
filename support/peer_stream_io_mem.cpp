#include "support/descriptor_wait.h"
#include "support/peer_stream_io.h"
#include "support/socket_helpers.h"

#include <sys/socket.h>

int Peer_Stream_IO_T<MEM_Stream>::prepare(MEM_Stream& stream)
{
    return set_fd_nonblock(stream.get_handle(), true);
}

ssize_t Peer_Stream_IO_T<MEM_Stream>::receive(MEM_Stream& stream, void* buffer, size_t length,
                                              Receive_Mode mode, const ACE_Time_Value* limit)
{
    return mode == Receive_Mode::NEVER_WAIT ? stream.recv_now(buffer, length)
                                            : stream.recv(buffer, length, limit);
}

bool Peer_Stream_IO_T<MEM_Stream>::pending(MEM_Stream& stream)
{
    return stream.pending();
}

ssize_t Peer_Stream_IO_T<MEM_Stream>::send(MEM_Stream& stream, const void* data, size_t length)
{
    return stream.send(data, length);
}

ssize_t Peer_Stream_IO_T<MEM_Stream>::sendv(MEM_Stream& stream, const iovec* iov, int count)
{
    return stream.sendv(iov, count);
}

ssize_t Peer_Stream_IO_T<MEM_Stream>::sendv_now(MEM_Stream& stream, const iovec* iov, int count)
{
    return stream.sendv_now(iov, count);
}

void Peer_Stream_IO_T<MEM_Stream>::close(MEM_Stream& stream)
{
    stream.close();
}

void Peer_Stream_IO_T<MEM_Stream>::interrupt(MEM_Stream& stream)
{
    ::shutdown(stream.get_handle(), SHUT_RDWR);
}

int Peer_Stream_IO_T<MEM_Stream>::half_close_and_detach(MEM_Stream& stream)
{
    const int handle = stream.get_handle();
    if (handle != ACE_INVALID_HANDLE) {
        stream.half_close();
        shutdown(handle, SHUT_WR);
        stream.set_handle(ACE_INVALID_HANDLE);
    }
    return handle;
}
