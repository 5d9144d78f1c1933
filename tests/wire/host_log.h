#pragma once

#include "tests/support/host_process.h"
#include "tests/support/wire_client.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <string>

/// How many log lines are exactly this: a timestamp, the priority, the text and nothing else.
inline size_t count_lines(const Host_Process& host, const std::string& priority,
                          const std::string& text)
{
    const std::string rest = priority + " " + text;
    size_t found = 0;
    for (const std::string& line : host.log()) {
        const size_t blank = line.find(' ');
        found += blank != std::string::npos && line.compare(blank + 1, std::string::npos, rest) == 0
                     ? 1U
                     : 0U;
    }
    return found;
}

/// Waits for exactly this line. @return false when it does not come in time.
inline bool has_line(const Host_Process& host, const std::string& priority, const std::string& text)
{
    return host.wait_for_log(" " + priority + " " + text) && count_lines(host, priority, text) > 0;
}

/// How a client's IPv4 address stands in the log lines of its connection.
inline std::string peer_text(const Wire_Client& client)
{
    sockaddr_in address = {};
    socklen_t length = sizeof address;
    ::getsockname(client.handle(), reinterpret_cast<sockaddr*>(&address), &length);
    char text[INET_ADDRSTRLEN] = "";
    ::inet_ntop(AF_INET, &address.sin_addr, text, sizeof text);
    return std::string(text) + ":" + std::to_string(ntohs(address.sin_port));
}
