#include "support/accept_handshake.h"
#include "support/accept_socket.h"
#include "support/tls_io.h"

#include <ace/INET_Addr.h>
#include <ace/SSL/SSL_SOCK_Acceptor.h>
#include <ace/SSL/SSL_SOCK_Stream.h>

#include <unistd.h>

#include <cerrno>

using Handshake = ACE_Accept_Handshake<ACE_SSL_SOCK_Stream>;

int Handshake::take(ACE_SSL_SOCK_Acceptor& acceptor, ACE_SSL_SOCK_Stream& stream, ACE_Addr* remote,
                    const ACE_Time_Value* timeout, bool restart)
{
    sockaddr_storage peer{};
    const int handle =
        accept_socket(acceptor.get_handle(), peer, Accept_Limit(timeout), restart, 0);
    if (handle == -1) {
        return -1;
    }
    if (remote != nullptr) {
        set_inet_addr(static_cast<ACE_INET_Addr&>(*remote), peer);
    }
    stream.set_handle(handle);
    if (stream.get_handle() == ACE_INVALID_HANDLE) { // it takes none where it has no SSL object
        close(handle);
        errno = ENOMEM;
        return -1;
    }
    return 0;
}

int Handshake::step(const ACE_SSL_SOCK_Stream& stream)
{
    SSL* const ssl = tls_ready(stream);
    if (ssl == nullptr) {
        return -1;
    }
    if (SSL_in_before(ssl) != 0) {
        SSL_set_accept_state(ssl);
    }
    tls_clear_errors();
    errno = 0;
    const int result = SSL_do_handshake(ssl);
    if (result == 1) {
        return 0;
    }
    const int events = tls_outcome(ssl, result);
    if (events == 0) {
        errno = ECONNRESET;
    }
    return events == 0 ? -1 : events;
}

// ACE's own handshake waits with select(2), which ends the process for descriptors from 1024 up.
int Handshake::finish(const ACE_SSL_SOCK_Stream& stream, const Deadline& deadline, bool restart)
{
    for (;;) {
        const int events = step(stream);
        if (events <= 0) {
            return events;
        }
        const int ready =
            wait_for_handle(stream.get_handle(), static_cast<short>(events), deadline, restart);
        if (ready == 0) {
            errno = ETIMEDOUT;
        }
        if (ready <= 0) {
            return -1;
        }
    }
}
