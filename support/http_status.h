#pragma once

#include "support/export.h"

#include <string_view>

/**
 * The reason phrase of a status code: that of the registry that RFC 9110, section 16.2 set up, or
 * the name of the code's class (section 15) for a code that is not in it. NUL-terminated, never
 * empty, lives for ever.
 */
HTTPD_SUPPORT_EXPORT std::string_view http_status_reason(int status);
