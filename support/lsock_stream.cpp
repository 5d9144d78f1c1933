#include "support/lsock_stream.h"

#include "support/accept_socket.h"

#include <ace/UNIX_Addr.h>

#include <sys/socket.h>

#include <cerrno>

namespace {

using Name_Lookup = int (*)(int, sockaddr*, socklen_t*);

int look_up(Name_Lookup lookup, int handle, ACE_Addr& address)
{
    auto* result = dynamic_cast<ACE_UNIX_Addr*>(&address);
    if (result == nullptr) {
        errno = EINVAL;
        return -1;
    }
    sockaddr_storage name{};
    socklen_t length = sizeof name;
    if (lookup(handle, reinterpret_cast<sockaddr*>(&name), &length) == -1) {
        return -1;
    }
    set_unix_addr(*result, name);
    return 0;
}

} // namespace

LSOCK_Stream::LSOCK_Stream(ACE_SSL_Context*) {}

int LSOCK_Stream::close()
{
    const int result = ACE_SOCK_Stream::close();
    set_handle(ACE_INVALID_HANDLE); // ACE keeps a second copy of the number
    return result;
}

int LSOCK_Stream::get_local_addr(ACE_Addr& address) const
{
    return look_up(getsockname, get_handle(), address);
}

int LSOCK_Stream::get_remote_addr(ACE_Addr& address) const
{
    if (address.get_type() == AF_INET || address.get_type() == AF_INET6) {
        return 0;
    }
    return look_up(getpeername, get_handle(), address);
}
