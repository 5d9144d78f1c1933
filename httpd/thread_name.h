#pragma once

#include "httpd/export.h"

/**
 * Names a thread, for debuggers and process listings. Where the system offers no such call, nothing
 * happens. A name that is too long is cut to 15 characters with a warning; any other failure is
 * logged as an error.
 *
 * @param name    not null
 * @param thread  as pthread_self() gives it; a thread that has not been joined or detached away
 */
HTTPD_EXPORT void set_thread_name(const char* name, unsigned long thread);
