#include "tests/support/tls_pieces.h"

#include <openssl/bio.h>
#include <openssl/err.h>

#include <cstdio>

Tls_Pieces::Tls_Pieces(std::unique_ptr<Wire_Client> wire, int version)
    : wire_(std::move(wire)), context_(SSL_CTX_new(TLS_client_method())), ssl_(nullptr),
      input_(BIO_new(BIO_s_mem())), output_(BIO_new(BIO_s_mem()))
{
    SSL_CTX_set_security_level(context_, 0); // what is refused, the server refuses
    SSL_CTX_set_min_proto_version(context_, version);
    SSL_CTX_set_max_proto_version(context_, version);
    ssl_ = SSL_new(context_);
    SSL_set_bio(ssl_, input_, output_);
}

Tls_Pieces::~Tls_Pieces()
{
    SSL_free(ssl_);
    SSL_CTX_free(context_);
}

std::unique_ptr<Tls_Pieces> Tls_Pieces::connect(std::unique_ptr<Wire_Client> wire, int version,
                                                const std::string& at_once)
{
    if (wire == nullptr) {
        return nullptr;
    }
    std::unique_ptr<Tls_Pieces> client(new Tls_Pieces(std::move(wire), version));
    return client->shake_hands(at_once) ? std::move(client) : nullptr;
}

bool Tls_Pieces::shake_hands(const std::string& at_once)
{
    for (;;) {
        ERR_clear_error();
        const int result = SSL_connect(ssl_);
        const int error = SSL_get_error(ssl_, result);
        std::string output = this->take_output();
        if (result == 1 && !at_once.empty()) {
            output += this->encrypt(at_once);
        }
        if (!output.empty() && !wire_->send(output)) {
            return false;
        }
        if (result == 1) {
            return true;
        }
        const std::string bytes = error == SSL_ERROR_WANT_READ ? wire_->receive() : std::string();
        if (bytes.empty()) {
            ERR_print_errors_fp(stderr);
            return false;
        }
        BIO_write(input_, bytes.data(), static_cast<int>(bytes.size()));
    }
}

std::string Tls_Pieces::take_output()
{
    std::string bytes(BIO_ctrl_pending(output_), '\0');
    if (!bytes.empty()) {
        BIO_read(output_, bytes.data(), static_cast<int>(bytes.size()));
    }
    return bytes;
}

std::string Tls_Pieces::encrypt(const std::string& text)
{
    SSL_write(ssl_, text.data(), static_cast<int>(text.size()));
    return this->take_output();
}

std::string Tls_Pieces::decrypt(const std::string& records)
{
    BIO_write(input_, records.data(), static_cast<int>(records.size()));
    std::string text;
    char buffer[16384];
    for (int count; (count = SSL_read(ssl_, buffer, sizeof buffer)) > 0;) {
        text.append(buffer, static_cast<size_t>(count));
    }
    return text;
}

std::string Tls_Pieces::read_until(const std::string& end)
{
    std::string text;
    while (text.find(end) == std::string::npos) {
        const std::string records = wire_->receive();
        if (records.empty()) {
            break;
        }
        text += this->decrypt(records);
    }
    return text;
}
