#pragma once

#include "support/export.h"

#include <ace/LSOCK_Stream.h>

class ACE_SSL_Context;

/**
 * A connected UNIX-domain socket as the stream of a connection.
 *
 * A peer on a UNIX-domain socket has no Internet address: asked for one, get_remote_addr() leaves
 * the argument as it is and succeeds, so that the same code serves every kind of stream.
 */
class HTTPD_SUPPORT_EXPORT LSOCK_Stream : public ACE_LSOCK_Stream {
public:
    /// @param context  only there so that all streams are constructed alike; not used.
    explicit LSOCK_Stream(ACE_SSL_Context* context = nullptr);

    /// Closes the socket. @return 0, or -1 with errno; the handle is invalid in any case.
    int close();

    /// The path that the socket is bound to ("" for none). @return 0, or -1 with errno: EINVAL when
    /// `address` is not an ACE_UNIX_Addr.
    int get_local_addr(ACE_Addr& address) const;

    /// The path that the peer is bound to, usually "" (none). An Internet address is left as it is.
    /// @return 0, or -1 with errno: EINVAL for an address of another kind.
    int get_remote_addr(ACE_Addr& address) const;
};
