#include "support/pipe_stream.h"

#include "support/descriptor_wait.h"
#include "support/descriptor_write.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

namespace {

int close_handle(int handle, bool own)
{
    return own && handle != ACE_INVALID_HANDLE ? ::close(handle) : 0;
}

} // namespace

Pipe_Stream::Pipe_Stream(int in, bool own_in, int out, bool own_out)
    : in_(in), out_(out), own_in_(own_in), own_out_(own_out)
{
}

void Pipe_Stream::set_handle(int handle, bool is_read, bool own)
{
    int& side = is_read ? in_ : out_;
    bool& owned = is_read ? own_in_ : own_out_;
    const int other = is_read ? out_ : in_;
    if (side != handle && side != other) {
        close_handle(side, owned);
    }
    side = handle;
    owned = own;
}

void Pipe_Stream::set_handle(int handle)
{
    in_ = out_ = handle;
    own_in_ = own_out_ = false;
}

int Pipe_Stream::close()
{
    const int in = std::exchange(in_, ACE_INVALID_HANDLE);
    const int out = std::exchange(out_, ACE_INVALID_HANDLE);
    const bool own_in = std::exchange(own_in_, false);
    const bool own_out = std::exchange(own_out_, false);
    if (in == out) {
        return close_handle(in, own_in || own_out);
    }
    const int result = close_handle(out, own_out);
    return close_handle(in, own_in) == -1 ? -1 : result;
}

int Pipe_Stream::release_read_handle()
{
    own_in_ = false;
    return std::exchange(in_, ACE_INVALID_HANDLE);
}

ssize_t Pipe_Stream::recv(void* buffer, size_t length, const ACE_Time_Value* timeout) const
{
    const Deadline deadline = Deadline::after(timeout);
    for (;;) {
        // A read is only made when it cannot wait: the descriptor may be a blocking one.
        const int ready = wait_for_handle(in_, POLLIN, deadline);
        if (ready == 0) {
            errno = ETIME;
        }
        if (ready <= 0) {
            return -1;
        }
        const ssize_t received = ::read(in_, buffer, length);
        if (received >= 0 || (errno != EINTR && errno != EAGAIN)) {
            return received;
        }
    }
}

ssize_t Pipe_Stream::send(const void* data, size_t length) const
{
    return write_all(out_, data, length);
}

ssize_t Pipe_Stream::sendv(const iovec* iov, int count) const
{
    return writev_all(out_, iov, count);
}

ssize_t Pipe_Stream::sendv_now(const iovec* iov, int count) const
{
    return writev_now(out_, iov, count);
}

int Pipe_Stream::get_local_addr(ACE_Addr&) const
{
    errno = ENOTSOCK;
    return -1;
}

int Pipe_Stream::get_remote_addr(ACE_Addr&) const
{
    return 0;
}
