#pragma once

#include "support/export.h"

#include <atomic>

/**
 * Compresses the regular file `source` into the new file `target` (gzip, RFC 1952), with the same
 * permission bits and modification time, and syncs it to the disk.
 *
 * @param level      of compression, 1 to 9.
 * @param cancelled  looked at between blocks.
 * @return 0, or -1 with errno and nothing left at `target` (ECANCELED: cancelled; EINVAL: `source`
 * is no regular file). A file that was at `target` before is replaced. Does not log.
 */
HTTPD_SUPPORT_EXPORT int gzip_file(const char* source, const char* target, int level,
                                   const std::atomic<bool>& cancelled);
