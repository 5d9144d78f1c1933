#pragma once

#include <cstdint>
#include <sys/epoll.h>
#include <sys/socket.h>

/**
 * Level-triggered epoll with many events per wait: the least that a server with many connections
 * in one thread can do. Descriptors are its only names for connections.
 */
class Event_Loop {
public:
    /// @param listener  a listening socket that does not block; the loop does not close it
    explicit Event_Loop(int listener);

    void add(int fd) { control(EPOLL_CTL_ADD, fd, EPOLLIN); }

    /// Waits for `events` instead of what was waited for; fd must be known to the loop.
    void change(int fd, std::uint32_t events) { control(EPOLL_CTL_MOD, fd, events); }

    /// Accepts all that wait: calls accepted(fd) for each, fd does not block.
    template <class Accepted>
    void accept_all(Accepted accepted)
    {
        int fd = 0;
        while ((fd = accept_one()) != -1) {
            accepted(fd);
        }
    }

    /**
     * Runs for ever.
     *
     * @param accepted  called with each new descriptor; it calls add() where it wants events
     * @param ready     called with a descriptor and its events
     */
    template <class Accepted, class Ready>
    [[noreturn]] void run(Accepted accepted, Ready ready)
    {
        for (;;) {
            const int count = wait();
            for (int i = 0; i < count; ++i) {
                if (events_[i].data.fd == listener_) {
                    accept_all(accepted);
                } else {
                    ready(events_[i].data.fd, events_[i].events);
                }
            }
        }
    }

private:
    static constexpr int MAX_EVENTS = 512;

    void control(int operation, int fd, std::uint32_t events);
    int accept_one();
    int wait();

    int listener_;
    int epoll_;
    epoll_event events_[MAX_EVENTS];
};
