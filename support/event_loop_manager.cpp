#include "support/event_loop_manager.h"

#include "support/epoll_reactor.h"
#include "support/log.h"
#include "support/signals_blocked.h"

#include <ace/Reactor.h>
#include <ace/Task.h>
#include <ace/Thread_Manager.h>

#include <poll.h>
#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <new>
#include <vector>

namespace {

constexpr char REACTOR_TYPE[] = "epoll";

// How long a loop rests when it cannot wait for events at all, rather than to spin.
constexpr int ERROR_PAUSE_MILLISECONDS = 100;

/// One reactor and its thread. ACE spawns the thread, so that it inherits the starting thread's log
/// stream and priorities; a thread manager of our own keeps it out of the host's waits for all
/// threads.
class Event_Loop : public ACE_Task_Base {
public:
    Event_Loop(ACE_Thread_Manager& threads, unsigned int number)
        : ACE_Task_Base(&threads), reactor_(&implementation_), number_(number),
          log_callback_(nullptr), done_(false)
    {
    }

    bool start()
    {
        if (!implementation_.initialized()) {
            return false;
        }
        log_callback_ = ACE_Log_Msg::instance()->msg_callback();
        const Signals_Blocked blocked;
        return this->activate(THR_NEW_LWP | THR_JOINABLE | THR_INHERIT_SCHED, 1) == 0;
    }

    void stop()
    {
        done_ = true;
        reactor_.end_reactor_event_loop();
    }

    ACE_Reactor& loop_reactor() { return reactor_; }

    int svc() override
    {
        ACE_Log_Msg::instance()->msg_callback(log_callback_); // ACE does not hand this one on
        char name[16]; // what the system keeps of a thread's name
        std::snprintf(name, sizeof name, "httpd-loop-%u", number_);
        ::pthread_setname_np(::pthread_self(), name);
        reactor_.owner(::pthread_self());
        while (!done_) {
            if (reactor_.handle_events() == -1 && !done_) {
                this->recover();
            }
        }
        return 0;
    }

private:
    void recover()
    {
        if (reactor_.reactor_event_loop_done() != 0) {
            reactor_.reset_reactor_event_loop(); // the loop ends with close(), not for a handler
            return;
        }
        HTTPD_ERROR("Failed to handle events, errno=%d, %m", errno);
        ::poll(nullptr, 0, ERROR_PAUSE_MILLISECONDS);
    }

    Epoll_Reactor implementation_;
    ACE_Reactor reactor_;
    unsigned int number_;
    ACE_Log_Msg_Callback* log_callback_;
    std::atomic<bool> done_;
};

} // namespace

const char* get_preferred_reactor_type()
{
    return REACTOR_TYPE;
}

class Event_Loop_Manager::Impl {
public:
    ~Impl()
    {
        if (open_) {
            this->close();
        }
    }

    bool open(unsigned int count)
    {
        loops_.reserve(count);
        for (unsigned int number = 0; number < count; ++number) {
            errno = 0;
            loops_.push_back(std::make_unique<Event_Loop>(threads_, number));
            if (!loops_.back()->start()) {
                return false;
            }
        }
        return true;
    }

    ACE_Reactor* next()
    {
        const size_t turn = turn_.fetch_add(1, std::memory_order_relaxed);
        return &loops_[turn % loops_.size()]->loop_reactor();
    }

    bool is_open() const { return open_; }

    // In three steps, since a handler of one loop may reach for another one's in its handle_close.
    // The closed reactors stay: a handler that someone still refers to may ask its own for
    // something, and is refused.
    void close()
    {
        open_ = false;
        for (const auto& loop : loops_) {
            loop->stop();
        }
        for (const auto& loop : loops_) {
            loop->wait();
        }
        for (const auto& loop : loops_) {
            loop->loop_reactor().close();
        }
    }

    static inline Impl* abandoned_ = nullptr; ///< the first of those that abandon() left
    Impl* next_abandoned_ = nullptr;

private:
    ACE_Thread_Manager threads_;
    std::vector<std::unique_ptr<Event_Loop>> loops_;
    std::atomic<size_t> turn_{0};
    bool open_ = true;
};

Event_Loop_Manager::Event_Loop_Manager() = default;

Event_Loop_Manager::~Event_Loop_Manager()
{
    this->close();
}

bool Event_Loop_Manager::open(const char* reactor_type, unsigned int count)
{
    if (reactor_type == nullptr || std::strcmp(reactor_type, REACTOR_TYPE) != 0 || count == 0) {
        errno = EINVAL;
        return false;
    }
    if (impl_ != nullptr && impl_->is_open()) {
        errno = EBUSY;
        return false;
    }
    try {
        auto impl = std::make_unique<Impl>();
        if (!impl->open(count)) {
            const int error = errno;
            impl.reset();
            errno = error;
            return false;
        }
        impl_ = std::move(impl);
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
        return false;
    }
    return true;
}

ACE_Reactor* Event_Loop_Manager::reactor()
{
    return impl_ != nullptr && impl_->is_open() ? impl_->next() : nullptr;
}

void Event_Loop_Manager::close()
{
    if (impl_ != nullptr && impl_->is_open()) {
        impl_->close();
    }
}

void Event_Loop_Manager::abandon()
{
    this->close();
    if (impl_ != nullptr) {
        impl_->next_abandoned_ = Impl::abandoned_;
        Impl::abandoned_ = impl_.release();
    }
}

void Event_Loop_Manager::free_abandoned()
{
    while (Impl::abandoned_ != nullptr) {
        const std::unique_ptr<Impl> impl(Impl::abandoned_);
        Impl::abandoned_ = impl->next_abandoned_;
    }
}
