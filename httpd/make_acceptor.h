#pragma once

#include "httpd/http_acceptor.h"
#include "httpd/http_svc_handler_t.h"

#include <ace/Synch_Traits.h>

/// What the log lines call a listener of each kind.
template <typename Stream>
struct Listener_Name;

template <>
struct Listener_Name<ACE_SOCK_Stream> {
    static constexpr const char* PROTOCOL = "HTTP";
};

template <>
struct Listener_Name<ACE_SSL_SOCK_Stream> {
    static constexpr const char* PROTOCOL = "HTTPS";
};

template <>
struct Listener_Name<MEM_Stream> {
    static constexpr const char* PROTOCOL = "HTTPM";
};

/// The plain word, and no word of its own: kept, and pinned by
/// Listener_Name.a_unix_domain_listener_is_called_HTTP.
template <>
struct Listener_Name<LSOCK_Stream> {
    static constexpr const char* PROTOCOL = "HTTP";
};

/**
 * Opens the listener for one listen address; see open_http_acceptor().
 *
 * @param ipv6_only  not 0: listen on IPv6 only.
 * @return the acceptor, owned by the caller; null with errno when there is none.
 */
template <typename Stream, typename Addr>
ACE_Service_Object* make_acceptor(Event_Loop_Manager& loops, const Addr& addr, int accept_timeout,
                                  int listen_backlog, int ipv6_only)
{
    return open_http_acceptor<HTTP_Svc_Handler_T<Stream, ACE_MT_SYNCH>>(
        loops, Listener_Name<Stream>::PROTOCOL, addr, accept_timeout, listen_backlog, ipv6_only);
}
