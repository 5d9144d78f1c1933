#pragma once

#include <sys/types.h>
#include <sys/uio.h>

#include <cstddef>

/**
 * Writes to descriptors that may have to wait and are no sockets: pipes, terminals. Such a
 * descriptor is often shared with other processes, so its blocking mode is left as it is; no write
 * waits longer than DEFAULT_SEND_LIMIT seconds (errno ETIME), and none raises SIGPIPE.
 *
 * @param cancel  a descriptor that ends the wait with ECANCELED once it is readable; -1 = none.
 * @return all bytes, or -1 with errno.
 */
ssize_t write_all(int handle, const void* data, size_t length, int cancel = -1);

/// write_all for a vector of any number of entries, which is not changed.
ssize_t writev_all(int handle, const iovec* iov, int count, int cancel = -1);

/// The same for a regular file, which never waits: one call, as long as the file takes all.
ssize_t writev_file(int handle, const iovec* iov, int count);

/// Writes what there is room for now, in pieces that a descriptor which polls writable surely
/// takes.
/// @return bytes written, perhaps 0, or -1 with errno.
ssize_t writev_now(int handle, const iovec* iov, int count);

/// The bytes of a vector. @return 0, or -1 with EINVAL: a negative count or too many bytes.
int iovec_total(const iovec* iov, int count, size_t& total);
