#pragma once

#include "bench/load/target.h"
#include "bench/load/tls_client.h"

#include <cstddef>
#include <string>
#include <string_view>
#include <utility>

/**
 * A blocking connection for what comes before the measuring: learning an answer, handshakes, the
 * request of an idle connection. Each wait ends after some seconds.
 */
class Client_Stream {
public:
    /// Connects; is_open() says whether that went well, errno why not.
    explicit Client_Stream(const Target& target);
    Client_Stream(const Client_Stream&) = delete;
    Client_Stream& operator=(const Client_Stream&) = delete;
    ~Client_Stream();

    bool is_open() const { return fd_ != -1; }

    /// Makes a TLS connection of it; false where the handshake fails.
    bool start_tls(const Tls_Client& client);

    bool send_all(std::string_view bytes);

    /// As recv: 0 at the end of the connection, -1 with EAGAIN when nothing came in time.
    ssize_t receive(char* buffer, size_t size);

    /// As receive(), but waits so many milliseconds only.
    ssize_t receive_within(char* buffer, size_t size, int milliseconds);

    /// Hands the descriptor out, to a caller that closes it.
    int release();

    /// Hands the TLS session out; what is left is the plain connection.
    Tls_Session release_tls() { return std::move(session_); }

private:
    int fd_;
    Tls_Session session_; ///< null: plain
};
