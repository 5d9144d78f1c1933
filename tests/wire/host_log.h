#pragma once

#include "tests/support/host_process.h"
#include "tests/support/probe_server.h"
#include "tests/support/wire_client.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <atomic>
#include <string>

// The log of a host is read by a thread of the test, so a line may come later than the response
// that was sent after it. What is expected is waited for; what is counted is counted when a line
// that was logged later has come.

/// How many log lines are exactly this: a timestamp, the priority, the text and nothing else.
inline size_t count_lines_so_far(const Host_Process& host, const std::string& priority,
                                 const std::string& text)
{
    const std::string rest = priority + " " + text;
    size_t found = 0;
    for (const std::string& line : host.log()) {
        const size_t blank = line.find(' ');
        const bool same =
            blank != std::string::npos && line.compare(blank + 1, std::string::npos, rest) == 0;
        found += same ? 1U : 0U;
    }
    return found;
}

/// Waits for exactly this line. @return false when it does not come in time.
inline bool has_line(const Host_Process& host, const std::string& priority, const std::string& text)
{
    const std::string part = " " + priority + " " + text;
    // Lines that only begin like this one may come before it.
    for (size_t others = 0; host.wait_for_log_count(part, others + 1);
         others = host.count_log(part)) {
        if (count_lines_so_far(host, priority, text) > 0) {
            return true;
        }
    }
    return false;
}

/// Returns when all has come that the host (at level debug or trace) has logged before this call.
inline void flush_log(Probe_Server& server)
{
    static std::atomic<unsigned> counter{0};
    const std::string target = "/marker-" + std::to_string(++counter);
    const auto client = server.connect();
    if (client == nullptr) {
        return; // the log has ended, or the test fails anyway
    }
    client->send(get_request(target));
    server.host().wait_for_log("Not found HTTP uri '" + target + "'.");
}

/// How many lines are exactly this, of all that the host has logged before this call.
inline size_t count_lines(Probe_Server& server, const std::string& priority,
                          const std::string& text)
{
    flush_log(server);
    return count_lines_so_far(server.host(), priority, text);
}

/// How many lines hold `text`, of all that the host has logged before this call.
inline size_t count_log(Probe_Server& server, const std::string& text)
{
    flush_log(server);
    return server.host().count_log(text);
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
