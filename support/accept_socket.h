#pragma once

#include "support/descriptor_wait.h"

#include <sys/socket.h>

class ACE_INET_Addr;
class ACE_Time_Value;
class ACE_UNIX_Addr;

/// The time that one accept may take, and whether it may wait at all.
struct Accept_Limit {
    explicit Accept_Limit(const ACE_Time_Value* timeout);

    bool may_wait; ///< false: only what is there is taken
    Deadline deadline;
};

/**
 * Takes a connection from `listener`: first what is there, then what comes before the deadline.
 * @param flags  of accept4(2) beside SOCK_CLOEXEC.
 * @return the descriptor, or -1 with errno: EWOULDBLOCK, ETIMEDOUT.
 */
int accept_socket(int listener, sockaddr_storage& peer, const Accept_Limit& limit, bool restart,
                  int flags);

/// The peer as an ACE address, a mapped IPv4 one as plain IPv4.
void set_inet_addr(ACE_INET_Addr& address, const sockaddr_storage& peer);

/// The UNIX-domain peer as an ACE address, "" when it is unnamed. ACE copies the path up to its
/// NUL, which a path that fills the field does not have: such a path is cut by its last byte.
void set_unix_addr(ACE_UNIX_Addr& address, const sockaddr_storage& peer);

/// Whether `address` is what ACE leaves in an object whose text it could not read.
bool is_unreadable(const ACE_INET_Addr& address);

/// The address to listen on for `address` with the setting `ipv6_only`: the IPv4 wildcard becomes
/// the one of IPv6. @return 0, or -1 with EINVAL for an unreadable address.
int listen_address(const ACE_INET_Addr& address, bool ipv6_only, ACE_INET_Addr& result);

/// Sets the socket buffers; 0 leaves the system's default. @return 0, or -1 with errno.
int set_buffers(int handle, int recv_buf_size, int send_buf_size);

/// How many connections wait on a TCP listener; 1 when that cannot be told.
int waiting_connections(int listener);

/// Switches Nagle's algorithm off on a TCP listener; what it accepts takes that over, for no system
/// call per connection. A response leaves in whole writes, and its tail must not wait for the
/// client's delayed acknowledgement. @return 0, or -1 with errno.
int send_at_once(int listener);
