#pragma once

#include "tests/support/host_process.h"

#include <string>
#include <vector>

/// What a host did that was left to end by itself.
struct Host_Run {
    int status = 0;                   ///< exit status, or -signal
    std::string output;               ///< of standard output
    std::vector<std::string> lines;   ///< of standard error, with time and priority
    std::vector<std::string> refusal; ///< the texts of the lines of priority ERROR
};

/**
 * Runs the host program until it ends.
 *
 * @param host     words in front of "--"; with --log-level first where none is given
 * @param service  words behind it; none: no "--" either
 * @param wrapper  words that stand before the program (prlimit ...)
 */
Host_Run run_host(const std::vector<std::string>& host,
                  const std::vector<std::string>& service = {},
                  const std::vector<std::string>& wrapper = {});
