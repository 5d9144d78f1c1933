#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include <sys/types.h>

/// What the command line of bench_load says.
struct Load_Options {
    std::string mode_;
    int port_ = 0;
    std::string unix_path_; ///< empty: 127.0.0.1 and port_
    std::string path_;      ///< of the request
    std::string head_;      ///< a request's head as read from --head; empty: the default one
    size_t connections_ = 0;
    double warm_up_ = 0; ///< seconds
    double seconds_ = 0;
    std::uint64_t requests_ = 0; ///< 0: as many as go into seconds_
    size_t depth_ = 0;           ///< requests or messages sent at once
    size_t body_ = 0;            ///< bytes of an upload
    size_t chunk_ = 0;           ///< of an upload; 0: counted
    size_t message_ = 0;         ///< bytes of a WebSocket message
    bool websocket_ = false;     ///< of mode idle
    bool tls_ = false;           ///< of mode idle
    bool print_request_ = false;
    std::vector<pid_t> server_pids_;

    /// Ends the program on a wrong command line, and with what it asks for on --help.
    static Load_Options parse(int argc, char** argv);
};
