#pragma once

#include "httpd/export.h"

#include <string>
#include <string_view>

class ACE_INET_Addr;

/**
 * The client's address in an X-Forwarded-For field: the text before the first comma, trimmed; the
 * whole field as it stands when there is nothing before the comma.
 */
HTTPD_EXPORT std::string first_forwarded_for(std::string_view field);

/**
 * Replaces the host of `address` by the client that a proxy names, with port 0.
 * @return false, and `address` unchanged, when the field does not begin with an address literal.
 */
HTTPD_EXPORT bool set_forwarded_for(ACE_INET_Addr& address, std::string_view field);
