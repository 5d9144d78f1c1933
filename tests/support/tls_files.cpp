#include "tests/support/tls_files.h"

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <cstdio>
#include <memory>
#include <stdexcept>

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

File open_file(const std::string& path)
{
    File file(std::fopen(path.c_str(), "w"), std::fclose);
    if (file == nullptr) {
        throw std::runtime_error("cannot write " + path);
    }
    return file;
}

} // namespace

Tls_Files write_tls_files(const std::string& folder)
{
    const Tls_Files paths = {folder + "/certificate.pem", folder + "/key.pem"};
    const Key key(EVP_EC_gen("P-256"), EVP_PKEY_free);
    const Certificate certificate(X509_new(), X509_free);
    const bool written =
        key != nullptr && certificate != nullptr && sign(certificate.get(), key.get()) &&
        PEM_write_X509(open_file(paths.certificate).get(), certificate.get()) == 1 &&
        PEM_write_PrivateKey(open_file(paths.private_key).get(), key.get(), nullptr, nullptr, 0,
                             nullptr, nullptr) == 1;
    if (!written) {
        throw std::runtime_error("cannot make a certificate in " + folder);
    }
    return paths;
}
