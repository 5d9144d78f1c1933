#include "support/mem_stream.h"

#include "support/descriptor_wait.h"
#include "support/mem_channel.h"

#include <poll.h>
#include <sys/socket.h>

#include <unistd.h>

#include <cerrno>
#include <new>

MEM_Stream::MEM_Stream(ACE_SSL_Context*) {}

MEM_Stream::~MEM_Stream() = default;

int MEM_Stream::open_pool(const char* path)
{
    try {
        auto channel = std::make_unique<Mem_Channel>();
        if (channel->open(get_handle(), path) == -1) {
            return -1;
        }
        channel_ = std::move(channel);
        return 0;
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
        return -1;
    }
}

void MEM_Stream::half_close()
{
    if (channel_ != nullptr) {
        channel_->send_end();
        channel_.reset();
    }
}

int MEM_Stream::close()
{
    half_close();
    // Not by ACE, where ThreadSanitizer would not see that the number is free.
    const int handle = get_handle();
    set_handle(ACE_INVALID_HANDLE);
    return handle != ACE_INVALID_HANDLE ? ::close(handle) : 0;
}

ssize_t MEM_Stream::recv_now(void* buffer, size_t length) const
{
    if (channel_ == nullptr) {
        errno = ENOTCONN;
        return -1;
    }
    return channel_->receive(buffer, length);
}

ssize_t MEM_Stream::recv(void* buffer, size_t length, const ACE_Time_Value* timeout) const
{
    const Deadline deadline = Deadline::after(timeout);
    for (;;) {
        const ssize_t received = recv_now(buffer, length);
        if (received >= 0 || errno != EAGAIN) {
            return received;
        }
        const int ready = wait_for_handle(get_handle(), POLLIN, deadline);
        if (ready == 0) {
            errno = ETIME;
        }
        if (ready <= 0) {
            return -1;
        }
    }
}

bool MEM_Stream::pending() const
{
    return channel_ != nullptr && channel_->pending();
}

ssize_t MEM_Stream::send(const void* data, size_t length) const
{
    const iovec entry{const_cast<void*>(data), length}; // only read
    return sendv(&entry, 1);
}

ssize_t MEM_Stream::sendv(const iovec* iov, int count) const
{
    if (channel_ == nullptr) {
        errno = ENOTCONN;
        return -1;
    }
    return channel_->sendv(iov, count);
}

ssize_t MEM_Stream::sendv_now(const iovec* iov, int count) const
{
    if (channel_ == nullptr) {
        errno = ENOTCONN;
        return -1;
    }
    return channel_->sendv_now(iov, count);
}

int MEM_Stream::get_remote_addr(ACE_Addr& address) const
{
    if (address.get_type() == AF_INET || address.get_type() == AF_INET6) {
        return 0;
    }
    errno = EINVAL;
    return -1;
}
