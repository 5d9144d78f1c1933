#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <string>

/// "a.b.c.d:port" of an IPv4 socket's own side: what the server calls its peer.
inline std::string local_name_of(int handle)
{
    sockaddr_in address = {};
    socklen_t length = sizeof address;
    char text[INET_ADDRSTRLEN] = "";
    if (::getsockname(handle, reinterpret_cast<sockaddr*>(&address), &length) == -1 ||
        ::inet_ntop(AF_INET, &address.sin_addr, text, sizeof text) == nullptr) {
        return "";
    }
    return std::string(text) + ":" + std::to_string(ntohs(address.sin_port));
}
