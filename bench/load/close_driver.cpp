#include "bench/load/close_driver.h"

#include "bench/common/fail.h"
#include "bench/load/client_stream.h"
#include "bench/load/engine.h"
#include "bench/load/options.h"
#include "bench/load/request.h"

#include <cerrno>
#include <cstring>
#include <unistd.h>

namespace {

constexpr size_t RECEIVE_BUFFER = 0x40000;
constexpr std::uint32_t INPUT = EPOLLIN | EPOLLRDHUP;

} // namespace

Close_Driver::Close_Driver(const Load_Options& options, Load_Engine& engine)
    : engine_(engine), target_(options), request_(make_request(options)), buffer_(RECEIVE_BUFFER),
      slots_(options.connections_)
{
}

void Close_Driver::prepare()
{
    Client_Stream first;
    std::string why;
    if (!first.connect(target_, why) || !secure(first, why)) {
        fail("%s", why.c_str());
    }
    if (!first.send_all(request_)) {
        fail_errno("the request cannot be sent");
    }
    answer_ = learn_answer(first, true);
}

std::uint32_t Close_Driver::key_of(const Slot& slot) const
{
    return static_cast<std::uint32_t>(&slot - slots_.data());
}

void Close_Driver::begin()
{
    for (Slot& slot : slots_) {
        start(slot);
    }
}

void Close_Driver::start(Slot& slot)
{
    while (engine_.take(1) != 0) {
        slot = Slot();
        slot.sent_at_ = engine_.now();
        if (open(slot)) {
            return;
        }
        if (slot.fd_ != -1) {
            closing(slot);
            close(slot.fd_);
        }
        engine_.failed(1);
        engine_.read_clock();
    }
}

bool Close_Driver::open(Slot& slot)
{
    slot.fd_ = target_.begin_connect(slot.connecting_);
    if (slot.fd_ == -1) {
        return false;
    }
    opened(slot);
    if (!slot.connecting_) {
        const int sent = try_send(slot, request_);
        if (sent == -1) {
            return false;
        }
        slot.sent_ = sent == 1;
    }
    engine_.add(slot.fd_, key_of(slot), slot.connecting_ ? EPOLLOUT : INPUT);
    return true;
}

int Close_Driver::try_send(Slot& slot, const std::string& request)
{
    return send(slot.fd_, request.data(), request.size(), MSG_NOSIGNAL) ==
                   static_cast<ssize_t>(request.size())
               ? 1
               : -1;
}

ssize_t Close_Driver::receive_some(Slot& slot, char* buffer, size_t size, bool& end)
{
    const ssize_t received = recv(slot.fd_, buffer, size, 0);
    end = received == 0;
    return received;
}

void Close_Driver::ready(std::uint32_t key, std::uint32_t events)
{
    Slot& slot = slots_[key];
    if (slot.sent_) {
        finish(slot, receive(slot, events));
        return;
    }
    if (slot.connecting_) {
        slot.connecting_ = false;
        engine_.change(slot.fd_, key, INPUT);
    }
    const int sent = try_send(slot, request_);
    slot.sent_ = sent == 1;
    if (sent == -1) {
        engine_.read_clock();
        finish(slot, Progress::FAILED);
    }
}

Close_Driver::Progress Close_Driver::receive(Slot& slot, std::uint32_t events)
{
    bool end = false;
    const ssize_t received = receive_some(slot, buffer_.data(), buffer_.size(), end);
    engine_.read_clock();
    if (received == -1) {
        return errno == EAGAIN || errno == EINTR ? Progress::WAITS : Progress::FAILED;
    }
    const size_t size = static_cast<size_t>(received);
    const size_t begin = answer_.begin_.size();
    if (slot.received_ == 0 && size >= begin &&
        std::memcmp(buffer_.data(), answer_.begin_.data(), begin) != 0) {
        return Progress::FAILED;
    }
    engine_.received(size);
    slot.received_ += size;
    if (slot.received_ > answer_.length_) {
        return Progress::FAILED;
    }
    // The end was there before the recv where epoll said so: it needs no recv of its own, if all
    // that was to come before it has come.
    const bool whole = slot.received_ == answer_.length_;
    if (!end && ((events & EPOLLRDHUP) == 0 || !whole)) {
        return Progress::WAITS;
    }
    return whole ? Progress::ANSWERED : Progress::FAILED;
}

void Close_Driver::finish(Slot& slot, Progress progress)
{
    if (progress == Progress::WAITS) {
        return;
    }
    closing(slot);
    close(slot.fd_);
    if (progress == Progress::ANSWERED) {
        engine_.answered(slot.sent_at_);
    } else {
        engine_.failed(1);
    }
    start(slot);
}
