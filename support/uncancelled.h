#pragma once

#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <unistd.h>

#include <cstddef>

/**
 * The system calls of every request, as the C library has them but for one thing: they are no
 * points where a thread can be cancelled. In a process with several threads each such point costs
 * two atomic operations, a fiftieth of a small request for the three of them; nobody cancels our
 * threads. Results and errno are those of the library's functions.
 *
 * A sanitizer sees what the library's functions do to memory and which thread wakes which, and
 * nothing of a bare system call: it gets the library's. HTTPD_SEES_CALLS and HTTPD_SEES_SENDS are
 * the build's word for that.
 */

inline ssize_t uncancelled_recv(int handle, void* buffer, size_t length, int flags)
{
#if !defined(HTTPD_SEES_CALLS) && defined(SYS_recvfrom)
    return syscall(SYS_recvfrom, handle, buffer, length, flags, nullptr, nullptr);
#else
    return recv(handle, buffer, length, flags);
#endif
}

inline ssize_t uncancelled_send(int handle, const void* data, size_t length, int flags)
{
#if !defined(HTTPD_SEES_SENDS) && defined(SYS_sendto)
    return syscall(SYS_sendto, handle, data, length, flags, nullptr, 0);
#else
    return send(handle, data, length, flags);
#endif
}

inline int uncancelled_epoll_wait(int handle, epoll_event* events, int most, int milliseconds)
{
#if !defined(HTTPD_SEES_CALLS) && defined(SYS_epoll_wait)
    return static_cast<int>(syscall(SYS_epoll_wait, handle, events, most, milliseconds));
#else
    return epoll_wait(handle, events, most, milliseconds);
#endif
}
