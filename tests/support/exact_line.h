#pragma once

#include "tests/support/host_process.h"
#include "tests/support/log_lines.h"

#include <string>

/// Waits for a line that is exactly this, but for its time: "PRIORITY text".
inline bool wait_for_exact_line(const Host_Process& host, const std::string& line)
{
    return host.wait_for_log(" " + line) && count_lines(host, line) > 0;
}
