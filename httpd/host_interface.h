#pragma once

#include "httpd/export.h"

/**
 * What a host process may tell the library besides the service's command line. A host looks these
 * functions up by name after it has loaded the library, so that it needs none of its headers.
 */
extern "C" {

/**
 * Trusts X-Forwarded-For in requests that come from this address.
 *
 * To be called before the service is initialised, by the thread that does so; in force until the
 * service is closed.
 *
 * @param address  an IPv4 or IPv6 address as peers are printed, without port; null or "": nobody
 * @return 0, or -1 with errno ENOMEM
 */
HTTPD_EXPORT int httpd_set_proxy_from(const char* address);
}
