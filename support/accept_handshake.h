#pragma once

#include "support/export.h"

class ACE_Addr;
class ACE_SSL_SOCK_Acceptor;
class ACE_SSL_SOCK_Stream;
class ACE_Time_Value;
class Deadline;

/**
 * The handshake that follows an accept, in steps that never wait, so that a thread can carry on
 * many at once. IN_STEPS tells whether the kind of stream has one; without it
 * ACE_Peer_Acceptor_Traits::accept() does all.
 */
template <typename Stream>
struct ACE_Accept_Handshake {
    static constexpr bool IN_STEPS = false;
};

/// TLS, the server's side (RFC 8446, section 4). Called by the thread that runs the listener's
/// reactor.
template <>
struct HTTPD_SUPPORT_EXPORT ACE_Accept_Handshake<ACE_SSL_SOCK_Stream> {
    static constexpr bool IN_STEPS = true;

    /// As ACE_Peer_Acceptor_Traits::accept(), but for the handshake. The descriptor is
    /// close-on-exec and blocking; the steps below do not wait on it all the same.
    static int take(ACE_SSL_SOCK_Acceptor& acceptor, ACE_SSL_SOCK_Stream& stream, ACE_Addr* remote,
                    const ACE_Time_Value* timeout, bool restart);

    /// Does what the client's bytes allow. @return 0 when the handshake is done, else what it waits
    /// for (POLLIN or POLLOUT), -1 with errno: EPROTO for another protocol.
    static int step(const ACE_SSL_SOCK_Stream& stream);

    /// All that is left of it, waiting until the deadline. 0, or -1 with errno: ETIMEDOUT. The
    /// stream keeps its descriptor in any case.
    static int finish(const ACE_SSL_SOCK_Stream& stream, const Deadline& deadline, bool restart);
};
