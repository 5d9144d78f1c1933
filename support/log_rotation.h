#pragma once

#include "support/export.h"

#include <functional>

/**
 * The number of the newest rotated copy of the log at `path`: the highest n for which `<path>.<n>`,
 * `<path>.<n>.gz` or `<path>.<n><suffix>` exists, whichever way it was rotated then, so that no
 * number is given twice.
 *
 * @param max_file_number  how many copies are kept; with 0 there are none to look for.
 * @param suffix           of the copies written from now on; may be null.
 * @return 0 when there is no copy, and when the directory cannot be read, which is logged.
 */
HTTPD_SUPPORT_EXPORT unsigned int
find_current_log_count(const char* path, unsigned int max_file_number, const char* suffix);

/**
 * Renames the log at `path` to `<path>.<count>` and removes the copies with the lowest numbers, so
 * that the newest `max_file_number` stay. The log must be closed, or be reopened afterwards.
 *
 * With `compression` the copy then becomes `<path>.<count>.gz`. That is the work of a background
 * thread: the copy is written under another name and takes its final one when it is complete and on
 * the disk; only then does the plain copy go. On a failure, which is logged, the plain copy stays.
 *
 * Calls for one path must not overlap; the caller's lock on its log sees to that.
 *
 * @param level     of compression, 1 (fast) to 9 (small); not looked at without compression.
 * @param callback  when not empty, called once the copy has its final form, in this call or, with
 *                  compression, from the background thread. Not called when rotate_log fails, nor
 *                  for what the end of the process cuts short.
 * @return 0, or -1 with errno when the log was not renamed, also logged: that of rename(2), or
 *         EINVAL for a null or empty path or another level. Failures after that do not count.
 */
HTTPD_SUPPORT_EXPORT int rotate_log(const char* path, unsigned int count,
                                    unsigned int max_file_number, int level, bool compression,
                                    std::function<void()> callback);

/**
 * Returns when every copy handed in so far is compressed, its callback has returned and the thread
 * has ended; harmless when there is none. Not to be called from a callback.
 *
 * A process that ends without it interrupts the compression: the plain copy stays, and nothing half
 * done is left.
 */
HTTPD_SUPPORT_EXPORT void finish_log_compression();
