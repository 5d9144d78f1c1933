#pragma once

#include "support/export.h"

/**
 * The media type for a file-name extension, such as "text/html" for "html" or "HTML"; without a
 * charset parameter.
 *
 * @param extension  without its dot; null and unknown ones give "application/octet-stream".
 * @return a static string, never null. Any thread.
 */
HTTPD_SUPPORT_EXPORT const char* mime_type(const char* extension);
