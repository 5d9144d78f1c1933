#pragma once

#include "support/export.h"

class ACE_Addr;
class ACE_INET_Addr;

/**
 * An address as text: "a.b.c.d:port", "[v6]:port", the path of a UNIX-domain address. An IPv4
 * address mapped into IPv6 (RFC 4291, 2.5.5.2) is shown as plain IPv4, an unnamed UNIX-domain peer
 * as "".
 */
class HTTPD_SUPPORT_EXPORT ACE_Addr_String {
public:
    /// @param with_port  false: the host alone, without brackets. No meaning for a path.
    ACE_Addr_String(const ACE_Addr& address, bool with_port);

    /// The text, or null when an address of this kind has none (such as a default ACE_Addr).
    const char* c_str() const { return has_text_ ? text_ : nullptr; }

private:
    char text_[112]; ///< the longest: sun_path
    bool has_text_;
};

/// Turns an IPv4 address mapped into IPv6 into the plain IPv4 address; others stay as they are.
HTTPD_SUPPORT_EXPORT void unmap_ipv4(ACE_INET_Addr& address);
