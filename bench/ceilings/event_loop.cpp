#include "bench/ceilings/event_loop.h"

#include "bench/common/fail.h"

#include <cerrno>

Event_Loop::Event_Loop(int listener) : listener_(listener), epoll_(epoll_create1(EPOLL_CLOEXEC))
{
    if (epoll_ == -1) {
        fail_errno("epoll_create1");
    }
    add(listener);
}

void Event_Loop::control(int operation, int fd, std::uint32_t events)
{
    epoll_event event = {};
    event.events = events;
    event.data.fd = fd;
    if (epoll_ctl(epoll_, operation, fd, &event) == -1) {
        fail_errno("epoll_ctl");
    }
}

int Event_Loop::accept_one()
{
    for (;;) {
        const int fd = accept4(listener_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd != -1 || errno == EAGAIN) {
            return fd;
        }
        if (errno != EINTR && errno != ECONNABORTED) {
            fail_errno("accept4");
        }
    }
}

int Event_Loop::wait()
{
    for (;;) {
        const int count = epoll_wait(epoll_, events_, MAX_EVENTS, -1);
        if (count != -1) {
            return count;
        }
        if (errno != EINTR) {
            fail_errno("epoll_wait");
        }
    }
}
