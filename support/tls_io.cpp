#include "support/tls_io.h"

#include "support/uncancelled.h"

#include <ace/SSL/SSL_SOCK_Stream.h>

#include <openssl/bio.h>
#include <openssl/err.h>

#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdint>

namespace {

int handle_of(BIO* bio)
{
    return static_cast<int>(reinterpret_cast<intptr_t>(BIO_get_data(bio)));
}

int bio_create(BIO* bio)
{
    BIO_set_init(bio, 1);
    return 1;
}

int bio_write(BIO* bio, const char* data, size_t length, size_t* written)
{
    BIO_clear_retry_flags(bio);
    for (;;) {
        const ssize_t sent =
            uncancelled_send(handle_of(bio), data, length, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent >= 0) {
            *written = static_cast<size_t>(sent);
            return 1;
        }
        if (errno != EINTR) {
            *written = 0;
            if (errno == EAGAIN) {
                BIO_set_retry_write(bio);
            }
            return -1;
        }
    }
}

int bio_read(BIO* bio, char* data, size_t length, size_t* received)
{
    BIO_clear_retry_flags(bio);
    for (;;) {
        const ssize_t count = uncancelled_recv(handle_of(bio), data, length, MSG_DONTWAIT);
        if (count > 0) {
            *received = static_cast<size_t>(count);
            return 1;
        }
        if (count == 0 || errno != EINTR) {
            *received = 0;
            if (count == 0) {
                BIO_set_flags(bio, BIO_FLAGS_IN_EOF);
            } else if (errno == EAGAIN) {
                BIO_set_retry_read(bio);
            }
            return count == 0 ? 0 : -1;
        }
    }
}

long bio_control(BIO* bio, int command, long, void* argument)
{
    switch (command) {
    case BIO_CTRL_FLUSH: // nothing is held back here
        return 1;
    case BIO_CTRL_EOF:
        return BIO_test_flags(bio, BIO_FLAGS_IN_EOF) != 0 ? 1 : 0;
    case BIO_C_GET_FD:
        if (argument != nullptr) {
            *static_cast<int*>(argument) = handle_of(bio);
        }
        return handle_of(bio);
    default:
        return 0;
    }
}

int socket_method_type()
{
    static const int type = BIO_get_new_index() | BIO_TYPE_SOURCE_SINK | BIO_TYPE_DESCRIPTOR;
    return type;
}

/// Made once and never freed: streams may still be closed while the process ends.
BIO_METHOD* socket_method()
{
    static BIO_METHOD* const method = [] {
        BIO_METHOD* made = BIO_meth_new(socket_method_type(), "socket without SIGPIPE");
        if (made != nullptr) {
            BIO_meth_set_create(made, bio_create);
            BIO_meth_set_write_ex(made, bio_write);
            BIO_meth_set_read_ex(made, bio_read);
            BIO_meth_set_ctrl(made, bio_control);
        }
        return made;
    }();
    return method;
}

bool has_own_bio(const SSL* ssl, int handle)
{
    BIO* const bio = SSL_get_rbio(ssl);
    return bio != nullptr && BIO_method_type(bio) == socket_method_type() &&
           handle_of(bio) == handle;
}

int replace_bio(SSL* ssl, int handle)
{
    BIO_METHOD* const method = socket_method();
    BIO* const bio = method != nullptr ? BIO_new(method) : nullptr;
    if (bio == nullptr) {
        ERR_clear_error();
        errno = ENOMEM;
        return -1;
    }
    BIO_set_data(bio, reinterpret_cast<void*>(static_cast<intptr_t>(handle)));
    SSL_set_bio(ssl, bio, bio); // takes the one reference for both directions
    return 0;
}

} // namespace

SSL* tls_ready(const ACE_SSL_SOCK_Stream& stream)
{
    SSL* const ssl = stream.ssl();
    const int handle = stream.get_handle();
    if (ssl == nullptr || handle == ACE_INVALID_HANDLE) {
        errno = ENOTCONN;
        return nullptr;
    }
    if (has_own_bio(ssl, handle)) {
        return ssl;
    }
    if (replace_bio(ssl, handle) == -1) {
        return nullptr;
    }
    SSL_set_options(ssl, SSL_OP_NO_RENEGOTIATION | SSL_OP_IGNORE_UNEXPECTED_EOF);
    // Auto-retry: a record without data (a key update) must not look like the end of what has been
    // read ahead, see Peer_Stream_IO_T::pending().
    SSL_set_mode(ssl, SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER |
                          SSL_MODE_RELEASE_BUFFERS | SSL_MODE_AUTO_RETRY);
    return ssl;
}

void tls_clear_errors()
{
    if (ERR_peek_error() != 0) {
        ERR_clear_error();
    }
}

int tls_outcome(SSL* ssl, int result)
{
    const int system_error = errno;
    const int code = SSL_get_error(ssl, result);
    tls_clear_errors();
    switch (code) {
    case SSL_ERROR_WANT_READ:
        return POLLIN;
    case SSL_ERROR_WANT_WRITE:
        return POLLOUT;
    case SSL_ERROR_ZERO_RETURN:
        return 0;
    case SSL_ERROR_SYSCALL:
        errno = system_error != 0 ? system_error : ECONNRESET;
        return -1;
    default:
        errno = EPROTO;
        return -1;
    }
}

void tls_say_goodbye(ACE_SSL_SOCK_Stream& stream)
{
    SSL* const ssl = tls_ready(stream);
    if (ssl == nullptr || SSL_in_init(ssl) != 0) {
        return;
    }
    if ((SSL_get_shutdown(ssl) & SSL_SENT_SHUTDOWN) == 0) {
        ERR_clear_error();
        SSL_shutdown(ssl); // the result says whether the peer has answered: nobody waits for it
        ERR_clear_error();
    }
}

int tls_detach(ACE_SSL_SOCK_Stream& stream)
{
    const int handle = stream.get_handle();
    stream.peer().set_handle(ACE_INVALID_HANDLE);
    stream.set_handle(ACE_INVALID_HANDLE);
    return handle;
}
