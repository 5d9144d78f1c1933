#pragma once

#include "support/export.h"

#include <ace/Time_Value.h>

#include <climits>
#include <cstdint>

/**
 * A point on the monotonic clock, or none: how long a chain of waits may take in all. A wait that a
 * signal interrupts goes on with what is left.
 */
class HTTPD_SUPPORT_EXPORT Deadline {
public:
    /// Never passes.
    Deadline() = default;

    /// Passes `milliseconds` from now.
    static Deadline after_ms(int64_t milliseconds);

    /// Passes `limit` from now; never when `limit` is null.
    static Deadline after(const ACE_Time_Value* limit);

    /// What poll(2) takes: milliseconds left, rounded up; -1 = no limit.
    int left_ms() const;

private:
    int64_t at_ns_ = INT64_MAX; ///< INT64_MAX = never
};

/**
 * Waits until `handle` is ready for `events` (POLLIN, POLLOUT), or has failed or hung up: the next
 * operation on it tells. For descriptors of any number.
 *
 * @param restart  false: a signal ends the wait with EINTR.
 * @param cancel   a descriptor that ends the wait with ECANCELED once it is readable, also when
 *                 `handle` is ready; -1 = none.
 * @return 1 when ready, 0 when the deadline has passed, -1 with errno.
 */
int wait_for_handle(int handle, short events, const Deadline& deadline, bool restart = true,
                    int cancel = -1);

/// wait_for_handle for writing: 0, or -1 with errno; ETIME when the limit has passed.
int wait_for_room(int handle, int limit_ms, int cancel = -1);

/// After a failed send on a socket, with its errno: 0 when it may be tried again, if there was no
/// room as soon as there is, within the socket's own limit; else -1 with errno.
int wait_after_failed_send(int handle);

/// The end of a socket's own limit for one receive (SO_RCVTIMEO), counted from now; never if none.
Deadline receive_deadline(int handle);
