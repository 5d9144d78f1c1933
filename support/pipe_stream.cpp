#include "support/pipe_stream.h"

#include "support/descriptor_wait.h"
#include "support/descriptor_write.h"
#include "support/socket_helpers.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
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
    : in_(in), out_(out), own_in_(own_in), own_out_(own_out), in_kind_(kind_of(in)),
      out_kind_(kind_of(out))
{
}

Pipe_Stream::~Pipe_Stream()
{
    close_handle(interrupt_, true);
}

Pipe_Stream::Kind Pipe_Stream::kind_of(int handle)
{
    struct stat info {};
    if (::fstat(handle, &info) == -1) {
        return Kind::PIPE; // reading or writing will tell what is wrong with it
    }
    if (S_ISSOCK(info.st_mode)) {
        return Kind::SOCKET;
    }
    return S_ISREG(info.st_mode) ? Kind::REGULAR_FILE : Kind::PIPE;
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
    (is_read ? in_kind_ : out_kind_) = kind_of(handle);
}

void Pipe_Stream::set_handle(int handle)
{
    in_ = out_ = handle;
    own_in_ = own_out_ = false;
    in_kind_ = out_kind_ = kind_of(handle);
}

int Pipe_Stream::close()
{
    const int in = std::exchange(in_, ACE_INVALID_HANDLE);
    const int out = std::exchange(out_, ACE_INVALID_HANDLE);
    const bool own_in = std::exchange(own_in_, false);
    const bool own_out = std::exchange(own_out_, false);
    close_handle(std::exchange(interrupt_, ACE_INVALID_HANDLE), true);
    if (in == out) {
        return close_handle(in, own_in || own_out);
    }
    const int result = close_handle(out, own_out);
    return close_handle(in, own_in) == -1 ? -1 : result;
}

bool Pipe_Stream::is_one_socket() const
{
    struct stat in {};
    struct stat out {};
    return in_kind_ == Kind::SOCKET && out_kind_ == Kind::SOCKET && ::fstat(in_, &in) == 0 &&
           ::fstat(out_, &out) == 0 && in.st_dev == out.st_dev && in.st_ino == out.st_ino;
}

int Pipe_Stream::make_interruptible()
{
    if (interrupt_ == ACE_INVALID_HANDLE) {
        interrupt_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    }
    return interrupt_ == ACE_INVALID_HANDLE ? -1 : 0;
}

void Pipe_Stream::interrupt()
{
    if (interrupt_ != ACE_INVALID_HANDLE) {
        ::eventfd_write(interrupt_, 1);
    }
    if (out_kind_ == Kind::SOCKET && out_ != ACE_INVALID_HANDLE) {
        ::shutdown(out_, SHUT_RDWR); // a send on a socket waits for nothing else
    }
}

ssize_t Pipe_Stream::recv(void* buffer, size_t length, const ACE_Time_Value* timeout) const
{
    const Deadline deadline = Deadline::after(timeout);
    for (;;) {
        // A read is only made when it cannot wait: the descriptor may be a blocking one.
        constexpr bool RESTART = true;
        const int ready = wait_for_handle(in_, POLLIN, deadline, RESTART, interrupt_);
        if (ready == 0) {
            errno = ETIME;
        }
        if (ready <= 0) {
            return ready == -1 && errno == ECANCELED ? 0 : -1;
        }
        const ssize_t received = in_kind_ == Kind::SOCKET
                                     ? ::recv(in_, buffer, length, MSG_DONTWAIT)
                                     : ::read(in_, buffer, length);
        if (received >= 0 || (errno != EINTR && errno != EAGAIN)) {
            return received;
        }
    }
}

ssize_t Pipe_Stream::send(const void* data, size_t length) const
{
    const iovec entry{const_cast<void*>(data), length};
    return this->sendv(&entry, 1);
}

ssize_t Pipe_Stream::sendv(const iovec* iov, int count) const
{
    switch (out_kind_) {
    case Kind::SOCKET:
        return ace_sendv(out_, iov, count);
    case Kind::REGULAR_FILE:
        return writev_file(out_, iov, count);
    case Kind::PIPE:
        break;
    }
    return writev_all(out_, iov, count, interrupt_);
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
