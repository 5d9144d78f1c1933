#pragma once

#include "httpd/pending_handshake_t.h"
#include "support/accept_handshake.h"
#include "support/addr_string.h"
#include "support/descriptor_wait.h"
#include "support/log.h"
#include "support/peer_acceptor_traits.h"

#include <ace/Reactor.h>

// ACE_Svc_Handler has its own operators new and delete for both ways to allocate, which match; g++
// takes them for mismatched where it inlines one of the pair alone.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
#endif
#include <ace/Acceptor.h>
#include <ace/Svc_Handler.h>
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic pop
#endif

#include <algorithm>
#include <cerrno>
#include <new>

/**
 * An ACE_Acceptor with a listen backlog, IPv6-only and socket-buffer settings for its listener, and
 * a timed, logged accept.
 *
 * It runs in the thread of the reactor that it is opened with. An accept that fails for lack of
 * descriptors or memory leaves its connection waiting, so that the listener would be ready again at
 * once and for ever: it is taken from the reactor for PAUSE_MS, after its error line. Deleting the
 * acceptor takes it from its reactor and closes the listener.
 *
 * A handshake of several messages goes on beside others: while it waits for its client it stands in
 * the reactor, and the time limit runs. Only when it is done the connection is opened. Where the
 * reactor cannot take it (one of select(2) and a high descriptor) it is waited for.
 */
template <typename SVC_HANDLER, typename PEER_ACCEPTOR>
class ACE_Acceptor_Ex : public ACE_Acceptor<SVC_HANDLER, PEER_ACCEPTOR> {
public:
    using base_type = ACE_Acceptor<SVC_HANDLER, PEER_ACCEPTOR>;
    using addr_type = typename base_type::addr_type;
    using traits_type = ACE_Peer_Acceptor_Traits<typename SVC_HANDLER::stream_type>;
    using handshake_type = ACE_Accept_Handshake<typename SVC_HANDLER::stream_type>;
    using pending_type = Pending_Handshake_T<ACE_Acceptor_Ex, SVC_HANDLER>;

    enum { PAUSE_MS = 100, MOST_AT_ONCE = 64 };

    /**
     * @param timeout        seconds for one accept, its handshake included; negative: no limit.
     * @param backlog        connections that may wait to be accepted.
     * @param ipv6_only      listen on IPv6 only.
     * @param recv_buf_size  bytes, 0 = the system's default; so is `send_buf_size`.
     */
    ACE_Acceptor_Ex(int timeout, int backlog, bool ipv6_only, int recv_buf_size, int send_buf_size)
        : base_type(static_cast<ACE_Reactor*>(nullptr), 0), timeout_(timeout), backlog_(backlog),
          ipv6_only_(ipv6_only), recv_buf_size_(recv_buf_size), send_buf_size_(send_buf_size)
    {
    }

    ~ACE_Acceptor_Ex() override { this->close_listener(); }

    ACE_Acceptor_Ex(const ACE_Acceptor_Ex&) = delete;
    ACE_Acceptor_Ex& operator=(const ACE_Acceptor_Ex&) = delete;

    /**
     * Listens on `address` and registers with `reactor`.
     *
     * @param flags, use_select  as for ACE_Acceptor.
     * @param reuse_addr         not 0: SO_REUSEADDR.
     * @return 0, or -1 with errno (EINVAL without a reactor) and nothing open. Does not log.
     */
    int open(const addr_type& address, ACE_Reactor* reactor, int flags, int use_select,
             int reuse_addr) override
    {
        this->flags_ = flags;
        this->use_select_ = use_select;
        this->reuse_addr_ = reuse_addr;
        this->peer_acceptor_addr_ = address;
        if (reactor == nullptr) {
            errno = EINVAL;
            return -1;
        }
        if (traits_type::open(this->peer_acceptor_, address, reuse_addr, backlog_,
                              ipv6_only_ ? 1 : 0, recv_buf_size_, send_buf_size_) == -1) {
            return -1;
        }
        traits_type::remember(this->peer_acceptor_, leftover_);
        this->peer_acceptor_.enable(ACE_NONBLOCK);
        const int result = reactor->register_handler(this, ACE_Event_Handler::ACCEPT_MASK);
        if (result == -1) {
            const int error = errno;
            traits_type::forget(leftover_);
            this->peer_acceptor_.close();
            errno = error;
            return -1;
        }
        this->reactor(reactor);
        return result;
    }

    /// Accepts the connections that wait, up to MOST_AT_ONCE of them. Called by the reactor.
    int handle_input(ACE_HANDLE listener) override
    {
        // One at a time would wake a loop for each, and ask the kernel in between what is known.
        int left = std::min<int>(traits_type::waiting(listener), MOST_AT_ONCE);
        int result = 0;
        do {
            result = base_type::handle_input(listener);
        } while (result == 0 && --left > 0 && pause_timer_id_ == -1);
        return result;
    }

    /// The pause is over: listens on. Called by the reactor.
    int handle_timeout(const ACE_Time_Value&, const void*) override
    {
        pause_timer_id_ = -1;
        if (this->reactor()->register_handler(this, ACE_Event_Handler::ACCEPT_MASK) == -1) {
            this->schedule_resume(); // memory is still short
        }
        return 0;
    }

    /// Keeps a failing accept from being repeated at once. Called right after it, with its errno.
    int handle_accept_error() override
    {
        switch (errno) {
        case EMFILE:
        case ENFILE:
        case ENOBUFS:
        case ENOMEM:
            this->pause();
            break;
        default:
            break;
        }
        return 0;
    }

    /// The handshake of a connection is done (0), or has failed (-1 with errno). Called by it,
    /// after it has left the reactor.
    void handshake_ended(pending_type* pending, int result)
    {
        const int error = errno;
        SVC_HANDLER* const handler = pending->handler();
        this->unlink(pending);
        if (result == 0) {
            this->accepted(handler, pending->remote());
            this->activate_svc_handler(handler);
        } else {
            errno = error;
            this->refuse(handler, pending->remote());
        }
        pending->remove_reference();
    }

protected:
    int handle_close(ACE_HANDLE handle = ACE_INVALID_HANDLE,
                     ACE_Reactor_Mask mask = ACE_Event_Handler::ALL_EVENTS_MASK) override
    {
        this->forget_listener();
        return base_type::handle_close(handle, mask);
    }

    /// Accepts into the handler's stream; a failure is logged, and the handler is closed.
    int accept_svc_handler(SVC_HANDLER* handler) override
    {
        ACE_Reactor* const reactor = this->reactor();
        if (reactor == nullptr) {
            errno = EINVAL;
            return -1;
        }
        ACE_Time_Value limit(timeout_);
        ACE_Time_Value* const timeout = timeout_ < 0 ? nullptr : &limit;
        addr_type remote;
        int result = 0;
        if constexpr (handshake_type::IN_STEPS) {
            result = this->begin_handshake(handler, remote, timeout);
        } else {
            result = traits_type::accept(this->peer_acceptor_, handler->peer(), &remote, timeout,
                                         RESTART, reactor->uses_event_associations());
        }
        if (result == -1) {
            this->refuse(handler, remote);
            return -1;
        }
        if (waiting_ != handler) {
            this->accepted(handler, remote);
        }
        return 0;
    }

    /// Opens the connection, unless its handshake still goes on.
    int activate_svc_handler(SVC_HANDLER* handler) override
    {
        if (waiting_ == handler) {
            waiting_ = nullptr;
            return 0;
        }
        if constexpr (!traits_type::ACCEPTS_READY) {
            return base_type::activate_svc_handler(handler);
        }
        if ((this->flags_ & ACE_NONBLOCK) != 0) {
            return base_type::activate_svc_handler(handler);
        }
        // The base would first set the mode that the descriptor has.
        if (handler->open(static_cast<void*>(this)) == -1) {
            handler->close(NORMAL_CLOSE_OPERATION);
            return -1;
        }
        return 0;
    }

    /// Takes the listener from its reactor for PAUSE_MS. Keeps errno.
    void pause()
    {
        const int error = errno;
        if (this->reactor() != nullptr && pause_timer_id_ == -1 && this->schedule_resume()) {
            this->reactor()->remove_handler(this, ACE_Event_Handler::ACCEPT_MASK |
                                                      ACE_Event_Handler::DONT_CALL);
        }
        errno = error;
    }

    int timeout_;
    int backlog_;
    bool ipv6_only_;
    int recv_buf_size_;
    int send_buf_size_;

private:
    static constexpr bool RESTART = true; ///< a signal does not end a wait

    /// Accepts, and does what the client's first bytes allow. 0: done, or `waiting_` is set; -1
    /// with errno.
    int begin_handshake(SVC_HANDLER* handler, addr_type& remote, const ACE_Time_Value* timeout)
    {
        const Deadline deadline = Deadline::after(timeout);
        if (handshake_type::take(this->peer_acceptor_, handler->peer(), &remote, timeout,
                                 RESTART) == -1) {
            return -1;
        }
        const int events = handshake_type::step(handler->peer());
        if (events <= 0) {
            return events;
        }
        if (this->wait_in_reactor(handler, remote, events, timeout)) {
            return 0;
        }
        return handshake_type::finish(handler->peer(), deadline, RESTART);
    }

    bool wait_in_reactor(SVC_HANDLER* handler, const addr_type& remote, int events,
                         const ACE_Time_Value* timeout)
    {
        auto* const pending = new (std::nothrow) pending_type(*this, handler, remote);
        if (pending == nullptr) {
            return false;
        }
        if (pending->start(this->reactor(), events, timeout) == -1) {
            pending->remove_reference();
            return false;
        }
        this->link(pending);
        waiting_ = handler;
        return true;
    }

    void link(pending_type* pending)
    {
        pending->next_ = pending_;
        pending->link_ = &pending_;
        if (pending_ != nullptr) {
            pending_->link_ = &pending->next_;
        }
        pending_ = pending;
    }

    static void unlink(pending_type* pending)
    {
        *pending->link_ = pending->next_;
        if (pending->next_ != nullptr) {
            pending->next_->link_ = pending->link_;
        }
    }

    /// Closes the connections whose handshake goes on.
    void drop_handshakes()
    {
        while (pending_ != nullptr) {
            pending_type* const pending = pending_;
            unlink(pending);
            pending->leave();
            pending->handler()->close(CLOSE_DURING_NEW_CONNECTION);
            pending->remove_reference();
        }
    }

    static void accepted(SVC_HANDLER* handler, const addr_type& remote)
    {
        if constexpr (traits_type::ACCEPTS_READY && requires { handler->accepted_from(remote); }) {
            handler->accepted_from(remote);
        }
    }

    /// Logs a failed accept and closes its handler. Keeps errno.
    void refuse(SVC_HANDLER* handler, const addr_type& remote) const
    {
        const int error = errno;
        this->log_failed_accept(remote);
        handler->close(CLOSE_DURING_NEW_CONNECTION);
        errno = error;
    }

    bool schedule_resume()
    {
        const ACE_Time_Value delay(0, PAUSE_MS * 1000);
        pause_timer_id_ = this->reactor()->schedule_timer(this, nullptr, delay);
        return pause_timer_id_ != -1;
    }

    /// What has to happen before the base closes the listener.
    void forget_listener()
    {
        if (this->reactor() == nullptr) {
            return;
        }
        if (pause_timer_id_ != -1) {
            constexpr int DONT_CALL_HANDLE_CLOSE = 1;
            this->reactor()->cancel_timer(pause_timer_id_, nullptr, DONT_CALL_HANDLE_CLOSE);
            pause_timer_id_ = -1;
        }
        if constexpr (handshake_type::IN_STEPS) {
            this->drop_handshakes();
        }
        traits_type::forget(leftover_);
    }

    void close_listener()
    {
        this->forget_listener();
        base_type::handle_close();
    }

    void log_failed_accept(const addr_type& remote) const
    {
        // Not yet a connection: no text, rather than the one of an empty address.
        const addr_type unknown;
        const ACE_Addr_String text(remote, true);
        const char* const peer = remote == unknown || text.c_str() == nullptr ? "" : text.c_str();
        HTTPD_ERROR("Failed to accept connection from '%s'.", peer);
    }

    typename traits_type::Leftover leftover_; ///< what the open listener leaves behind
    long pause_timer_id_ = -1;                ///< -1: not paused
    pending_type* pending_ = nullptr;         ///< handshakes that go on
    SVC_HANDLER* waiting_ = nullptr; ///< just accepted, with its handshake among `pending_`
};
