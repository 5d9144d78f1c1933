#pragma once

#include <cstddef>
#include <memory>
#include <sys/types.h>

struct ssl_st;
struct ssl_ctx_st;

struct Free_Tls {
    void operator()(ssl_st* session) const;
    void operator()(ssl_ctx_st* context) const;
};

using Tls_Session = std::unique_ptr<ssl_st, Free_Tls>;

/// The client's end of TLS 1.3 connections: reads ahead, resumes nothing, trusts any certificate.
class Tls_Client {
public:
    Tls_Client();

    /// A session over the descriptor, before its handshake.
    Tls_Session open(int fd) const;

private:
    std::unique_ptr<ssl_ctx_st, Free_Tls> context_;
};

/// Carries the handshake on: 1 it is done, 0 it waits for input, -1 it failed.
int tls_handshake(const Tls_Session& session);

/// As send(): EAGAIN where the socket takes nothing now; a record is written whole or again.
ssize_t tls_send(const Tls_Session& session, const char* data, size_t size);

/**
 * As recv(), but takes all that has been received, also what was read ahead, as nothing else would
 * tell of it.
 *
 * @param end  true: the server has ended the connection behind these bytes
 */
ssize_t tls_receive(const Tls_Session& session, char* buffer, size_t size, bool& end);
