#include "support/accept_socket.h"
#include "support/peer_acceptor_traits.h"
#include "support/socket_helpers.h"

#include <ace/UNIX_Addr.h>

#include <sys/un.h>

#include <cerrno>
#include <cstring>

using Traits = ACE_Peer_Acceptor_Traits<LSOCK_Stream>;

namespace {

int open_at(ACE_LSOCK_Acceptor& acceptor, const ACE_UNIX_Addr& address, int backlog)
{
    return acceptor.open(address, 0, PF_UNIX, backlog);
}

} // namespace

int Traits::open(Peer_Acceptor& acceptor, const ACE_Addr& address, int, int backlog, int,
                 int recv_buf_size, int send_buf_size)
{
    const auto& where = static_cast<const ACE_UNIX_Addr&>(address);
    const char* const path = where.get_path_name();
    // ACE cuts a longer path down to this length without a word.
    if (std::strlen(path) >= sizeof(sockaddr_un::sun_path) - 1) {
        errno = ENAMETOOLONG;
        return -1;
    }
    if (path[0] == '\0') {
        errno = EINVAL;
        return -1;
    }
    if (open_at(acceptor, where, backlog) == -1 &&
        (errno != EADDRINUSE || Socket_File::remove_stale(path) == -1 ||
         open_at(acceptor, where, backlog) == -1)) {
        return -1;
    }
    const int handle = acceptor.get_handle();
    if (enable_fd_cloexec(handle) == -1 ||
        set_buffers(handle, recv_buf_size, send_buf_size) == -1) {
        const int error = errno;
        acceptor.remove();
        errno = error;
        return -1;
    }
    return 0;
}

int Traits::accept(Peer_Acceptor& acceptor, LSOCK_Stream& stream, ACE_Addr* remote,
                   ACE_Time_Value* timeout, bool restart, bool)
{
    sockaddr_storage peer{};
    const int handle =
        accept_socket(acceptor.get_handle(), peer, Accept_Limit(timeout), restart, 0);
    stream.set_handle(handle);
    if (handle != -1 && remote != nullptr) {
        set_unix_addr(static_cast<ACE_UNIX_Addr&>(*remote), peer);
    }
    return handle == -1 ? -1 : 0;
}

int Traits::waiting(ACE_HANDLE)
{
    return 1;
}

void Traits::remember(Peer_Acceptor& acceptor, Leftover& leftover)
{
    ACE_UNIX_Addr where;
    if (acceptor.get_local_addr(where) == 0) {
        leftover.remember(where.get_path_name());
    }
}

void Traits::forget(Leftover& leftover)
{
    leftover.remove();
}
