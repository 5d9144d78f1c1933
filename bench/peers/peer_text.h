#pragma once

#include <cstdio>
#include <cstdlib>
#include <string_view>

/// What every server of the comparison answers with.
inline constexpr std::string_view PEER_TEXT = "Hello, World!";
inline constexpr const char* PEER_TYPE = "text/plain";

/// Connections that a peer is to bear.
inline constexpr unsigned PEER_CONNECTIONS = 65000;

/// The port that the command line names; ends the program when there is none.
inline unsigned short peer_port(int argc, char** argv)
{
    const long port = argc > 1 ? std::strtol(argv[1], nullptr, 10) : 0;
    if (port <= 0 || port > 65535) {
        std::fprintf(stderr, "usage: %s PORT\n", argc > 0 ? argv[0] : "peer");
        std::exit(2);
    }
    return static_cast<unsigned short>(port);
}

inline void peer_ready()
{
    std::puts("ready");
    std::fflush(stdout);
}
