#pragma once

#include "tests/support/host_process.h"

#include <algorithm>
#include <string>
#include <vector>

/// The lines of the host's log without their time, each "PRIORITY text".
inline std::vector<std::string> log_lines(const Host_Process& host)
{
    std::vector<std::string> lines = host.log();
    for (std::string& line : lines) {
        line.erase(0, line.find(' ') + 1);
    }
    return lines;
}

/// How many lines are exactly this.
inline size_t count_lines(const Host_Process& host, const std::string& line)
{
    const std::vector<std::string> lines = log_lines(host);
    return static_cast<size_t>(std::count(lines.begin(), lines.end(), line));
}

/// The texts of one priority ("ERROR"), in order.
inline std::vector<std::string> lines_of(const Host_Process& host, const std::string& priority)
{
    std::vector<std::string> texts;
    for (const std::string& line : log_lines(host)) {
        if (line.compare(0, priority.size() + 1, priority + " ") == 0) {
            texts.push_back(line.substr(priority.size() + 1));
        }
    }
    return texts;
}

/// Waits for a line that begins so, priority first.
inline bool wait_for_line(const Host_Process& host, const std::string& beginning)
{
    return host.wait_for_log(" " + beginning);
}
