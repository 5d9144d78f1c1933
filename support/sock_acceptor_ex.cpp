#include "support/sock_acceptor_ex.h"

#include "support/accept_socket.h"
#include "support/socket_helpers.h"

#include <sys/socket.h>

#include <cerrno>

int ACE_SOCK_Acceptor_Ex::open(const ACE_Addr& address, int reuse_addr, int protocol_family,
                               int backlog, int protocol, int ipv6_only, int recv_buf_size,
                               int send_buf_size)
{
    const int family = protocol_family == PF_UNSPEC ? address.get_type() : protocol_family;
    if (ACE_SOCK::open(SOCK_STREAM, family, protocol, reuse_addr) == -1) {
        return -1;
    }
    if (enable_fd_cloexec(get_handle()) == -1 || send_at_once(get_handle()) == -1 ||
        set_buffers(get_handle(), recv_buf_size, send_buf_size) == -1 ||
        shared_open(address, family, backlog, ipv6_only) == -1) {
        const int error = errno;
        close();
        errno = error;
        return -1;
    }
    return 0;
}
