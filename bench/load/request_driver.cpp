#include "bench/load/request_driver.h"

#include "bench/common/fail.h"
#include "bench/load/client_stream.h"
#include "bench/load/engine.h"
#include "bench/load/options.h"
#include "bench/load/request.h"

#include <cerrno>
#include <cstring>
#include <unistd.h>

namespace {

constexpr size_t RECEIVE_BUFFER = 256 * 1024;

} // namespace

Request_Driver::Request_Driver(const Load_Options& options, Load_Engine& engine)
    : engine_(engine), target_(options), requests_(make_request(options)),
      request_size_(requests_.size()), depth_(options.depth_), buffer_(RECEIVE_BUFFER),
      connections_(options.connections_)
{
    const std::string request = requests_;
    for (size_t i = 1; i < depth_; ++i) {
        requests_ += request;
    }
}

void Request_Driver::prepare()
{
    Client_Stream first(target_);
    if (!first.is_open() || !first.send_all(std::string_view(requests_).substr(0, request_size_))) {
        fail_errno("cannot connect");
    }
    answer_ = learn_answer(first, false);
    for (Connection& connection : connections_) {
        if (!open(connection)) {
            fail_errno("cannot connect");
        }
    }
}

std::uint32_t Request_Driver::key_of(const Connection& connection) const
{
    return static_cast<std::uint32_t>(&connection - connections_.data());
}

bool Request_Driver::open(Connection& connection)
{
    connection = Connection();
    connection.fd_ = target_.connect_and_wait();
    if (connection.fd_ == -1) {
        return false;
    }
    stop_blocking(connection.fd_);
    engine_.add(connection.fd_, key_of(connection), EPOLLIN);
    return true;
}

void Request_Driver::begin()
{
    for (Connection& connection : connections_) {
        start(connection);
    }
}

void Request_Driver::start(Connection& connection)
{
    const size_t granted = engine_.take(depth_);
    if (granted != 0) {
        connection.batch_ = static_cast<std::uint32_t>(granted);
        connection.outstanding_ = connection.batch_;
        connection.unsent_ = granted * request_size_;
        connection.missing_ = granted * answer_.length_;
        connection.sent_at_ = engine_.now();
        send_rest(connection);
    }
}

void Request_Driver::send_rest(Connection& connection)
{
    const size_t end = connection.batch_ * request_size_;
    const ssize_t sent = send(connection.fd_, requests_.data() + (end - connection.unsent_),
                              connection.unsent_, MSG_NOSIGNAL);
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

void Request_Driver::ready(std::uint32_t key, std::uint32_t events)
{
    Connection& connection = connections_[key];
    if ((events & ~static_cast<std::uint32_t>(EPOLLOUT)) != 0) {
        receive(connection);
    } else {
        send_rest(connection);
    }
}

void Request_Driver::receive(Connection& connection)
{
    const ssize_t received = recv(connection.fd_, buffer_.data(), buffer_.size(), 0);
    if (received <= 0) {
        if (received == 0 || (errno != EAGAIN && errno != EINTR)) {
            lost(connection);
        }
        return;
    }
    engine_.read_clock();
    engine_.received(static_cast<size_t>(received));
    if (!take_answers(connection, static_cast<size_t>(received))) {
        lost(connection);
    } else if (connection.outstanding_ == 0) {
        start(connection);
    }
}

/// False: what has come cannot be the answers to what was sent.
bool Request_Driver::take_answers(Connection& connection, size_t received)
{
    const size_t length = answer_.length_;
    const size_t begin = answer_.begin_.size();
    if (received > connection.missing_) {
        return false;
    }
    if (connection.missing_ == connection.batch_ * length && received >= begin &&
        std::memcmp(buffer_.data(), answer_.begin_.data(), begin) != 0) {
        return false;
    }
    connection.missing_ -= received;
    while (connection.outstanding_ != 0 &&
           connection.missing_ <= (connection.outstanding_ - 1) * length) {
        --connection.outstanding_;
        engine_.answered(connection.sent_at_);
    }
    // An answer to a request that has not been sent whole is one to something else.
    return connection.outstanding_ != 0 || connection.unsent_ == 0;
}

/// The connection cannot be used on: counts what it owes, opens another and goes on there.
void Request_Driver::lost(Connection& connection)
{
    close(connection.fd_);
    engine_.failed(connection.outstanding_);
    while (!open(connection)) {
        engine_.refused();
    }
    start(connection);
}
