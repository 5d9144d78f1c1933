#pragma once

#include <cstddef>
#include <string>

/// What the command line of bench_ceiling says.
struct Ceiling_Options {
    std::string kind_;
    int port_ = 0;
    std::string unix_path_; ///< empty: 127.0.0.1 and port_
    std::string certificate_file_;
    std::string key_file_;
    std::string file_;
    size_t buffer_ = 0;        ///< bytes of a receive buffer
    size_t request_bytes_ = 0; ///< bytes of one request, for the kinds that count them
    unsigned tickets_ = 0;     ///< TLS session tickets sent after a handshake

    /// Ends the program on a wrong command line, with its text on --help.
    static Ceiling_Options parse(int argc, char** argv);
};
