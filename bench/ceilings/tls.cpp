// OpenSSL directly, with read-ahead: one recv and one send per request of a kept connection.
#include "bench/ceilings/answer.h"
#include "bench/ceilings/event_loop.h"
#include "bench/ceilings/kinds.h"
#include "bench/ceilings/listener.h"
#include "bench/ceilings/options.h"
#include "bench/common/fail.h"
#include "bench/common/page_buffer.h"

#include <memory>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

struct Free_Session {
    void operator()(SSL* session) const { SSL_free(session); }
};

SSL_CTX* make_context(const Ceiling_Options& options)
{
    SSL_CTX* const context = SSL_CTX_new(TLS_server_method());
    if (context == nullptr || SSL_CTX_set_min_proto_version(context, TLS1_3_VERSION) != 1 ||
        SSL_CTX_use_certificate_chain_file(context, options.certificate_file_.c_str()) != 1 ||
        SSL_CTX_use_PrivateKey_file(context, options.key_file_.c_str(), SSL_FILETYPE_PEM) != 1 ||
        SSL_CTX_set_num_tickets(context, options.tickets_) != 1) {
        ERR_print_errors_fp(stderr);
        fail("the certificate or its key cannot be used");
    }
    SSL_CTX_set_read_ahead(context, 1);
    SSL_CTX_set_session_cache_mode(context, SSL_SESS_CACHE_OFF);
    return context;
}

class Tls_Server {
public:
    Tls_Server(const Ceiling_Options& options, bool keep_alive)
        : keep_alive_(keep_alive), answer_(constant_answer(keep_alive)), buffer_(options.buffer_),
          context_(make_context(options)), loop_(open_listener(options, false))
    {
    }

    [[noreturn]] void run()
    {
        loop_.run([this](int fd) { accepted(fd); },
                  [this](int fd, std::uint32_t) {
                      if (!ready(sessions_[static_cast<size_t>(fd)].get())) {
                          sessions_[static_cast<size_t>(fd)].reset();
                          close(fd);
                          ERR_clear_error();
                      }
                  });
    }

private:
    void accepted(int fd)
    {
        const size_t index = static_cast<size_t>(fd);
        if (index >= sessions_.size()) {
            sessions_.resize(index + 1);
        }
        SSL* const session = SSL_new(context_);
        if (session == nullptr || SSL_set_fd(session, fd) != 1) {
            fail("no TLS session can be made");
        }
        SSL_set_accept_state(session);
        sessions_[index].reset(session);
        loop_.add(fd);
    }

    /// False: the connection is to be closed.
    bool ready(SSL* session)
    {
        do {
            // This also carries the handshake on.
            const int received =
                SSL_read(session, buffer_.data(), static_cast<int>(buffer_.size()));
            if (received <= 0) {
                return SSL_get_error(session, received) == SSL_ERROR_WANT_READ;
            }
            if (SSL_write(session, answer_.data(), static_cast<int>(answer_.size())) <= 0) {
                return false;
            }
            if (!keep_alive_) {
                SSL_shutdown(session);
                return false;
            }
            // What was read ahead wakes nobody.
        } while (SSL_has_pending(session) != 0);
        return true;
    }

    bool keep_alive_;
    std::string answer_;
    Page_Buffer buffer_;
    SSL_CTX* context_;
    Event_Loop loop_;
    std::vector<std::unique_ptr<SSL, Free_Session>> sessions_; ///< by descriptor
};

} // namespace

void serve_tls(const Ceiling_Options& options)
{
    Tls_Server(options, true).run();
}

void serve_tls_close(const Ceiling_Options& options)
{
    Tls_Server(options, false).run();
}
