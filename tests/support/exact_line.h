#pragma once

#include "tests/support/host_process.h"

#include <algorithm>
#include <string>
#include <vector>

/// The texts of the host's log lines with one priority ("ERROR"), in order.
inline std::vector<std::string> texts_of(const Host_Process& host, const std::string& priority)
{
    const std::string mark = " " + priority + " "; // behind the time
    std::vector<std::string> texts;
    for (const std::string& line : host.log()) {
        const size_t time_end = std::min(line.find(' '), line.size());
        if (line.compare(time_end, mark.size(), mark) == 0) {
            texts.push_back(line.substr(time_end + mark.size()));
        }
    }
    return texts;
}

/// Waits for a line that is exactly this behind its time: "PRIORITY text".
inline bool wait_for_exact_line(const Host_Process& host, const std::string& line)
{
    const size_t priority_end = line.find(' ');
    if (!host.wait_for_log(" " + line)) {
        return false;
    }
    const std::vector<std::string> texts = texts_of(host, line.substr(0, priority_end));
    return std::count(texts.begin(), texts.end(), line.substr(priority_end + 1)) > 0;
}
