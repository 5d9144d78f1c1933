#pragma once

#include "httpd/ace_acceptor_ex.h"
#include "support/event_loop_manager.h"
#include "support/socket_helpers.h"

#include <ace/Service_Object.h>

#include <memory>
#include <new>

/// An acceptor that places each connection on the event loop whose turn it is; the listener itself
/// stays on the reactor that it is opened with.
template <typename SVC_HANDLER, typename PEER_ACCEPTOR>
class HTTP_Acceptor : public ACE_Acceptor_Ex<SVC_HANDLER, PEER_ACCEPTOR> {
public:
    using base_type = ACE_Acceptor_Ex<SVC_HANDLER, PEER_ACCEPTOR>;

    /// @param loops  has to outlive the acceptor; the other settings are those of ACE_Acceptor_Ex.
    HTTP_Acceptor(Event_Loop_Manager& loops, int timeout, int backlog, bool ipv6_only,
                  int recv_buf_size, int send_buf_size)
        : base_type(timeout, backlog, ipv6_only, recv_buf_size, send_buf_size), loops_(loops)
    {
    }

protected:
    /// Makes a handler where there is none and gives it the next loop. 0, or -1 with ENOMEM.
    int make_svc_handler(SVC_HANDLER*& handler) override
    {
        if (handler == nullptr) {
            handler = new_handler();
            if (handler == nullptr) {
                errno = ENOMEM;
                this->pause(); // the connection stays where it is: do not ask for it at once
                return -1;
            }
        }
        handler->reactor(loops_.reactor());
        return 0;
    }

private:
    static SVC_HANDLER* new_handler()
    {
        try {
            return new (std::nothrow) SVC_HANDLER(nullptr);
        } catch (const std::bad_alloc&) { // from a member
            return nullptr;
        }
    }

    Event_Loop_Manager& loops_;
};

/**
 * Opens a listener for connections that `SVC_HANDLER` serves, on the process-wide reactor.
 *
 * @param loops           gives each connection its event loop; has to outlive the acceptor.
 * @param protocol        what the log lines call the listener.
 * @param accept_timeout  seconds for one accept; negative: no limit.
 * @return the acceptor, owned by the caller; null with errno when it cannot listen, which is
 * logged, or (ENOMEM, not logged) cannot be made.
 */
template <typename SVC_HANDLER>
ACE_Service_Object* open_http_acceptor(
    Event_Loop_Manager& loops, const char* protocol,
    const typename HTTP_Acceptor<
        SVC_HANDLER, typename ACE_Peer_Acceptor_Traits<
                         typename SVC_HANDLER::stream_type>::Peer_Acceptor>::addr_type& address,
    int accept_timeout, int listen_backlog, int ipv6_only)
{
    using Traits = ACE_Peer_Acceptor_Traits<typename SVC_HANDLER::stream_type>;
    using Acceptor = HTTP_Acceptor<SVC_HANDLER, typename Traits::Peer_Acceptor>;

    std::unique_ptr<Acceptor> acceptor(
        new (std::nothrow) Acceptor(loops, accept_timeout, listen_backlog, ipv6_only != 0, 0, 0));
    if (acceptor == nullptr) {
        errno = ENOMEM;
        return nullptr;
    }
    const ACE_Addr_String text(address, true);
    const char* const where = text.c_str() != nullptr ? text.c_str() : "";
    constexpr int REUSE_ADDR = 1;
    if (acceptor->open(address, ACE_Reactor::instance(), 0, 0, REUSE_ADDR) == -1) {
        const int error = errno;
        HTTPD_ERROR("Failed to listen %s %s, errno=%d, %m", protocol, where, error);
        acceptor.reset();
        errno = error;
        return nullptr;
    }
    if (enable_fd_cloexec(acceptor->get_handle()) == -1) {
        HTTPD_ERROR("Failed to enable cloexec on %s listener %s, errno=%d, %m", protocol, where,
                    errno);
    }
    HTTPD_INFO("%s %s is listening.", protocol, where);
    return acceptor.release();
}
