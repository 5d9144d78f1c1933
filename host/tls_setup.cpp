#include "host/tls_setup.h"

#include <ace/ACE.h>
#include <ace/SSL/SSL_Context.h>

#include <openssl/err.h>
#include <openssl/ssl.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <optional>

namespace {

/// Set where OpenSSL asks for a pass phrase: its own prompt would block on the terminal.
int refuse_pass_phrase(char* /*buffer*/, int /*size*/, int /*writing*/, void* asked)
{
    *static_cast<bool*>(asked) = true;
    return -1;
}

/// The reason of the oldest error: those behind it only tell which layers passed it on. Empties the
/// queue.
std::string openssl_reason()
{
    const unsigned long code = ERR_peek_error();
    const char* const reason = ERR_reason_error_string(code);
    std::string text = reason != nullptr ? reason : "unknown OpenSSL error";
    ERR_clear_error();
    return text;
}

/// Where OpenSSL finds nothing that it can decode as a key, it says no more than "unsupported".
std::string key_reason()
{
    const bool no_key = ERR_GET_REASON(ERR_peek_error()) == ERR_R_UNSUPPORTED;
    const std::string reason = openssl_reason();
    return no_key ? "the file holds no private key in PEM form (" + reason + ")" : reason;
}

/// OpenSSL's words for a missing or forbidden file are roundabout; the system's are not.
bool check_readable(const char* what, const std::string& file, std::string& error)
{
    const int fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
    struct stat info {};
    if (fd == -1 || ::fstat(fd, &info) == -1) {
        error = std::string("cannot read ") + what + " " + file + ": " + std::strerror(errno);
        if (fd != -1) {
            ::close(fd);
        }
        return false;
    }
    ::close(fd);
    if (S_ISDIR(info.st_mode)) {
        error = std::string("cannot read ") + what + " " + file + ": " + std::strerror(EISDIR);
        return false;
    }
    return true;
}

void set_policy(SSL_CTX* context)
{
    SSL_CTX_set_min_proto_version(context, TLS1_2_VERSION);
    SSL_CTX_set_max_proto_version(context, 0); // the newest that OpenSSL knows
    SSL_CTX_clear_options(context, SSL_OP_CIPHER_SERVER_PREFERENCE);
    // A peer that closes without close_notify has ended its side like any other, and renegotiation
    // (TLS 1.2) is only work that a client can make us do.
    SSL_CTX_set_options(context, SSL_OP_NO_RENEGOTIATION | SSL_OP_IGNORE_UNEXPECTED_EOF);
    // Idle connections are the many: give their record buffers back.
    SSL_CTX_set_mode(context, SSL_MODE_RELEASE_BUFFERS);
    // Without a context of their own, sessions cannot be resumed where certificates are verified.
    static constexpr unsigned char SESSION_CONTEXT[] = "httpd_host";
    SSL_CTX_set_session_id_context(context, SESSION_CONTEXT, sizeof SESSION_CONTEXT - 1);
}

/**
 * Keeps ACE from reading the system's certificate authorities into a new context, and their names
 * once more for requests of client certificates: some hundred files at every start, for a server
 * that asks for none. Without a place to look at, ACE passes them over, which it would report as an
 * error while debugging.
 */
class No_Trusted_Authorities {
public:
    No_Trusted_Authorities()
    {
        ACE::debug(false);
        file_.set("");
        directory_.set("");
    }
    ~No_Trusted_Authorities()
    {
        ACE::debug(debug_);
        ERR_clear_error();
    }
    No_Trusted_Authorities(const No_Trusted_Authorities&) = delete;
    No_Trusted_Authorities& operator=(const No_Trusted_Authorities&) = delete;

private:
    /// A variable of the environment, restored at the end. No other thread runs yet.
    class Variable {
    public:
        explicit Variable(const char* name) : name_(name)
        {
            if (const char* const value = std::getenv(name)) {
                old_ = value;
            }
        }
        ~Variable()
        {
            if (old_) {
                set(old_->c_str());
            } else {
                ::unsetenv(name_);
            }
        }
        Variable(const Variable&) = delete;
        Variable& operator=(const Variable&) = delete;

        void set(const char* value) { ::setenv(name_, value, 1); }

    private:
        const char* name_;
        std::optional<std::string> old_;
    };

    const bool debug_ = ACE::debug();
    Variable file_{"SSL_CERT_FILE"};
    Variable directory_{"SSL_CERT_DIR"};
};

bool create_context(ACE_SSL_Context& holder)
{
    const No_Trusted_Authorities none;
    return holder.set_mode(ACE_SSL_Context::SSLv23_server) == 0 && holder.context() != nullptr;
}

bool load_pair(SSL_CTX* context, const std::string& certificate, const std::string& private_key,
               std::string& error)
{
    if (!check_readable("TLS certificate", certificate, error) ||
        !check_readable("TLS private key", private_key, error)) {
        return false;
    }
    ERR_clear_error();
    if (SSL_CTX_use_certificate_chain_file(context, certificate.c_str()) != 1) {
        error = "cannot use TLS certificate " + certificate + ": " + openssl_reason();
        return false;
    }
    bool asked = false;
    SSL_CTX_set_default_passwd_cb(context, refuse_pass_phrase);
    SSL_CTX_set_default_passwd_cb_userdata(context, &asked);
    const int loaded = SSL_CTX_use_PrivateKey_file(context, private_key.c_str(), SSL_FILETYPE_PEM);
    SSL_CTX_set_default_passwd_cb(context, nullptr);
    SSL_CTX_set_default_passwd_cb_userdata(context, nullptr);
    if (loaded != 1 || SSL_CTX_check_private_key(context) != 1) {
        error = "cannot use TLS private key " + private_key + " with certificate " + certificate +
                ": " + (asked ? "the key is encrypted with a pass phrase" : key_reason());
        ERR_clear_error();
        return false;
    }
    return true;
}

} // namespace

bool setup_tls(const std::string& certificate, const std::string& private_key, std::string& error)
{
    ACE_SSL_Context* const holder = ACE_SSL_Context::instance();
    if (!create_context(*holder)) {
        error = "cannot create the TLS context: " + openssl_reason();
        return false;
    }
    set_policy(holder->context());
    return load_pair(holder->context(), certificate, private_key, error);
}
