#include "bench/load/tls_client.h"

#include "bench/common/fail.h"

#include <cerrno>
#include <csignal>
#include <openssl/err.h>
#include <openssl/ssl.h>

namespace {

/// What a failed call means, as errno; 0: the server ended the connection.
int error_of(const Tls_Session& session, int result)
{
    const int error = SSL_get_error(session.get(), result);
    ERR_clear_error();
    switch (error) {
    case SSL_ERROR_WANT_READ:
    case SSL_ERROR_WANT_WRITE:
        return EAGAIN;
    case SSL_ERROR_ZERO_RETURN:
        return 0;
    default:
        return ECONNABORTED;
    }
}

} // namespace

void Free_Tls::operator()(ssl_st* session) const
{
    SSL_free(session);
}

void Free_Tls::operator()(ssl_ctx_st* context) const
{
    SSL_CTX_free(context);
}

Tls_Client::Tls_Client() : context_(SSL_CTX_new(TLS_client_method()))
{
    if (context_ == nullptr || SSL_CTX_set_min_proto_version(context_.get(), TLS1_3_VERSION) != 1) {
        fail("no TLS context can be made");
    }
    SSL_CTX_set_read_ahead(context_.get(), 1);
    SSL_CTX_set_session_cache_mode(context_.get(), SSL_SESS_CACHE_OFF);
    // A server that closes without close_notify: the answer's length tells whether it is whole.
    SSL_CTX_set_options(context_.get(), SSL_OP_IGNORE_UNEXPECTED_EOF);
    // OpenSSL writes without MSG_NOSIGNAL.
    std::signal(SIGPIPE, SIG_IGN);
}

Tls_Session Tls_Client::open(int fd) const
{
    Tls_Session session(SSL_new(context_.get()));
    if (session == nullptr || SSL_set_fd(session.get(), fd) != 1) {
        fail("no TLS session can be made");
    }
    SSL_set_connect_state(session.get());
    return session;
}

int tls_handshake(const Tls_Session& session)
{
    const int result = SSL_do_handshake(session.get());
    if (result == 1) {
        return 1;
    }
    return error_of(session, result) == EAGAIN ? 0 : -1;
}

ssize_t tls_send(const Tls_Session& session, const char* data, size_t size)
{
    size_t sent = 0;
    if (SSL_write_ex(session.get(), data, size, &sent) == 1) {
        return static_cast<ssize_t>(sent);
    }
    const int error = error_of(session, 0);
    errno = error == 0 ? ECONNABORTED : error;
    return -1;
}

ssize_t tls_receive(const Tls_Session& session, char* buffer, size_t size, bool& end)
{
    size_t have = 0;
    end = false;
    do {
        size_t received = 0;
        if (SSL_read_ex(session.get(), buffer + have, size - have, &received) != 1) {
            const int error = error_of(session, 0);
            end = error == 0;
            if (have == 0 && error != 0) {
                errno = error;
                return -1;
            }
            break;
        }
        have += received;
    } while (have < size && SSL_has_pending(session.get()) != 0);
    return static_cast<ssize_t>(have);
}
