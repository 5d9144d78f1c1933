#pragma once

#include "support/export.h"

#include <sys/types.h>
#include <sys/uio.h>

#include <cstddef>

class ACE_SOCK;

/// Switches TCP_NODELAY. @return 0, or -1 with errno. A UNIX-domain socket has none and gives 0.
HTTPD_SUPPORT_EXPORT int set_sock_nodelay(const ACE_SOCK& socket, bool on);

/// Enables keep-alive probing after `seconds` of silence. @return 0, or -1 with errno.
HTTPD_SUPPORT_EXPORT int set_sock_keepalive(const ACE_SOCK& socket, int seconds);

/**
 * Limits one blocking send and one blocking receive (SO_SNDTIMEO, SO_RCVTIMEO).
 * @param send_seconds, receive_seconds  whole seconds; 0 or less leaves that limit as it is.
 * @return 0, or -1 with errno.
 */
HTTPD_SUPPORT_EXPORT int set_sock_timeout(const ACE_SOCK& socket, int send_seconds,
                                          int receive_seconds);

/// Sets FD_CLOEXEC. @return 0, or -1 with errno.
HTTPD_SUPPORT_EXPORT int enable_fd_cloexec(int handle);

/// Switches O_NONBLOCK; no system call beyond the look when it is already so. 0, or -1 with errno.
HTTPD_SUPPORT_EXPORT int set_fd_nonblock(int handle, bool on);

/**
 * Sends all `length` bytes on a socket or pipe, whatever its blocking mode; never raises SIGPIPE.
 * @return `length`, or -1 with errno; ETIME when nothing could be written for the socket's own
 *         SO_SNDTIMEO, or for DEFAULT_SEND_LIMIT seconds where it has none.
 */
HTTPD_SUPPORT_EXPORT ssize_t ace_send(int handle, const void* data, size_t length);

/// ace_send for a vector of any number of entries, which is not changed. @return the sum or -1.
HTTPD_SUPPORT_EXPORT ssize_t ace_sendv(int handle, const iovec* iov, int count);

/// ace_sendv for what more is to follow at once: the system may hold it back for that, so that both
/// leave together.
HTTPD_SUPPORT_EXPORT ssize_t ace_sendv_more(int handle, const iovec* iov, int count);

/**
 * Sends what the socket takes at once, with one system call and without SIGPIPE.
 * @param count  at most IOV_MAX
 * @return bytes taken, 0 when there is no room; -1 with errno.
 */
HTTPD_SUPPORT_EXPORT ssize_t ace_sendv_now(int handle, const iovec* iov, int count);

/// Seconds that ace_send waits without progress on a handle that has no limit of its own.
constexpr int DEFAULT_SEND_LIMIT = 30;

/// The send limit of `handle` in milliseconds: its SO_SNDTIMEO, else DEFAULT_SEND_LIMIT.
HTTPD_SUPPORT_EXPORT int send_limit_ms(int handle);

/**
 * Whether a send on the socket will find room: a third of a TCP socket's buffer is free, three
 * quarters of a UNIX-domain one's. True also when the socket has failed, which a send or a receive
 * tells then.
 */
HTTPD_SUPPORT_EXPORT bool socket_has_room(int handle);

/// Bytes that were sent and that the peer's side has not taken yet; 0 where that cannot be told.
HTTPD_SUPPORT_EXPORT int unsent_bytes(int handle);

/**
 * Sees to it that the socket takes `bytes` at once while its peer reads nothing, within the
 * system's limit (net.core.wmem_max). A buffer that grew by itself still does (before Linux 5.14 it
 * does not).
 */
HTTPD_SUPPORT_EXPORT void widen_send_buffer(int handle, int bytes);
