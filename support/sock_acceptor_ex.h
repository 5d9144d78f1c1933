#pragma once

#include "support/export.h"

#include <ace/SOCK_Acceptor.h>

/// An ACE_SOCK_Acceptor whose socket buffers are set before it listens: accepted connections take
/// them over, and TCP fixes its window scale from them (RFC 7323, section 2.2).
class HTTPD_SUPPORT_EXPORT ACE_SOCK_Acceptor_Ex : public ACE_SOCK_Acceptor {
public:
    using ACE_SOCK_Acceptor::open;

    /**
     * Listens on `address`.
     *
     * @param reuse_addr       not 0: SO_REUSEADDR.
     * @param protocol_family  PF_UNSPEC = that of the address.
     * @param backlog          connections that may wait to be accepted.
     * @param protocol         0 = the family's stream protocol.
     * @param ipv6_only        not 0: no IPv4 connections on an IPv6 address.
     * @param recv_buf_size, send_buf_size  bytes; 0 = the system's default.
     * @return 0, or -1 with errno and nothing open.
     */
    int open(const ACE_Addr& address, int reuse_addr, int protocol_family, int backlog,
             int protocol, int ipv6_only, int recv_buf_size, int send_buf_size);
};
