#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

/// Applies the key to the bytes in place; `phase` is the number of bytes it was applied to before.
void unmask(char* data, size_t size, const unsigned char (&key)[4], std::uint64_t phase);

/// The answer to a request for an upgrade; empty where it is none (RFC 6455, section 4.2.2).
std::string upgrade_answer(const std::string& request);

/// What stands before the payload of a frame that a client sends (RFC 6455, section 5.2).
struct Client_Frame {
    size_t header_size_ = 0; ///< with the key
    std::uint64_t payload_size_ = 0;
    unsigned char key_[4] = {};

    /// False: the bytes do not hold a whole header.
    bool read(const char* data, size_t size);

    /// Puts the header that the server sends right before the payload, where the key was.
    char* place_server_header(char* frame) const;
};
