#pragma once

#include "support/accept_handshake.h"

#include <ace/Event_Handler.h>
#include <ace/Reactor.h>
#include <ace/Time_Value.h>

#include <poll.h>

#include <cerrno>

/**
 * An accepted connection whose handshake waits for the client. It stands in the reactor of its
 * listener, whose thread serves others meanwhile, and tells its acceptor when the handshake is
 * over.
 *
 * Reference counted: the acceptor that made it holds a reference until the end, the reactor one for
 * the registration and one for the timer. All calls come from the reactor's thread, but for
 * leave(), which may come from one that deletes the acceptor.
 */
template <typename ACCEPTOR, typename SVC_HANDLER>
class Pending_Handshake_T : public ACE_Event_Handler {
public:
    using Stream = typename SVC_HANDLER::stream_type;
    using Steps = ACE_Accept_Handshake<Stream>;
    using addr_type = typename ACCEPTOR::addr_type;

    /// @param handler  has the accepted stream; stays its maker's.
    Pending_Handshake_T(ACCEPTOR& acceptor, SVC_HANDLER* handler, const addr_type& remote)
        : acceptor_(acceptor), handler_(handler), remote_(remote)
    {
        this->reference_counting_policy().value(
            ACE_Event_Handler::Reference_Counting_Policy::ENABLED);
    }

    /**
     * Waits in `reactor` for what the handshake needs next.
     *
     * @param events  POLLIN or POLLOUT.
     * @param limit   from now to the handshake's end; null: none.
     * @return 0, or -1 with errno and nothing left in the reactor.
     */
    int start(ACE_Reactor* reactor, int events, const ACE_Time_Value* limit)
    {
        this->reactor(reactor);
        if (limit != nullptr) {
            timer_id_ = reactor->schedule_timer(this, nullptr, *limit);
        }
        events_ = events;
        if ((limit == nullptr || timer_id_ != -1) &&
            reactor->register_handler(this, mask_of(events)) == 0) {
            return 0;
        }
        const int error = errno;
        this->cancel_timer();
        errno = error;
        return -1;
    }

    /// Takes it out of its reactor.
    void leave()
    {
        this->reactor()->remove_handler(this, ACE_Event_Handler::ALL_EVENTS_MASK |
                                                  ACE_Event_Handler::DONT_CALL);
        this->cancel_timer();
    }

    SVC_HANDLER* handler() const { return handler_; }
    const addr_type& remote() const { return remote_; }

    ACE_HANDLE get_handle() const override { return handler_->peer().get_handle(); }
    int handle_input(ACE_HANDLE) override { return this->step(); }
    int handle_output(ACE_HANDLE) override { return this->step(); }

    /// The time is over.
    int handle_timeout(const ACE_Time_Value&, const void*) override
    {
        timer_id_ = -1;
        this->leave();
        errno = ETIMEDOUT;
        acceptor_.handshake_ended(this, -1);
        return 0;
    }

    int handle_close(ACE_HANDLE, ACE_Reactor_Mask) override { return 0; }

    // A list that needs no memory of its own; kept by the acceptor.
    Pending_Handshake_T* next_ = nullptr;
    Pending_Handshake_T** link_ = nullptr; ///< what points here

protected:
    ~Pending_Handshake_T() override = default; // by its last reference

private:
    static ACE_Reactor_Mask mask_of(int events)
    {
        return events == POLLOUT ? ACE_Event_Handler::WRITE_MASK : ACE_Event_Handler::READ_MASK;
    }

    int step()
    {
        const int events = Steps::step(handler_->peer());
        if (events > 0) {
            return this->wait_for(events);
        }
        const int error = errno;
        this->leave();
        errno = error;
        acceptor_.handshake_ended(this, events);
        return 0;
    }

    int wait_for(int events)
    {
        if (events != events_) {
            events_ = events;
            this->reactor()->mask_ops(this, mask_of(events), ACE_Reactor::SET_MASK);
        }
        return 0;
    }

    void cancel_timer()
    {
        if (timer_id_ != -1) {
            this->reactor()->cancel_timer(timer_id_);
            timer_id_ = -1;
        }
    }

    ACCEPTOR& acceptor_;
    SVC_HANDLER* const handler_;
    const addr_type remote_;
    int events_ = 0;
    long timer_id_ = -1; ///< -1: none
};
