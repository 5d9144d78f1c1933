#include "httpd/detail/outbox_backlog.h"

#include "httpd/detail/loop_io.h"
#include "support/websocket_data_frame.h"

#include <algorithm>
#include <cerrno>
#include <new>
#include <utility>

namespace {

/// A batch leaves with one system call; more than this gains nothing.
constexpr size_t BATCH_FRAMES = 16;
constexpr size_t BATCH_BYTES = 64 * 1024;

/// Room for messages that is kept when none is left.
constexpr size_t KEPT_MESSAGES = 1024;

/// A frame of a server (RFC 6455, section 5.2): no mask, and 2, 4 or 10 bytes in front.
size_t frame_size(const Outbox_Backlog::Posted& posted)
{
    const size_t payload = posted.message_->size();
    return payload + (payload <= 125 ? 2 : payload <= 0xFFFF ? 4 : 10);
}

} // namespace

void Outbox_Backlog::take(std::vector<Posted>& posted)
{
    this->drop_waiting();
    messages_.swap(posted);
    next_ = begun_ = 0;
}

bool Outbox_Backlog::begin_batch()
{
    size_t bytes = 0;
    while (begun_ < messages_.size() && begun_ - next_ < BATCH_FRAMES && bytes < BATCH_BYTES) {
        bytes += frame_size(messages_[begun_]);
        ++begun_;
    }
    return bytes > 0;
}

Outbox_Backlog::Result Outbox_Backlog::finish(Loop_IO& io)
{
    if (next_ < begun_) {
        const Result result = this->send_batch(io);
        if (result != SENT) {
            return result;
        }
    }
    return bytes_.empty() ? SENT : this->send_bytes(io);
}

Outbox_Backlog::Result Outbox_Backlog::send_batch(Loop_IO& io)
{
    constexpr bool FINAL = true;
    constexpr bool MASK = false;
    WebSocket_Data_Frame frames[BATCH_FRAMES];
    iovec iov[2 * BATCH_FRAMES];
    int count = 0;
    for (size_t i = next_; i < begun_; ++i) {
        const std::string& payload = *messages_[i].message_;
        WebSocket_Data_Frame& frame = frames[i - next_];
        frame.init(FINAL, messages_[i].binary_ ? 2 : 1, payload.size(), MASK);
        count += frame.to_iovec(iov + count, 2, payload.data(), payload.size());
    }
    iovec* first = iov;
    for (size_t skip = offset_; skip > 0;) {
        const size_t part = std::min(skip, first->iov_len);
        first->iov_base = static_cast<char*>(first->iov_base) + part;
        first->iov_len -= part;
        skip -= part;
        if (first->iov_len == 0) {
            ++first;
        }
    }
    const ssize_t taken = io.sendv_now(first, count - static_cast<int>(first - iov));
    if (taken == -1) {
        return FAILED;
    }
    this->leave(static_cast<size_t>(taken));
    return next_ == begun_ ? SENT : FULL;
}

/// Lets go of the messages of which the stream has taken the last byte.
void Outbox_Backlog::leave(size_t taken)
{
    taken_ += taken;
    offset_ += taken;
    while (next_ < begun_ && offset_ >= frame_size(messages_[next_])) {
        offset_ -= frame_size(messages_[next_]);
        released_ += cost(messages_[next_]);
        messages_[next_].message_.reset();
        ++next_;
    }
    if (next_ == messages_.size()) {
        this->drop_waiting();
    }
}

Outbox_Backlog::Result Outbox_Backlog::send_bytes(Loop_IO& io)
{
    const iovec rest{bytes_.data() + bytes_sent_, bytes_.size() - bytes_sent_};
    const ssize_t taken = io.sendv_now(&rest, 1);
    if (taken == -1) {
        return FAILED;
    }
    taken_ += static_cast<size_t>(taken);
    bytes_sent_ += static_cast<size_t>(taken);
    if (bytes_sent_ < bytes_.size()) {
        return FULL;
    }
    bytes_.clear();
    bytes_.shrink_to_fit();
    bytes_sent_ = 0;
    return SENT;
}

bool Outbox_Backlog::append(const iovec* iov, int count, size_t from, size_t limit)
{
    try {
        for (int i = 0; i < count; ++i) {
            if (from >= iov[i].iov_len) {
                from -= iov[i].iov_len;
                continue;
            }
            const size_t length = iov[i].iov_len - from;
            const size_t waiting = bytes_.size() - bytes_sent_;
            if (waiting > limit || length > limit - waiting) {
                errno = ENOBUFS;
                return false;
            }
            bytes_.append(static_cast<const char*>(iov[i].iov_base) + from, length);
            from = 0;
        }
        return true;
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
        return false;
    }
}

void Outbox_Backlog::drop_waiting()
{
    for (size_t i = begun_; i < messages_.size(); ++i) {
        released_ += cost(messages_[i]);
    }
    messages_.erase(messages_.begin() + static_cast<std::ptrdiff_t>(begun_), messages_.end());
    if (next_ == begun_) {
        messages_.clear();
        if (messages_.capacity() > KEPT_MESSAGES) {
            std::vector<Posted>().swap(messages_);
        }
        next_ = begun_ = 0;
    }
}

void Outbox_Backlog::clear()
{
    std::vector<Posted>().swap(messages_);
    next_ = begun_ = offset_ = bytes_sent_ = 0;
    std::string().swap(bytes_);
}

size_t Outbox_Backlog::take_released()
{
    return std::exchange(released_, 0);
}
