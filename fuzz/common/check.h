#pragma once

/// Ends the process with a line that names what was found wrong: to libFuzzer a crash, to the
/// replay a failed test.
[[noreturn]] void fuzz_fail(const char* file, int line, const char* message);

/// A property that every input must keep. Holds in every kind of build.
#define FUZZ_CHECK(CONDITION, MESSAGE)                                                             \
    do {                                                                                           \
        if (!(CONDITION)) {                                                                        \
            fuzz_fail(__FILE__, __LINE__, MESSAGE);                                                \
        }                                                                                          \
    } while (false)

/// Switches the server's log lines off: an input may bring about thousands. Called first by every
/// target whose code logs.
void fuzz_quiet_log();
