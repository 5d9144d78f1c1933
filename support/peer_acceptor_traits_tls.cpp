#include "support/accept_handshake.h"
#include "support/accept_socket.h"
#include "support/peer_acceptor_traits.h"
#include "support/socket_helpers.h"
#include "support/tls_io.h"

#include <ace/INET_Addr.h>

#include <unistd.h>

#include <cerrno>

using Handshake = ACE_Accept_Handshake<ACE_SSL_SOCK_Stream>;
using Traits = ACE_Peer_Acceptor_Traits<ACE_SSL_SOCK_Stream>;

int Traits::open(Peer_Acceptor& acceptor, const ACE_Addr& address, int reuse_addr, int backlog,
                 int ipv6_only, int recv_buf_size, int send_buf_size)
{
    ACE_INET_Addr where;
    if (listen_address(static_cast<const ACE_INET_Addr&>(address), ipv6_only != 0, where) == -1 ||
        acceptor.open(where, reuse_addr, PF_UNSPEC, backlog, 0, ipv6_only) == -1) {
        return -1;
    }
    const int handle = acceptor.get_handle();
    if (enable_fd_cloexec(handle) == -1 || send_at_once(handle) == -1 ||
        set_buffers(handle, recv_buf_size, send_buf_size) == -1) {
        const int error = errno;
        acceptor.close();
        errno = error;
        return -1;
    }
    return 0;
}

int Traits::accept(Peer_Acceptor& acceptor, ACE_SSL_SOCK_Stream& stream, ACE_Addr* remote,
                   ACE_Time_Value* timeout, bool restart, bool)
{
    const Deadline deadline = Deadline::after(timeout);
    if (Handshake::take(acceptor, stream, remote, timeout, restart) == -1) {
        return -1;
    }
    if (Handshake::finish(stream, deadline, restart) == 0) {
        return 0;
    }
    const int error = errno;
    close(tls_detach(stream));
    errno = error;
    return -1;
}

int Traits::waiting(ACE_HANDLE listener)
{
    return waiting_connections(listener);
}

void Traits::remember(Peer_Acceptor&, Leftover&) {}

void Traits::forget(Leftover&) {}
