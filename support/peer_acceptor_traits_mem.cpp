#include "support/accept_socket.h"
#include "support/mem_pool_file.h"
#include "support/peer_acceptor_traits.h"
#include "support/socket_helpers.h"

#include <ace/INET_Addr.h>
#include <ace/MEM_Addr.h>

#include <netinet/in.h>
#include <poll.h>

#include <cerrno>
#include <cstdint>
#include <new>
#include <string>

using Traits = ACE_Peer_Acceptor_Traits<MEM_Stream>;

namespace {

/// The signalling strategy of each side is a 16-bit number in the machine's byte order.
using Strategy = int16_t;

/// All of `length` bytes before the deadline; ACE's own handshake reads them without a limit.
int receive_all(int handle, void* data, size_t length, const Accept_Limit& limit, bool restart)
{
    size_t done = 0;
    while (done < length) {
        const ssize_t received =
            recv(handle, static_cast<char*>(data) + done, length - done, MSG_DONTWAIT);
        if (received > 0) {
            done += static_cast<size_t>(received);
            continue;
        }
        if (received == 0) {
            errno = ECONNRESET;
            return -1;
        }
        if (errno == EINTR && restart) {
            continue;
        }
        if (errno != EAGAIN) {
            return -1;
        }
        const int ready = wait_for_handle(handle, POLLIN, limit.deadline, restart);
        if (ready == 0) {
            errno = ETIMEDOUT;
        }
        if (ready <= 0) {
            return -1;
        }
    }
    return 0;
}

/// Makes the pool and tells its name.
int open_pool(const ACE_MEM_Acceptor& acceptor, MEM_Stream& stream, int port)
{
    try {
        const std::string path = Mem_Pool_File::make_path(Mem_Pool_File::prefix(acceptor, port));
        if (path.empty() || stream.open_pool(path.c_str()) == -1) {
            return -1;
        }
        const int handle = stream.get_handle();
        const auto length = static_cast<uint16_t>(path.size() + 1);
        return ace_send(handle, &length, sizeof length) == -1 ||
                       ace_send(handle, path.c_str(), length) == -1
                   ? -1
                   : 0;
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
        return -1;
    }
}

/**
 * What the two sides tell each other before the first message: the strategy this side prefers, the
 * one that the client has chosen, and the name of the file that both map.
 */
int shake_hands(const ACE_MEM_Acceptor& acceptor, MEM_Stream& stream, int port,
                const Accept_Limit& limit, bool restart)
{
    const int handle = stream.get_handle();
    const auto offered = static_cast<Strategy>(ACE_MEM_IO::Reactive);
    Strategy chosen = 0;
    if (ace_send(handle, &offered, sizeof offered) == -1 ||
        receive_all(handle, &chosen, sizeof chosen, limit, restart) == -1) {
        return -1;
    }
    if (chosen != ACE_MEM_IO::Reactive) { // the other one needs threads and is not in this ACE
        errno = EPROTO;
        return -1;
    }
    return open_pool(acceptor, stream, port);
}

int port_of(const ACE_MEM_Acceptor& acceptor)
{
    ACE_MEM_Addr local;
    acceptor.get_local_addr(local);
    return local.get_port_number();
}

void remove_stale_pools(const ACE_MEM_Acceptor& acceptor)
{
    try {
        Mem_Pool_File::remove_stale(Mem_Pool_File::prefix(acceptor, port_of(acceptor)));
    } catch (const std::bad_alloc&) {
        // They stay until the next start.
    }
}

} // namespace

int Traits::open(Peer_Acceptor& acceptor, const ACE_Addr& address, int reuse_addr, int backlog, int,
                 int, int)
{
    const auto& where = static_cast<const ACE_MEM_Addr&>(address);
    if (where.get_port_number() == 0) {
        errno = EINVAL;
        return -1;
    }
    if (acceptor.open(where, reuse_addr, backlog) == -1) {
        return -1;
    }
    if (enable_fd_cloexec(acceptor.get_handle()) == -1) {
        const int error = errno;
        acceptor.close();
        errno = error;
        return -1;
    }
    remove_stale_pools(acceptor);
    return 0;
}

int Traits::accept(Peer_Acceptor& acceptor, MEM_Stream& stream, ACE_Addr* remote,
                   ACE_Time_Value* timeout, bool restart, bool)
{
    sockaddr_storage peer{};
    const Accept_Limit limit(timeout);
    const int handle = accept_socket(acceptor.get_handle(), peer, limit, restart, 0);
    if (handle == -1) {
        return -1;
    }
    ACE_INET_Addr client;
    set_inet_addr(client, peer);
    if (remote != nullptr) {
        static_cast<ACE_MEM_Addr&>(*remote).set_port_number(client.get_port_number());
    }
    stream.set_handle(handle);
    // Each message is announced by eight bytes, which must not wait for the answer to the last.
    if (set_sock_nodelay(stream, true) == 0 &&
        shake_hands(acceptor, stream, port_of(acceptor), limit, restart) == 0) {
        return 0;
    }
    const int error = errno;
    stream.close();
    errno = error;
    return -1;
}

int Traits::waiting(ACE_HANDLE)
{
    return 1;
}

void Traits::remember(Peer_Acceptor&, Leftover&) {}

void Traits::forget(Leftover&) {}
