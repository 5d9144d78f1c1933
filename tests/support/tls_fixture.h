#pragma once

#include <openssl/ssl.h>

#include <string>

/**
 * Gives ACE_SSL_Context::instance() a self-signed certificate, once per process, so that TLS
 * streams can accept connections. The certificate's files are removed at once.
 * @return false when that failed.
 */
bool configure_tls();

/// The client's end of a TLS connection over a blocking descriptor, which it does not own. It
/// trusts every certificate.
class Tls_Client {
public:
    explicit Tls_Client(int handle);
    ~Tls_Client();
    Tls_Client(const Tls_Client&) = delete;
    Tls_Client& operator=(const Tls_Client&) = delete;

    bool connect();

    /// One record for each up to 16 KiB.
    bool write(const std::string& text);

    /// Up to `length` bytes, fewer at the end of the stream.
    std::string read(size_t length);

    /// Sends close_notify.
    void goodbye();

    /// What the last read() has ended with: SSL_ERROR_NONE, SSL_ERROR_ZERO_RETURN, ...
    int error() const { return error_; }

    SSL* ssl() const { return ssl_; }

private:
    SSL_CTX* context_;
    SSL* ssl_;
    int error_ = SSL_ERROR_NONE;
};
