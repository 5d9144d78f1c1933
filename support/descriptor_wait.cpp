#include "support/descriptor_wait.h"

#include "support/socket_helpers.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <algorithm>
#include <cerrno>
#include <ctime>

namespace {

constexpr int64_t NS_PER_MS = 1'000'000;
constexpr int64_t NS_PER_US = 1'000;
constexpr int64_t NS_PER_S = 1'000'000'000;

int64_t now_ns()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * NS_PER_S + now.tv_nsec;
}

/// A limit of centuries is none: the sum must not overflow.
constexpr int64_t LONGEST_S = 1'000'000'000;

} // namespace

Deadline Deadline::after_ms(int64_t milliseconds)
{
    Deadline deadline;
    if (milliseconds < LONGEST_S * 1000) {
        deadline.at_ns_ = now_ns() + std::max<int64_t>(milliseconds, 0) * NS_PER_MS;
    }
    return deadline;
}

Deadline Deadline::after(const ACE_Time_Value* limit)
{
    Deadline deadline;
    if (limit != nullptr && limit->sec() < LONGEST_S) {
        const int64_t length =
            static_cast<int64_t>(limit->sec()) * NS_PER_S + limit->usec() * NS_PER_US;
        deadline.at_ns_ = now_ns() + std::max<int64_t>(length, 0);
    }
    return deadline;
}

int Deadline::left_ms() const
{
    if (at_ns_ == INT64_MAX) {
        return -1;
    }
    const int64_t left = at_ns_ - now_ns();
    // Rounded up: rounding down would spin through the last millisecond.
    return left <= 0 ? 0
                     : static_cast<int>(std::min<int64_t>((left + NS_PER_MS - 1) / NS_PER_MS,
                                                          static_cast<int64_t>(INT_MAX)));
}

int wait_for_handle(int handle, short events, const Deadline& deadline, bool restart, int cancel)
{
    if (handle < 0) { // poll takes a negative number for an entry to skip
        errno = EBADF;
        return -1;
    }
    for (;;) {
        pollfd entries[2] = {{handle, events, 0}, {cancel, POLLIN, 0}};
        const int left = deadline.left_ms();
        const int ready = poll(entries, cancel < 0 ? 1 : 2, left);
        if (ready > 0) {
            if (entries[1].revents != 0) {
                errno = ECANCELED;
                return -1;
            }
            if ((entries[0].revents & POLLNVAL) != 0) {
                errno = EBADF;
                return -1;
            }
            return 1;
        }
        if (ready == 0) {
            if (left != INT_MAX) {
                return 0;
            }
        } else if (errno != EINTR || !restart) {
            return -1;
        }
    }
}

int wait_for_room(int handle, int limit_ms, int cancel)
{
    constexpr bool RESTART = true;
    const int ready =
        wait_for_handle(handle, POLLOUT, Deadline::after_ms(limit_ms), RESTART, cancel);
    if (ready == 0) {
        errno = ETIME;
    }
    return ready > 0 ? 0 : -1;
}

Deadline receive_deadline(int handle)
{
    timeval limit{};
    socklen_t length = sizeof limit;
    if (getsockopt(handle, SOL_SOCKET, SO_RCVTIMEO, &limit, &length) == -1 ||
        (limit.tv_sec == 0 && limit.tv_usec == 0)) {
        return Deadline();
    }
    const ACE_Time_Value value(limit);
    return Deadline::after(&value);
}

int wait_after_failed_send(int handle)
{
    if (errno == EINTR) {
        return 0;
    }
    if (errno != EAGAIN && errno != EWOULDBLOCK) {
        return -1;
    }
    return wait_for_room(handle, send_limit_ms(handle));
}
