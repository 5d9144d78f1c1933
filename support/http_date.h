#pragma once

#include "support/export.h"

#include <cstddef>
#include <ctime>
#include <string_view>

enum : size_t {
    HTTP_DATE_LENGTH = 29,                           ///< "Sun, 06 Nov 1994 08:49:37 GMT"
    HTTP_DATE_SIZE = HTTP_DATE_LENGTH + 1,           ///< the same with its NUL
    HTTP_DATE_LINE_LENGTH = 6 + HTTP_DATE_LENGTH + 2 ///< "Date: ", the date, CR LF
};

/**
 * Writes `when` as an IMF-fixdate (RFC 9110, section 5.6.7), independent of locale and time zone.
 *
 * @param when  seconds since 1970-01-01 00:00:00 UTC; a time outside the years 0 to 9999, which the
 *              format cannot express, is written as the nearest that it can.
 * @param text  room for HTTP_DATE_SIZE bytes; NUL-terminated afterwards.
 * @return HTTP_DATE_LENGTH. Any thread.
 */
HTTPD_SUPPORT_EXPORT size_t http_date_format(time_t when, char* text);

/**
 * Reads an HTTP-date in any of its three forms: IMF-fixdate, the obsolete RFC 850 form and that of
 * asctime() (RFC 9110, section 5.6.7). The name of the day must be one, but need not be right. A
 * two-digit year that seems more than 50 years in the future is taken for one of the past.
 *
 * @param text  the whole value, without blanks around it; null is refused.
 * @param when  receives seconds since 1970-01-01 00:00:00 UTC; untouched on failure.
 * @return false when the text is not an HTTP-date. Any thread.
 */
HTTPD_SUPPORT_EXPORT bool http_date_parse(const char* text, time_t& when);

/// The same with the present time given, which only the RFC 850 form needs.
HTTPD_SUPPORT_EXPORT bool http_date_parse(const char* text, time_t& when, time_t now);

/**
 * The complete Date field line of this second, CR LF included. One text per second and thread, so
 * that a response costs a look at the clock and no formatting; the view lives until the thread's
 * next call.
 */
HTTPD_SUPPORT_EXPORT std::string_view http_date_line();
