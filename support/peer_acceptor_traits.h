#pragma once

#include "support/export.h"
#include "support/lsock_stream.h"
#include "support/mem_stream.h"
#include "support/sock_acceptor_ex.h"
#include "support/socket_file.h"

#include <ace/LSOCK_Acceptor.h>
#include <ace/MEM_Acceptor.h>
#include <ace/SSL/SSL_SOCK_Acceptor.h>
#include <ace/SSL/SSL_SOCK_Stream.h>
#include <ace/Time_Value.h>

/**
 * How a listener is opened and how a connection is taken from it, for each kind of stream.
 *
 * open(): 0, or -1 with errno and nothing left open. EINVAL for the address that stands for a text
 * that could not be read ([::]:0, which a default-constructed ACE_INET_Addr is; port 0 for shared
 * memory): such a listener must not become a wildcard on some random port.
 *
 * accept(): takes one connection within `timeout`, the handshake of its protocol included; the
 * accepted descriptor is close-on-exec. Without a limit (null) a connection is not awaited, since
 * the reactor has told of it, but a handshake takes as long as the client pleases. `remote` (may be
 * null) is set as soon as there is a connection. With `restart` a signal does not end the wait,
 * which goes on with the time left. 0, or -1 with errno and the stream without a descriptor:
 * EWOULDBLOCK when nothing was there and nothing might be awaited, ETIMEDOUT when the time has
 * passed, EPROTO for a handshake of another protocol. Called by the thread that runs the listener's
 * reactor.
 *
 * waiting(): how many connections wait to be accepted, 1 where that cannot be told; also 1 where an
 * accept may take long and is not done in steps (ACE_Accept_Handshake).
 *
 * ACCEPTS_READY: accepted descriptors are blocking and close-on-exec, and `remote` is what
 * getpeername says.
 *
 * remember() and forget() bracket the time that the listener is open.
 */
template <typename Stream>
struct ACE_Peer_Acceptor_Traits;

/// What a listener leaves behind when it is closed: nothing.
struct No_Leftover {};

#define HTTPD_PEER_ACCEPTOR_TRAITS(STREAM, ACCEPTOR, LEFTOVER, READY)                              \
    template <>                                                                                    \
    struct HTTPD_SUPPORT_EXPORT ACE_Peer_Acceptor_Traits<STREAM> {                                 \
        using Peer_Acceptor = ACCEPTOR;                                                            \
        using Leftover = LEFTOVER;                                                                 \
        /* `address` is of the acceptor's PEER_ADDR. */                                            \
        static int open(Peer_Acceptor& acceptor, const ACE_Addr& address, int reuse_addr,          \
                        int backlog, int ipv6_only, int recv_buf_size, int send_buf_size);         \
        /* `remote` is of the acceptor's PEER_ADDR; `reset_new_handle` has no meaning here. */     \
        static int accept(Peer_Acceptor& acceptor, STREAM& stream, ACE_Addr* remote,               \
                          ACE_Time_Value* timeout, bool restart, bool reset_new_handle);           \
        static constexpr bool ACCEPTS_READY = READY;                                               \
        static int waiting(ACE_HANDLE listener);                                                   \
        /* Notes what has to be removed when the listener is closed. */                            \
        static void remember(Peer_Acceptor& acceptor, Leftover& leftover);                         \
        /* Removes it, before the listener is closed. */                                           \
        static void forget(Leftover& leftover);                                                    \
    }

/// `ipv6_only` on the IPv4 wildcard means the IPv6 wildcard without IPv4; on another IPv4 address
/// it has no meaning.
HTTPD_PEER_ACCEPTOR_TRAITS(ACE_SOCK_Stream, ACE_SOCK_Acceptor_Ex, No_Leftover, true);
/// As for plain TCP; the time limit includes the TLS handshake.
HTTPD_PEER_ACCEPTOR_TRAITS(ACE_SSL_SOCK_Stream, ACE_SSL_SOCK_Acceptor, No_Leftover, true);
/// `ipv6_only` has no meaning. ENAMETOOLONG for a path that fills the address: it may be a cut one.
/// A socket file that nobody listens on is replaced; EADDRINUSE for any other file.
HTTPD_PEER_ACCEPTOR_TRAITS(LSOCK_Stream, ACE_LSOCK_Acceptor, Socket_File, false);
/// `ipv6_only` and the buffer sizes have no meaning: the socket carries offsets alone.
HTTPD_PEER_ACCEPTOR_TRAITS(MEM_Stream, ACE_MEM_Acceptor, No_Leftover, false);

#undef HTTPD_PEER_ACCEPTOR_TRAITS
