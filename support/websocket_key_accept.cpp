#include "support/websocket_key_accept.h"

#include <openssl/evp.h>

#include <cerrno>
#include <cstring>
#include <memory>

int websocket_key_accept(const char* key, char* out)
{
    static constexpr char PROTOCOL_GUID[] = "258EAFA5-E914-47DA-95CA-C5AB0DC85B11";
    if (key == nullptr || out == nullptr) {
        errno = EINVAL;
        return -1;
    }
    const std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> sha1(EVP_MD_CTX_new(),
                                                                       &EVP_MD_CTX_free);
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    if (sha1 == nullptr || EVP_DigestInit_ex(sha1.get(), EVP_sha1(), nullptr) != 1 ||
        EVP_DigestUpdate(sha1.get(), key, std::strlen(key)) != 1 ||
        EVP_DigestUpdate(sha1.get(), PROTOCOL_GUID, sizeof PROTOCOL_GUID - 1) != 1 ||
        EVP_DigestFinal_ex(sha1.get(), digest, &length) != 1) {
        errno = ENOMEM;
        return -1;
    }
    EVP_EncodeBlock(reinterpret_cast<unsigned char*>(out), digest, static_cast<int>(length));
    return 0;
}
