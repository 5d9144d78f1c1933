#include "httpd/websocket_outbox.h"

#include "httpd/detail/loop_io.h"
#include "httpd/detail/outbox_backlog.h"
#include "support/log.h"

#include <ace/Event_Handler.h>
#include <ace/Reactor.h>
#include <ace/Time_Value.h>

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <mutex>
#include <new>
#include <utility>

namespace {

/// How soon to look again at an output of which nothing tells when it has room: shared memory, or
/// a process without a descriptor to spare.
const ACE_Time_Value RETRY_DELAY(0, 20'000);

/// Batches that one upcall sends before the loop's other connections have their turn.
constexpr int BATCHES_AT_ONCE = 16;

/// Stands behind a closed outbox: the connection ends, and its last frame is not waited for.
class Last_Frames final : public Frame_Output {
public:
    ssize_t write_frame(Loop_IO& io, const iovec* iov, int count) override
    {
        size_t total = 0;
        for (int i = 0; i < count; ++i) {
            total += iov[i].iov_len;
        }
        const ssize_t taken = io.sendv_now(iov, count);
        if (taken != -1 && static_cast<size_t>(taken) < total) {
            errno = EAGAIN;
            return -1;
        }
        return taken;
    }
};

/// The same when a frame was cut in its middle: nothing can follow it.
class No_Frames final : public Frame_Output {
public:
    ssize_t write_frame(Loop_IO&, const iovec*, int) override
    {
        errno = EPIPE;
        return -1;
    }
};

Last_Frames last_frames;
No_Frames no_frames;

/// Keeps a connection while its outbox is at work in its loop.
class Connection_Guard {
public:
    explicit Connection_Guard(Loop_IO& io) : io_(io) { io_.add_reference(); }
    ~Connection_Guard() { io_.remove_reference(); }
    Connection_Guard(const Connection_Guard&) = delete;
    Connection_Guard& operator=(const Connection_Guard&) = delete;

private:
    Loop_IO& io_;
};

} // namespace

/**
 * The outbox as a handler of the event loop. It outlives the outbox while the loop still has a
 * notification or a timer for it.
 *
 * Posting threads and the loop share what the mutex guards; all else is the loop's. The mutex is
 * held while the loop is woken: close() therefore comes before or behind it, and the loop outlives
 * every connection.
 */
class WebSocket_Outbox::Impl final : public ACE_Event_Handler, private Frame_Output {
public:
    Impl(Loop_IO& io, ACE_Reactor& loop, size_t limit) : limit_(limit), loop_(loop), io_(&io)
    {
        this->reference_counting_policy().value(Reference_Counting_Policy::ENABLED);
        io.frame_output(this);
    }

    bool post(Message message, bool binary);
    bool is_open() const { return !closed_.load(std::memory_order_relaxed); }
    void close();

    // ACE sets the reactor of a handler at each call, from any thread, and asks it once more when
    // the handler goes: this one knows its loop better.
    void reactor(ACE_Reactor*) override {}
    ACE_Reactor* reactor() const override { return nullptr; }
    // In our own code, so that ThreadSanitizer sees who is done before the last one deletes it.
    Reference_Count add_reference() override
    {
        return this->reference_count_.fetch_add(1, std::memory_order_relaxed) + 1;
    }
    Reference_Count remove_reference() override
    {
        const Reference_Count left =
            this->reference_count_.fetch_sub(1, std::memory_order_acq_rel) - 1;
        if (left == 0) {
            delete this;
        }
        return left;
    }

    ACE_HANDLE get_handle() const override { return room_handle_; }
    int handle_exception(ACE_HANDLE handle) override;
    int handle_output(ACE_HANDLE handle) override;
    int handle_timeout(const ACE_Time_Value& now, const void* act) override;

private:
    enum Progress { FAILED, DONE, FULL, MORE };

    ~Impl() override = default;

    ssize_t write_frame(Loop_IO& io, const iovec* iov, int count) override;
    bool wake();
    void drain();
    Progress advance();
    Progress finish();
    bool take_posted();
    void drop();
    void end();
    void wait_for_room();
    void stop_waiting();
    void schedule_retry();
    void cancel(long& timer);

    std::mutex mutex_;
    std::vector<Outbox_Backlog::Posted> posted_;
    size_t queued_ = 0;               ///< what waits, here and in the backlog, counts so much
    bool woken_ = false;              ///< the loop will look at posted_ without being told again
    std::atomic<bool> closed_{false}; ///< nothing is queued any more; written under the mutex
    std::atomic<bool> overflowed_{false};

    const size_t limit_;
    ACE_Reactor& loop_;

    Loop_IO* io_; ///< null when it is closed
    Outbox_Backlog backlog_;
    ACE_HANDLE room_handle_ = ACE_INVALID_HANDLE; ///< registered while there is no room
    long retry_timer_ = -1;
    long close_timer_ = -1;
    bool stalled_ = false; ///< another frame is open; it goes on when that is written
    bool dropping_ = false;
    bool broken_ = false; ///< a frame could not be kept: what follows would be garbage
};

bool WebSocket_Outbox::Impl::post(Message message, bool binary)
{
    if (message == nullptr) {
        errno = EINVAL;
        return false;
    }
    std::vector<Outbox_Backlog::Posted> dropped; // freed when the mutex is not held any more
    const std::lock_guard<std::mutex> guard(mutex_);
    if (closed_) {
        errno = EPIPE;
        return false;
    }
    const size_t cost = message->size() + MESSAGE_COST;
    if (cost > limit_ - queued_) {
        closed_ = true;
        overflowed_ = true;
        dropped.swap(posted_);
        this->wake();
        errno = ENOBUFS;
        return false;
    }
    try {
        posted_.push_back({std::move(message), binary});
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
        return false;
    }
    if (!woken_ && !this->wake()) {
        posted_.pop_back();
        return false;
    }
    queued_ += cost;
    return true;
}

bool WebSocket_Outbox::Impl::wake()
{
    woken_ = loop_.notify(this, ACE_Event_Handler::EXCEPT_MASK) != -1;
    return woken_;
}

void WebSocket_Outbox::Impl::close()
{
    {
        std::vector<Outbox_Backlog::Posted> dropped;
        const std::lock_guard<std::mutex> guard(mutex_);
        closed_ = true;
        dropped.swap(posted_);
    }
    if (io_ == nullptr) {
        return;
    }
    if (backlog_.begun()) {
        io_->frame_output(&no_frames);
    } else {
        io_->frame_output(&last_frames);
    }
    io_ = nullptr;
    this->stop_waiting();
    this->cancel(close_timer_);
    backlog_.clear();
}

// ---------------------------------------------------------------- in the loop

/// A notification: something was posted, or there is more to send.
int WebSocket_Outbox::Impl::handle_exception(ACE_HANDLE)
{
    this->drain();
    return 0;
}

int WebSocket_Outbox::Impl::handle_output(ACE_HANDLE)
{
    const size_t before = backlog_.taken();
    this->drain();
    if (room_handle_ != ACE_INVALID_HANDLE && backlog_.taken() == before) {
        // The descriptor has room and the stream has none: it would be told so again and again.
        this->stop_waiting();
        this->schedule_retry();
    }
    return 0;
}

int WebSocket_Outbox::Impl::handle_timeout(const ACE_Time_Value&, const void* act)
{
    if (act == &retry_timer_) {
        retry_timer_ = -1;
        this->drain();
        return 0;
    }
    close_timer_ = -1;
    if (io_ != nullptr) {
        const Connection_Guard guard(*io_);
        io_->shutdown();
    }
    return 0;
}

void WebSocket_Outbox::Impl::drain()
{
    if (io_ == nullptr) {
        return; // closed while the notification was on its way
    }
    Loop_IO& io = *io_;
    const Connection_Guard guard(io); // the plug-in may close this outbox, not destroy it
    if (overflowed_ && !dropping_) {
        this->drop();
    }
    switch (this->advance()) {
    case FAILED:
        HTTPD_ERROR("Failed to send WebSocket data frame to %C: %m",
                    io.get_remote_addr(true).c_str());
        io.shutdown();
        break;
    case FULL:
        this->wait_for_room();
        break;
    case DONE:
        this->stop_waiting();
        break;
    case MORE: {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (!this->wake()) {
            this->schedule_retry();
            woken_ = true;
        }
        break;
    }
    }
}

WebSocket_Outbox::Impl::Progress WebSocket_Outbox::Impl::advance()
{
    for (int i = 0; i < BATCHES_AT_ONCE; ++i) {
        const Progress progress = this->finish();
        if (progress != DONE) {
            return progress;
        }
        switch (io_->frame_state()) {
        case Loop_IO::FRAMES_ENDED:
            this->end();
            return DONE;
        case Loop_IO::FRAME_OPEN:
            stalled_ = true;
            return DONE;
        case Loop_IO::FRAMES_FREE:
            break;
        }
        if (dropping_) {
            // Comes back through write_frame(), which keeps what finds no room.
            if (io_->send_close_frame(WebSocket_Data_Frame::CLOSE_TRY_AGAIN_LATER) == -1) {
                return FAILED;
            }
        } else if (!backlog_.begin_batch() && !this->take_posted()) {
            return DONE;
        }
    }
    return MORE;
}

WebSocket_Outbox::Impl::Progress WebSocket_Outbox::Impl::finish()
{
    if (broken_) {
        errno = EPIPE;
        return FAILED;
    }
    const Outbox_Backlog::Result result = backlog_.finish(*io_);
    if (const size_t released = backlog_.take_released(); released > 0) {
        const std::lock_guard<std::mutex> guard(mutex_);
        queued_ -= released;
    }
    switch (result) {
    case Outbox_Backlog::FAILED:
        return FAILED;
    case Outbox_Backlog::FULL:
        return FULL;
    case Outbox_Backlog::SENT:
        break;
    }
    return DONE;
}

/// @return false when nothing was posted: the next one who posts wakes the loop.
bool WebSocket_Outbox::Impl::take_posted()
{
    const std::lock_guard<std::mutex> guard(mutex_);
    if (posted_.empty()) {
        woken_ = false;
        return false;
    }
    backlog_.take(posted_);
    return backlog_.begin_batch();
}

void WebSocket_Outbox::Impl::drop()
{
    dropping_ = true;
    backlog_.drop_waiting();
    HTTPD_WARNING("WebSocket %C does not read what it is sent, it is dropped.",
                  io_->get_remote_addr(true).c_str());
    close_timer_ = loop_.schedule_timer(this, &close_timer_, ACE_Time_Value(CLOSE_SECONDS));
    broken_ = close_timer_ == -1;
}

/// The connection has seen its last frame.
void WebSocket_Outbox::Impl::end()
{
    std::vector<Outbox_Backlog::Posted> dropped;
    {
        const std::lock_guard<std::mutex> guard(mutex_);
        closed_ = true;
        dropped.swap(posted_);
    }
    backlog_.drop_waiting();
}

ssize_t WebSocket_Outbox::Impl::write_frame(Loop_IO& io, const iovec* iov, int count)
{
    size_t total = 0;
    for (int i = 0; i < count; ++i) {
        total += iov[i].iov_len;
    }
    size_t taken = 0;
    if (!backlog_.begun()) {
        const ssize_t result = io.sendv_now(iov, count);
        if (result == -1) {
            return -1;
        }
        taken = static_cast<size_t>(result);
    }
    if (taken < total) {
        if (broken_ || !backlog_.append(iov, count, taken, limit_)) {
            const int error = errno;
            broken_ = true;
            this->schedule_retry(); // which closes the connection
            errno = error;
            return -1;
        }
        this->wait_for_room();
    }
    if (stalled_) {
        stalled_ = false;
        const std::lock_guard<std::mutex> guard(mutex_);
        if (!this->wake()) {
            this->schedule_retry();
            woken_ = true;
        }
    }
    return static_cast<ssize_t>(total);
}

/// A duplicate is registered, since the connection itself stands under its own descriptor.
void WebSocket_Outbox::Impl::wait_for_room()
{
    if (room_handle_ != ACE_INVALID_HANDLE || retry_timer_ != -1) {
        return;
    }
    room_handle_ = ::fcntl(io_->output_handle(), F_DUPFD_CLOEXEC, 0);
    if (room_handle_ != ACE_INVALID_HANDLE &&
        loop_.register_handler(room_handle_, this, ACE_Event_Handler::WRITE_MASK) != -1) {
        return;
    }
    if (room_handle_ != ACE_INVALID_HANDLE) {
        ::close(std::exchange(room_handle_, ACE_INVALID_HANDLE));
    }
    this->schedule_retry();
}

void WebSocket_Outbox::Impl::stop_waiting()
{
    this->cancel(retry_timer_);
    if (room_handle_ != ACE_INVALID_HANDLE) {
        loop_.remove_handler(room_handle_,
                             ACE_Event_Handler::ALL_EVENTS_MASK | ACE_Event_Handler::DONT_CALL);
        ::close(std::exchange(room_handle_, ACE_INVALID_HANDLE));
    }
}

void WebSocket_Outbox::Impl::schedule_retry()
{
    if (retry_timer_ == -1) {
        retry_timer_ = loop_.schedule_timer(this, &retry_timer_, RETRY_DELAY);
    }
}

void WebSocket_Outbox::Impl::cancel(long& timer)
{
    if (timer != -1) {
        loop_.cancel_timer(std::exchange(timer, -1));
    }
}

// ---------------------------------------------------------------- the public side

std::shared_ptr<WebSocket_Outbox> WebSocket_Outbox::create(WebSocket_IO& io, size_t limit)
{
    auto* const loop_io = dynamic_cast<Loop_IO*>(&io);
    ACE_Reactor* const loop = loop_io != nullptr ? loop_io->event_loop() : nullptr;
    if (loop == nullptr) {
        errno = ENOTSUP;
        return nullptr;
    }
    if (loop_io->frame_output() != nullptr) {
        errno = EBUSY;
        return nullptr;
    }
    std::unique_ptr<WebSocket_Outbox> outbox;
    Impl* const impl = new (std::nothrow) Impl(*loop_io, *loop, limit);
    if (impl != nullptr) {
        outbox.reset(new (std::nothrow) WebSocket_Outbox(impl));
    }
    try {
        if (outbox != nullptr) {
            return std::shared_ptr<WebSocket_Outbox>(std::move(outbox));
        }
        if (impl != nullptr) {
            impl->remove_reference();
        }
    } catch (const std::bad_alloc&) {
        outbox.reset();
    }
    loop_io->frame_output(nullptr);
    errno = ENOMEM;
    return nullptr;
}

WebSocket_Outbox::~WebSocket_Outbox()
{
    impl_->close();
    impl_->remove_reference();
}

bool WebSocket_Outbox::post(Message message, bool binary)
{
    return impl_->post(std::move(message), binary);
}

bool WebSocket_Outbox::is_open() const
{
    return impl_->is_open();
}

void WebSocket_Outbox::close()
{
    impl_->close();
}
