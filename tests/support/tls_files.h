#pragma once

#include <string>

/// Paths of PEM files for a TLS listener.
struct Tls_Files {
    std::string certificate;
    std::string private_key;
};

/// Writes a new key and its self-signed certificate ("localhost", valid for a day) into `folder`.
/// @throws std::runtime_error
Tls_Files write_tls_files(const std::string& folder);
