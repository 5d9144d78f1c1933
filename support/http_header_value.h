#pragma once

#include "support/export.h"

#include <string_view>

/**
 * True when `token` is one of the elements of the list `value` (RFC 9110, section 5.6.1). Elements
 * are trimmed of blanks and tabs and compared without case.
 */
HTTPD_SUPPORT_EXPORT bool http_header_value_match(std::string_view value, std::string_view token,
                                                  char separator);
