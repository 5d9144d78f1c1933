// The C library's functions that the fault injector stands in front of.

#include "tests/preload/fault_injector.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/select.h>
#include <sys/sendfile.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/timerfd.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>

namespace {

std::size_t total(const iovec* entries, std::size_t count)
{
    std::size_t sum = 0;
    for (std::size_t i = 0; i < count; ++i) {
        sum += entries[i].iov_len;
    }
    return sum;
}

/// The beginning of a vector: a call that is cut short moves these entries.
struct Short_Vector {
    enum : std::size_t { MOST = 1024 };

    Short_Vector(const iovec* entries, std::size_t count, std::size_t length)
    {
        for (std::size_t i = 0; i < count && i < MOST && length > 0; ++i) {
            entries_[i] = entries[i];
            entries_[i].iov_len = length < entries[i].iov_len ? length : entries[i].iov_len;
            length -= entries_[i].iov_len;
            ++count_;
        }
    }

    iovec entries_[MOST];
    std::size_t count_ = 0;
};

mode_t mode_argument(int flags, va_list& arguments)
{
    return (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(arguments, mode_t) : 0;
}

template <typename Next>
ssize_t transfer_vector(Fault_Call call, int handle, const iovec* entries, int count, Next next)
{
    const std::size_t length = total(entries, static_cast<std::size_t>(count));
    const Fault_Transfer fault = fault_transfer(call, handle, length);
    if (fault.fails) {
        return -1;
    }
    if (fault.length == length) {
        return next(handle, entries, count);
    }
    const Short_Vector part(entries, static_cast<std::size_t>(count), fault.length);
    return next(handle, part.entries_, static_cast<int>(part.count_));
}

} // namespace

// Seen from outside whatever the compiler's default is; else they would replace nothing.
#pragma GCC visibility push(default)

extern "C" {

// ---------------------------------------------------------------- moving bytes

ssize_t read(int handle, void* buffer, size_t length)
{
    FAULT_NEXT(read);
    const Fault_Transfer fault = fault_transfer(Fault_Call::READ, handle, length);
    return fault.fails ? -1 : next(handle, buffer, fault.length);
}

ssize_t readv(int handle, const iovec* entries, int count)
{
    FAULT_NEXT(readv);
    return transfer_vector(Fault_Call::READ, handle, entries, count, next);
}

ssize_t pread(int handle, void* buffer, size_t length, off_t offset)
{
    FAULT_NEXT(pread);
    const Fault_Transfer fault = fault_transfer(Fault_Call::READ, handle, length);
    return fault.fails ? -1 : next(handle, buffer, fault.length, offset);
}

ssize_t write(int handle, const void* data, size_t length)
{
    FAULT_NEXT(write);
    const Fault_Transfer fault = fault_transfer(Fault_Call::WRITE, handle, length);
    return fault.fails ? -1 : next(handle, data, fault.length);
}

ssize_t writev(int handle, const iovec* entries, int count)
{
    FAULT_NEXT(writev);
    return transfer_vector(Fault_Call::WRITE, handle, entries, count, next);
}

ssize_t pwrite(int handle, const void* data, size_t length, off_t offset)
{
    FAULT_NEXT(pwrite);
    const Fault_Transfer fault = fault_transfer(Fault_Call::WRITE, handle, length);
    return fault.fails ? -1 : next(handle, data, fault.length, offset);
}

ssize_t recv(int handle, void* buffer, size_t length, int flags)
{
    FAULT_NEXT(recv);
    const Fault_Transfer fault = fault_transfer(Fault_Call::RECEIVE, handle, length);
    return fault.fails ? -1 : next(handle, buffer, fault.length, flags);
}

ssize_t recvfrom(int handle, void* buffer, size_t length, int flags, sockaddr* from,
                 socklen_t* from_length)
{
    FAULT_NEXT(recvfrom);
    const Fault_Transfer fault = fault_transfer(Fault_Call::RECEIVE, handle, length);
    return fault.fails ? -1 : next(handle, buffer, fault.length, flags, from, from_length);
}

ssize_t send(int handle, const void* data, size_t length, int flags)
{
    FAULT_NEXT(send);
    const Fault_Transfer fault = fault_transfer(Fault_Call::SEND, handle, length);
    return fault.fails ? -1 : next(handle, data, fault.length, flags);
}

ssize_t sendto(int handle, const void* data, size_t length, int flags, const sockaddr* to,
               socklen_t to_length)
{
    FAULT_NEXT(sendto);
    const Fault_Transfer fault = fault_transfer(Fault_Call::SEND, handle, length);
    return fault.fails ? -1 : next(handle, data, fault.length, flags, to, to_length);
}

ssize_t sendmsg(int handle, const msghdr* message, int flags)
{
    FAULT_NEXT(sendmsg);
    const std::size_t length = total(message->msg_iov, message->msg_iovlen);
    const Fault_Transfer fault = fault_transfer(Fault_Call::SEND, handle, length);
    if (fault.fails) {
        return -1;
    }
    if (fault.length == length) {
        return next(handle, message, flags);
    }
    Short_Vector part(message->msg_iov, message->msg_iovlen, fault.length);
    msghdr shorter = *message;
    shorter.msg_iov = part.entries_;
    shorter.msg_iovlen = part.count_;
    return next(handle, &shorter, flags);
}

ssize_t sendfile(int out, int in, off_t* offset, size_t count) noexcept
{
    FAULT_NEXT(sendfile);
    const Fault_Transfer fault = fault_transfer(Fault_Call::SENDFILE, in, count);
    return fault.fails ? -1 : next(out, in, offset, fault.length);
}

// ---------------------------------------------------------------- sockets

int accept(int handle, sockaddr* address, socklen_t* length)
{
    FAULT_NEXT(accept);
    return fault_fails(Fault_Call::ACCEPT, handle) ? -1 : next(handle, address, length);
}

int accept4(int handle, sockaddr* address, socklen_t* length, int flags)
{
    FAULT_NEXT(accept4);
    return fault_fails(Fault_Call::ACCEPT, handle) ? -1 : next(handle, address, length, flags);
}

int socket(int domain, int type, int protocol) noexcept
{
    FAULT_NEXT(socket);
    return fault_fails(Fault_Call::SOCKET) ? -1 : next(domain, type, protocol);
}

int bind(int handle, const sockaddr* address, socklen_t length) noexcept
{
    FAULT_NEXT(bind);
    return fault_fails(Fault_Call::BIND, handle) ? -1 : next(handle, address, length);
}

int listen(int handle, int backlog) noexcept
{
    FAULT_NEXT(listen);
    return fault_fails(Fault_Call::LISTEN, handle) ? -1 : next(handle, backlog);
}

int setsockopt(int handle, int level, int name, const void* value, socklen_t length) noexcept
{
    FAULT_NEXT(setsockopt);
    return fault_fails(Fault_Call::SET_OPTION, handle) ? -1
                                                       : next(handle, level, name, value, length);
}

int getsockopt(int handle, int level, int name, void* value, socklen_t* length) noexcept
{
    FAULT_NEXT(getsockopt);
    return fault_fails(Fault_Call::GET_OPTION, handle) ? -1
                                                       : next(handle, level, name, value, length);
}

int getsockname(int handle, sockaddr* address, socklen_t* length) noexcept
{
    FAULT_NEXT(getsockname);
    return fault_fails(Fault_Call::NAME, handle) ? -1 : next(handle, address, length);
}

int getpeername(int handle, sockaddr* address, socklen_t* length) noexcept
{
    FAULT_NEXT(getpeername);
    return fault_fails(Fault_Call::NAME, handle) ? -1 : next(handle, address, length);
}

int shutdown(int handle, int how) noexcept
{
    FAULT_NEXT(shutdown);
    return fault_fails(Fault_Call::SHUTDOWN, handle) ? -1 : next(handle, how);
}

// ---------------------------------------------------------------- files

int open(const char* path, int flags, ...)
{
    FAULT_NEXT(open);
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = mode_argument(flags, arguments);
    va_end(arguments);
    return fault_fails(Fault_Call::OPEN, -1, path) ? -1 : next(path, flags, mode);
}

int openat(int directory, const char* path, int flags, ...)
{
    FAULT_NEXT(openat);
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = mode_argument(flags, arguments);
    va_end(arguments);
    return fault_fails(Fault_Call::OPEN, -1, path) ? -1 : next(directory, path, flags, mode);
}

FILE* fopen(const char* path, const char* mode)
{
    FAULT_NEXT(fopen);
    return fault_fails(Fault_Call::OPEN, -1, path) ? nullptr : next(path, mode);
}

FILE* fopen64(const char* path, const char* mode)
{
    FAULT_NEXT(fopen64);
    return fault_fails(Fault_Call::OPEN, -1, path) ? nullptr : next(path, mode);
}

DIR* opendir(const char* path)
{
    FAULT_NEXT(opendir);
    return fault_fails(Fault_Call::OPEN, -1, path) ? nullptr : next(path);
}

int stat(const char* path, struct stat* status) noexcept
{
    FAULT_NEXT(stat);
    return fault_fails(Fault_Call::STAT, -1, path) ? -1 : next(path, status);
}

int lstat(const char* path, struct stat* status) noexcept
{
    FAULT_NEXT(lstat);
    return fault_fails(Fault_Call::STAT, -1, path) ? -1 : next(path, status);
}

int fstat(int handle, struct stat* status) noexcept
{
    FAULT_NEXT(fstat);
    return fault_fails(Fault_Call::STAT, handle) ? -1 : next(handle, status);
}

int rename(const char* from, const char* to) noexcept
{
    FAULT_NEXT(rename);
    return fault_fails(Fault_Call::RENAME, -1, from) ? -1 : next(from, to);
}

int unlink(const char* path) noexcept
{
    FAULT_NEXT(unlink);
    return fault_fails(Fault_Call::UNLINK, -1, path) ? -1 : next(path);
}

int ftruncate(int handle, off_t length) noexcept
{
    FAULT_NEXT(ftruncate);
    return fault_fails(Fault_Call::TRUNCATE, handle) ? -1 : next(handle, length);
}

int fsync(int handle)
{
    FAULT_NEXT(fsync);
    return fault_fails(Fault_Call::SYNC, handle) ? -1 : next(handle);
}

int fcntl(int handle, int command, ...)
{
    FAULT_NEXT(fcntl);
    va_list arguments;
    va_start(arguments, command);
    void* const argument = va_arg(arguments, void*); // none, an int or a pointer
    va_end(arguments);
    return fault_fails(Fault_Call::CONTROL, handle) ? -1 : next(handle, command, argument);
}

// ---------------------------------------------------------------- events, threads

int epoll_create1(int flags) noexcept
{
    FAULT_NEXT(epoll_create1);
    return fault_fails(Fault_Call::EPOLL_CREATE) ? -1 : next(flags);
}

int epoll_ctl(int epoll, int operation, int handle, epoll_event* event) noexcept
{
    FAULT_NEXT(epoll_ctl);
    // What is taken away needs no memory, and so never fails for lack of it.
    const bool fails = operation != EPOLL_CTL_DEL && fault_fails(Fault_Call::EPOLL_CONTROL, handle);
    return fails ? -1 : next(epoll, operation, handle, event);
}

int epoll_wait(int epoll, epoll_event* events, int most, int milliseconds)
{
    FAULT_NEXT(epoll_wait);
    return fault_fails(Fault_Call::EPOLL_WAIT) ? -1 : next(epoll, events, most, milliseconds);
}

int eventfd(unsigned count, int flags) noexcept
{
    FAULT_NEXT(eventfd);
    return fault_fails(Fault_Call::EVENT) ? -1 : next(count, flags);
}

int timerfd_create(clockid_t clock, int flags) noexcept
{
    FAULT_NEXT(timerfd_create);
    return fault_fails(Fault_Call::TIMER) ? -1 : next(clock, flags);
}

int timerfd_settime(int handle, int flags, const itimerspec* value, itimerspec* old) noexcept
{
    FAULT_NEXT(timerfd_settime);
    return fault_fails(Fault_Call::TIMER_SET) ? -1 : next(handle, flags, value, old);
}

int signalfd(int handle, const sigset_t* mask, int flags) noexcept
{
    FAULT_NEXT(signalfd);
    return fault_fails(Fault_Call::SIGNAL) ? -1 : next(handle, mask, flags);
}

int poll(pollfd* handles, nfds_t count, int milliseconds)
{
    FAULT_NEXT(poll);
    return fault_fails(Fault_Call::POLL) ? -1 : next(handles, count, milliseconds);
}

int select(int count, fd_set* input, fd_set* output, fd_set* other, timeval* limit)
{
    FAULT_NEXT(select);
    return fault_fails(Fault_Call::POLL) ? -1 : next(count, input, output, other, limit);
}

int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*),
                   void* argument) noexcept
{
    FAULT_NEXT(pthread_create);
    const int before = errno;
    if (fault_fails(Fault_Call::THREAD)) {
        const int error = errno; // this function's way to tell: errno stays as it was
        errno = before;
        return error;
    }
    return next(thread, attributes, body, argument);
}

} // extern "C"

#pragma GCC visibility pop
