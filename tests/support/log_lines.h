#pragma once

#include "tests/support/host_process.h"
#include "tests/support/wire_client.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

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

/// How many lines of that priority are exactly this.
inline size_t count_log_lines(const Host_Process& host, const std::string& priority,
                              const std::string& text)
{
    const std::vector<std::string> texts = lines_of(host, priority);
    return static_cast<size_t>(std::count(texts.begin(), texts.end(), text));
}

/// Waits for exactly this line.
inline bool wait_for_log_line(const Host_Process& host, const std::string& priority,
                              const std::string& text)
{
    return host.wait_for_log(" " + priority + " " + text) &&
           count_log_lines(host, priority, text) > 0;
}

/// What the server calls this client, connected by IPv4: "127.0.0.1:54321".
inline std::string client_name(const Wire_Client& client)
{
    sockaddr_in address = {};
    socklen_t length = sizeof address;
    ::getsockname(client.handle(), reinterpret_cast<sockaddr*>(&address), &length);
    char host[INET_ADDRSTRLEN] = "";
    ::inet_ntop(AF_INET, &address.sin_addr, host, sizeof host);
    return std::string(host) + ":" + std::to_string(ntohs(address.sin_port));
}
