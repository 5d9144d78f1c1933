#pragma once

/**
 * Ends the program with status 1 and one line on standard error: its name, ": " and the text.
 *
 * For programs of the benchmarks only: what goes wrong before or beside the measuring leaves
 * nothing to report.
 */
[[noreturn, gnu::format(printf, 1, 2)]] void fail(const char* format, ...);

/// As fail(), with ": " and the text of errno at the end.
[[noreturn, gnu::format(printf, 1, 2)]] void fail_errno(const char* format, ...);

/// Warns in the same form and returns.
[[gnu::format(printf, 1, 2)]] void warn(const char* format, ...);
