#include "tests/support/tls_fixture.h"

#include "tests/support/temp_dir.h"

#include <ace/SSL/SSL_Context.h>

#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <algorithm>
#include <cstdio>
#include <memory>

namespace {

using Key = std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)>;
using Certificate = std::unique_ptr<X509, decltype(&X509_free)>;
using File = std::unique_ptr<std::FILE, decltype(&std::fclose)>;

bool sign(X509* certificate, EVP_PKEY* key)
{
    constexpr long DAY = 24 * 60 * 60;
    X509_set_version(certificate, X509_VERSION_3);
    ASN1_INTEGER_set(X509_get_serialNumber(certificate), 1);
    X509_gmtime_adj(X509_getm_notBefore(certificate), -DAY);
    X509_gmtime_adj(X509_getm_notAfter(certificate), DAY);
    X509_NAME* const name = X509_get_subject_name(certificate);
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                               reinterpret_cast<const unsigned char*>("localhost"), -1, -1, 0);
    return X509_set_issuer_name(certificate, name) == 1 && X509_set_pubkey(certificate, key) == 1 &&
           X509_sign(certificate, key, EVP_sha256()) > 0;
}

bool write_files(const std::string& certificate_path, const std::string& key_path)
{
    const Key key(EVP_EC_gen("P-256"), EVP_PKEY_free);
    const Certificate certificate(X509_new(), X509_free);
    if (key == nullptr || certificate == nullptr || !sign(certificate.get(), key.get())) {
        return false;
    }
    const File certificate_file(std::fopen(certificate_path.c_str(), "w"), std::fclose);
    const File key_file(std::fopen(key_path.c_str(), "w"), std::fclose);
    return certificate_file != nullptr && key_file != nullptr &&
           PEM_write_X509(certificate_file.get(), certificate.get()) == 1 &&
           PEM_write_PrivateKey(key_file.get(), key.get(), nullptr, nullptr, 0, nullptr, nullptr) ==
               1;
}

bool configure_once()
{
    const Temp_Dir directory;
    const std::string certificate = directory.path("certificate.pem");
    const std::string key = directory.path("key.pem");
    ACE_SSL_Context* const context = ACE_SSL_Context::instance();
    return write_files(certificate, key) && context->set_mode(ACE_SSL_Context::SSLv23) == 0 &&
           context->certificate_chain(certificate.c_str()) == 0 &&
           context->private_key(key.c_str(), SSL_FILETYPE_PEM) == 0;
}

} // namespace

bool configure_tls()
{
    static const bool configured = configure_once();
    return configured;
}

Tls_Client::Tls_Client(int handle)
    : context_(SSL_CTX_new(TLS_client_method())), ssl_(SSL_new(context_))
{
    SSL_set_fd(ssl_, handle);
}

Tls_Client::~Tls_Client()
{
    SSL_free(ssl_);
    SSL_CTX_free(context_);
    ERR_clear_error();
}

bool Tls_Client::connect()
{
    return SSL_connect(ssl_) == 1;
}

bool Tls_Client::write(const std::string& text)
{
    return SSL_write(ssl_, text.data(), static_cast<int>(text.size())) ==
           static_cast<int>(text.size());
}

std::string Tls_Client::read(size_t length)
{
    std::string result;
    char buffer[16 * 1024];
    error_ = SSL_ERROR_NONE;
    while (result.size() < length) {
        const size_t most = std::min(sizeof buffer, length - result.size());
        const int count = SSL_read(ssl_, buffer, static_cast<int>(most));
        if (count <= 0) {
            error_ = SSL_get_error(ssl_, count);
            break;
        }
        result.append(buffer, static_cast<size_t>(count));
    }
    return result;
}

void Tls_Client::goodbye()
{
    SSL_shutdown(ssl_);
}
