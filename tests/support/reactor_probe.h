#pragma once

#include "support/epoll_reactor.h"

#include <ace/Event_Handler.h>
#include <ace/Reactor.h>
#include <ace/Time_Value.h>

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <utility>
#include <vector>

/// What a Reactor_Probe has seen; it outlives the probe.
struct Reactor_Record {
    struct Close {
        ACE_HANDLE handle;
        ACE_Reactor_Mask mask;
        int left; ///< what GET_MASK answered inside handle_close
    };

    std::atomic<bool> alive{true};
    std::atomic<int> inputs{0};
    std::atomic<int> outputs{0};
    std::atomic<int> exceptions{0};
    std::atomic<int> timeouts{0};
    std::vector<ACE_HANDLE> handles; ///< the handles of the upcalls
    std::vector<Close> closes;

    /// Waits for upcalls in another thread. They may not have returned yet.
    void wait_for_inputs(int count) const
    {
        for (int seen = inputs; seen < count; seen = inputs) {
            inputs.wait(seen);
        }
    }
};

/**
 * A reference-counted handler that records what a reactor does to it, and whose upcalls do what the
 * test says. It counts its references itself: ACE's counter is invisible to a thread sanitizer.
 */
class Reactor_Probe : public ACE_Event_Handler {
public:
    using Upcall = std::function<int(ACE_HANDLE)>;

    Reactor_Probe(ACE_HANDLE handle, Reactor_Record& record) : handle_(handle), record_(record)
    {
        reference_counting_policy().value(Reference_Counting_Policy::ENABLED);
    }
    ~Reactor_Probe() override
    {
        if (on_destruction) {
            on_destruction();
        }
        record_.alive = false;
    }

    ACE_HANDLE get_handle() const override { return handle_; }
    void set_handle(ACE_HANDLE handle) override { handle_ = handle; }
    Reference_Count add_reference() override { return references_.fetch_add(1) + 1; }
    Reference_Count remove_reference() override
    {
        const Reference_Count left = references_.fetch_sub(1) - 1;
        if (left == 0) {
            delete this;
        }
        return left;
    }
    Reference_Count references() const { return references_; }

    int handle_input(ACE_HANDLE handle) override
    {
        ++record_.inputs;
        record_.inputs.notify_all();
        return this->upcall(on_input, handle);
    }
    int handle_output(ACE_HANDLE handle) override
    {
        ++record_.outputs;
        return this->upcall(on_output, handle);
    }
    int handle_exception(ACE_HANDLE handle) override
    {
        ++record_.exceptions;
        return this->upcall(on_exception, handle);
    }
    int handle_timeout(const ACE_Time_Value& now, const void* act) override
    {
        ++record_.timeouts;
        return on_timeout ? on_timeout(now, act) : 0;
    }
    int handle_close(ACE_HANDLE handle, ACE_Reactor_Mask mask) override
    {
        const int left =
            reactor() == nullptr
                ? -2
                : reactor()->mask_ops(this, ACE_Event_Handler::NULL_MASK, ACE_Reactor::GET_MASK);
        record_.closes.push_back({handle, mask, left});
        if (on_close) {
            on_close();
        }
        return 0;
    }

    Upcall on_input;
    Upcall on_output;
    Upcall on_exception;
    std::function<int(const ACE_Time_Value&, const void*)> on_timeout;
    std::function<void()> on_close;
    std::function<void()> on_destruction;

private:
    int upcall(const Upcall& what, ACE_HANDLE handle)
    {
        record_.handles.push_back(handle);
        return what ? what(handle) : 0;
    }

    ACE_HANDLE handle_;
    Reactor_Record& record_;
    std::atomic<Reference_Count> references_{1};
};

/// Two connected sockets; the probe's end is `here`.
class Reactor_Pair {
public:
    Reactor_Pair()
    {
        int ends[2] = {-1, -1};
        if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends) == 0) {
            here = ends[0];
            there = ends[1];
        }
    }
    ~Reactor_Pair()
    {
        this->close_here();
        this->close_there();
    }
    Reactor_Pair(const Reactor_Pair&) = delete;
    Reactor_Pair& operator=(const Reactor_Pair&) = delete;

    /// Makes `here` readable.
    void send() const { [[maybe_unused]] const ssize_t sent = ::send(there, "x", 1, MSG_NOSIGNAL); }
    /// Takes what has arrived at `here`; -1 at the end, otherwise 0.
    int drain() const
    {
        char bytes[256];
        ssize_t got = 0;
        while ((got = ::recv(here, bytes, sizeof bytes, 0)) > 0) {
        }
        return got == 0 ? -1 : 0;
    }
    /// Makes `here` not writable.
    void fill() const
    {
        const char bytes[4096] = {};
        while (::send(here, bytes, sizeof bytes, MSG_NOSIGNAL) > 0) {
        }
    }
    void close_here()
    {
        if (here != -1) {
            ::close(std::exchange(here, -1));
        }
    }
    void close_there()
    {
        if (there != -1) {
            ::close(std::exchange(there, -1));
        }
    }

    int here = -1;
    int there = -1;
};

/// A probe with its record and the creation's reference, which takes the probe out of its reactor
/// at the end; the reactor must outlive it.
class Held_Probe {
public:
    explicit Held_Probe(ACE_HANDLE handle) : probe(new Reactor_Probe(handle, record)), hold_(probe)
    {
    }
    ~Held_Probe()
    {
        if (record.alive && probe->reactor() != nullptr) {
            probe->reactor()->remove_handler(probe, ACE_Event_Handler::ALL_EVENTS_MASK |
                                                        ACE_Event_Handler::DONT_CALL);
            probe->reactor()->cancel_timer(probe);
            probe->reactor()->purge_pending_notifications(probe);
        }
    }
    Held_Probe(const Held_Probe&) = delete;
    Held_Probe& operator=(const Held_Probe&) = delete;

    /// Drops the creation's reference.
    void release() { hold_.reset(); }

    Reactor_Record record;
    Reactor_Probe* probe;

private:
    ACE_Event_Handler_var hold_;
};

/// A held probe on a socket pair of its own.
class Pair_Probe {
public:
    Pair_Probe() : held_(pair.here), record(held_.record), probe(held_.probe) {}

    void release() { held_.release(); }

    Reactor_Pair pair;

private:
    Held_Probe held_;

public:
    Reactor_Record& record;
    Reactor_Probe* probe;
};

/// A reactor that the test runs itself.
struct Reactor_Loop {
    /// One round without waiting: the number of upcalls.
    int round()
    {
        ACE_Time_Value no_wait;
        return reactor.handle_events(&no_wait);
    }
    int mask(ACE_Event_Handler* handler)
    {
        return reactor.mask_ops(handler, ACE_Event_Handler::NULL_MASK, ACE_Reactor::GET_MASK);
    }
    int mask(ACE_HANDLE handle)
    {
        return implementation.mask_ops(handle, ACE_Event_Handler::NULL_MASK, ACE_Reactor::GET_MASK);
    }

    Epoll_Reactor implementation;
    ACE_Reactor reactor{&implementation};
};
