#include "support/accept_socket.h"
#include "support/peer_acceptor_traits.h"

#include <ace/INET_Addr.h>

using Traits = ACE_Peer_Acceptor_Traits<ACE_SOCK_Stream>;

int Traits::open(Peer_Acceptor& acceptor, const ACE_Addr& address, int reuse_addr, int backlog,
                 int ipv6_only, int recv_buf_size, int send_buf_size)
{
    ACE_INET_Addr where;
    if (listen_address(static_cast<const ACE_INET_Addr&>(address), ipv6_only != 0, where) == -1) {
        return -1;
    }
    return acceptor.open(where, reuse_addr, PF_UNSPEC, backlog, 0, ipv6_only, recv_buf_size,
                         send_buf_size);
}

int Traits::accept(Peer_Acceptor& acceptor, ACE_SOCK_Stream& stream, ACE_Addr* remote,
                   ACE_Time_Value* timeout, bool restart, bool)
{
    sockaddr_storage peer{};
    const int handle =
        accept_socket(acceptor.get_handle(), peer, Accept_Limit(timeout), restart, 0);
    stream.set_handle(handle);
    if (handle != -1 && remote != nullptr) {
        set_inet_addr(static_cast<ACE_INET_Addr&>(*remote), peer);
    }
    return handle == -1 ? -1 : 0;
}

int Traits::waiting(ACE_HANDLE listener)
{
    return waiting_connections(listener);
}

void Traits::remember(Peer_Acceptor&, Leftover&) {}

void Traits::forget(Leftover&) {}
