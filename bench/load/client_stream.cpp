#include "bench/load/client_stream.h"

#include <cerrno>
#include <cstring>
#include <poll.h>
#include <unistd.h>

Client_Stream::~Client_Stream()
{
    if (fd_ != -1) {
        close(fd_);
    }
}

bool Client_Stream::connect(const Target& target, std::string& why)
{
    fd_ = target.connect_and_wait();
    if (fd_ == -1) {
        why = std::string("cannot connect: ") + std::strerror(errno);
    }
    return fd_ != -1;
}

bool Client_Stream::start_tls(const Tls_Client& client, std::string& why)
{
    session_ = client.open(fd_);
    if (tls_handshake(session_) != 1) {
        why = "the TLS handshake fails";
        return false;
    }
    return true;
}

bool Client_Stream::send_all(std::string_view bytes)
{
    while (!bytes.empty()) {
        const ssize_t sent = session_ != nullptr
                                 ? tls_send(session_, bytes.data(), bytes.size())
                                 : send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (sent == -1 && errno != EINTR) {
            return false;
        }
        bytes.remove_prefix(sent > 0 ? static_cast<size_t>(sent) : 0);
    }
    return true;
}

ssize_t Client_Stream::receive(char* buffer, size_t size)
{
    for (;;) {
        bool end = false;
        const ssize_t received = session_ != nullptr ? tls_receive(session_, buffer, size, end)
                                                     : recv(fd_, buffer, size, 0);
        if (received != -1 || errno != EINTR) {
            return received;
        }
    }
}

ssize_t Client_Stream::receive_within(char* buffer, size_t size, int milliseconds)
{
    pollfd waited = {fd_, POLLIN, 0};
    if (poll(&waited, 1, milliseconds) == 1) {
        return receive(buffer, size);
    }
    errno = EAGAIN;
    return -1;
}

int Client_Stream::release()
{
    const int fd = fd_;
    fd_ = -1;
    return fd;
}
