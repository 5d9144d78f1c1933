#include "bench/load/kept_driver.h"

#include "bench/common/fail.h"
#include "bench/load/client_stream.h"
#include "bench/load/engine.h"
#include "bench/load/options.h"

#include <cerrno>
#include <unistd.h>

Kept_Driver::Kept_Driver(const Load_Options& options, Load_Engine& engine,
                         const std::string& request, size_t receive_buffer)
    : engine_(engine), target_(options), depth_(options.depth_), request_size_(request.size()),
      buffer_(receive_buffer), connections_(options.connections_)
{
    requests_.reserve(depth_ * request_size_);
    for (size_t i = 0; i < depth_; ++i) {
        requests_ += request;
    }
}

void Kept_Driver::prepare()
{
    for (Connection& connection : connections_) {
        std::string why;
        if (!open(connection, why)) {
            fail("%s", why.c_str());
        }
    }
}

std::uint32_t Kept_Driver::key_of(const Connection& connection) const
{
    return static_cast<std::uint32_t>(&connection - connections_.data());
}

bool Kept_Driver::greet(Client_Stream&, std::string&)
{
    return true;
}

bool Kept_Driver::open(Client_Stream& stream, std::string& why)
{
    return stream.connect(target_, why) && greet(stream, why);
}

bool Kept_Driver::open(Connection& connection, std::string& why)
{
    Client_Stream stream;
    if (!open(stream, why)) {
        return false;
    }
    connection = Connection();
    connection.fd_ = stream.release();
    stop_blocking(connection.fd_);
    engine_.add(connection.fd_, key_of(connection), EPOLLIN);
    opened(connection, stream);
    return true;
}

void Kept_Driver::begin()
{
    for (Connection& connection : connections_) {
        start(connection);
    }
}

void Kept_Driver::start(Connection& connection)
{
    const size_t granted = engine_.take(depth_);
    if (granted != 0) {
        connection.batch_ = static_cast<std::uint32_t>(granted);
        connection.outstanding_ = connection.batch_;
        connection.unsent_ = granted * request_size_;
        connection.missing_ = granted * answer_length_;
        connection.sent_at_ = engine_.now();
        send_rest(connection);
    }
}

void Kept_Driver::send_rest(Connection& connection)
{
    const size_t end = connection.batch_ * request_size_;
    const ssize_t sent =
        send_some(connection, requests_.data() + (end - connection.unsent_), connection.unsent_);
    if (sent > 0) {
        connection.unsent_ -= static_cast<size_t>(sent);
    } else if (errno != EAGAIN && errno != EINTR) {
        lost(connection);
        return;
    }
    const bool waits = connection.unsent_ != 0;
    if (waits != connection.waits_to_send_) {
        connection.waits_to_send_ = waits;
        engine_.change(connection.fd_, key_of(connection), waits ? EPOLLIN | EPOLLOUT : EPOLLIN);
    }
}

void Kept_Driver::ready(std::uint32_t key, std::uint32_t events)
{
    Connection& connection = connections_[key];
    if ((events & ~static_cast<std::uint32_t>(EPOLLOUT)) != 0) {
        receive(connection);
    } else {
        send_rest(connection);
    }
}

ssize_t Kept_Driver::send_some(Connection& connection, const char* data, size_t size)
{
    return send(connection.fd_, data, size, MSG_NOSIGNAL);
}

ssize_t Kept_Driver::receive_some(Connection& connection, char* buffer, size_t size)
{
    return recv(connection.fd_, buffer, size, 0);
}

void Kept_Driver::receive(Connection& connection)
{
    size_t size = 0;
    do {
        const ssize_t received = receive_some(connection, buffer_.data(), buffer_.size());
        if (received <= 0) {
            if (received == 0 || (errno != EAGAIN && errno != EINTR)) {
                lost(connection);
            }
            return;
        }
        size = static_cast<size_t>(received);
        engine_.read_clock();
        engine_.received(size);
        // An answer to a request that has not been sent whole is one to something else.
        if (!take_answers(connection, buffer_.data(), size) ||
            (connection.outstanding_ == 0 && connection.unsent_ != 0)) {
            lost(connection);
            return;
        }
    } while (connection.outstanding_ != 0 && size == buffer_.size());
    if (connection.outstanding_ == 0) {
        start(connection);
    }
}

/// The connection cannot be used on: counts what it owes, opens another and goes on there.
void Kept_Driver::lost(Connection& connection)
{
    closing(connection);
    close(connection.fd_);
    engine_.failed(connection.outstanding_);
    std::string why;
    while (!open(connection, why)) {
        engine_.refused(why);
    }
    start(connection);
}
