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
    Client_Stream() = default;
    Client_Stream(const Client_Stream&) = delete;
    Client_Stream& operator=(const Client_Stream&) = delete;
    ~Client_Stream();

    // False, and why, where they fail.
    bool connect(const Target& target, std::string& why);
    bool start_tls(const Tls_Client& client, std::string& why);

    /// False, with errno, where it fails.
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
    int fd_ = -1;
    Tls_Session session_; ///< null: plain
};
