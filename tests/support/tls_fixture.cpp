#include "tests/support/tls_fixture.h"

#include "tests/support/temp_dir.h"
#include "tests/support/tls_files.h"

#include <ace/SSL/SSL_Context.h>

#include <openssl/err.h>

#include <algorithm>

namespace {

bool configure_once()
{
    const Temp_Dir directory;
    const Tls_Files files = write_tls_files(directory.path("."));
    ACE_SSL_Context* const context = ACE_SSL_Context::instance();
    return context->set_mode(ACE_SSL_Context::SSLv23) == 0 &&
           context->certificate_chain(files.certificate.c_str()) == 0 &&
           context->private_key(files.private_key.c_str(), SSL_FILETYPE_PEM) == 0;
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
