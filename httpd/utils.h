#pragma once

#include "support/log.h"

#include <ace/OS_NS_ctype.h>
#include <ace/Time_Value.h>
#include <boost/optional.hpp>

#include <cerrno>
#include <limits>
#include <type_traits>

/**
 * The value parsers of the command line: plain integers, sizes with a binary unit, and durations.
 * A malformed value becomes a well-defined number; none of them throws.
 *
 * Where a text has an `end`, null means that its NUL ends it; a `stop` that is not null receives
 * the position at which reading stopped.
 */

/// ASCII lower case, whatever the locale.
constexpr char to_lower(char c)
{
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

/// The first position at or after `p` that is `end` or holds no white space.
inline const char* skip_space(const char* p, const char* end)
{
    while (p != end && ACE_OS::ace_isspace(*p)) {
        ++p;
    }
    return p;
}

/**
 * Reads a decimal integer: an optional sign, then digits; leading white space is not skipped.
 *
 * @return the number, with errno 0, also when other text follows the digits. Without a digit, or
 *         with "-" for an unsigned type: 0 with EINVAL. Beyond the type's range: its maximum with
 *         ERANGE, for a negative number too (deliberate).
 */
template <typename T, typename Ptr>
T natoi(Ptr begin, std::type_identity_t<Ptr> end, std::type_identity_t<Ptr>* stop)
{
    using U = std::make_unsigned_t<T>;
    if (stop != nullptr) {
        *stop = begin;
    }
    if (begin == nullptr || begin == end || *begin == '\0') {
        errno = EINVAL;
        return 0;
    }
    Ptr p = begin;
    const bool negative = *p == '-';
    if (negative && std::is_unsigned_v<T>) {
        errno = EINVAL;
        return 0;
    }
    if (negative || *p == '+') {
        ++p;
    }

    const U limit = static_cast<U>(U{std::numeric_limits<T>::max()} + (negative ? 1U : 0U));
    const Ptr digits = p;
    U value = 0;
    bool overflow = false;
    for (; p != end && *p >= '0' && *p <= '9'; ++p) {
        const U digit = static_cast<U>(*p - '0');
        if (value > limit / 10U || (value == limit / 10U && digit > limit % 10U)) {
            overflow = true;
            break;
        }
        value = static_cast<U>(value * 10U + digit);
    }
    if (stop != nullptr) {
        *stop = p;
    }
    if (overflow) {
        errno = ERANGE;
        return std::numeric_limits<T>::max();
    }
    if (p == digits) {
        errno = EINVAL;
        return 0;
    }
    errno = 0;
    return static_cast<T>(negative ? U{0} - value : value);
}

/// The power of two that a unit letter stands for, in any case; 0 when it is none.
constexpr int unit_shift(char letter)
{
    switch (to_lower(letter)) {
    case 'k':
        return 10;
    case 'm':
        return 20;
    case 'g':
        return 30;
    case 't':
        return 40;
    case 'p':
        return 50;
    case 'e':
        return 60;
    default:
        return 0;
    }
}

/**
 * Scales `value` by the unit letter at `p` (powers of 1024), saturating at the type's limits. A
 * unit too wide for the type saturates even a 0 (kept: "0t" as an int is the maximum).
 *
 * @param stop  set to `p` when that is no unit letter; otherwise left alone
 * @return whether `p` is a unit letter; `value` is unchanged when it is not.
 */
template <typename T>
bool parse_unit(const char* p, T& value, const char** stop)
{
    using U = std::make_unsigned_t<T>;
    using Limits = std::numeric_limits<T>;
    const int shift = unit_shift(*p);
    if (shift == 0) {
        if (stop != nullptr) {
            *stop = p;
        }
        return false;
    }
    const bool negative = value < T{0};
    const U magnitude = static_cast<U>(negative ? U{0} - static_cast<U>(value) : U(value));
    const bool too_wide = shift > Limits::digits - 1;
    if (too_wide || magnitude > static_cast<U>(Limits::max()) >> shift) {
        value = negative ? Limits::min() : Limits::max();
        return true;
    }
    const U scaled = static_cast<U>(magnitude << shift);
    value = static_cast<T>(negative ? U{0} - scaled : scaled);
    return true;
}

/**
 * Reads an integer with an optional unit: "10k", "10K", "10kb", "10KiB" and " 10 k" all give 10240.
 * Text behind it is left unread.
 *
 * @return 0 when there is no number, the type's maximum when it overflows (errno as natoi sets it).
 */
template <typename T>
T parse_size(const char* begin, const char* end, const char** stop)
{
    const auto stop_at = [stop](const char* p) {
        if (stop != nullptr) {
            *stop = p;
        }
    };
    const auto at_end = [end](const char* p) { return p == end || *p == '\0'; };

    if (begin == nullptr) {
        stop_at(begin);
        return 0;
    }
    const char* const number = skip_space(begin, end);
    if (at_end(number)) {
        stop_at(number);
        return 0;
    }
    const char* digits_end = number;
    T value = natoi<T, const char*>(number, end, &digits_end);
    if (errno != 0) {
        stop_at(number);
        return value;
    }
    const char* p = skip_space(digits_end, end);
    if (at_end(p)) {
        stop_at(digits_end);
        return value;
    }
    if (!parse_unit<T>(p, value, stop)) {
        return value;
    }
    ++p;
    if (!at_end(p) && to_lower(*p) == 'i') {
        ++p;
    }
    if (!at_end(p) && to_lower(*p) == 'b') {
        ++p;
    }
    stop_at(p);
    return value;
}

/**
 * Reads whole seconds, without a unit. A text without digits is 0 seconds.
 *
 * @param name     the option's name, for the error line
 * @param minimum  the least number of seconds that is accepted
 * @return absent, after one error line, when the number is below `minimum` or too large for an int.
 */
inline boost::optional<ACE_Time_Value> to_time_value(const char* name, const char* text,
                                                     int minimum)
{
    const int seconds = natoi<int, const char*>(text, nullptr, nullptr);
    if (minimum <= seconds && seconds < std::numeric_limits<int>::max()) {
        return ACE_Time_Value(seconds, 0);
    }
    HTTPD_ERROR("Invalid %s value %d, mininum %d.", name, seconds, minimum);
    return {};
}
