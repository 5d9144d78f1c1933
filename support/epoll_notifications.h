#pragma once

#include <ace/Event_Handler.h>

#include <atomic>
#include <cstddef>
#include <deque>
#include <mutex>

/**
 * The upcalls that were asked for with ACE_Reactor::notify, in order. Each holds a reference to its
 * handler; none is dropped under the lock. Any thread may call anything.
 */
class Epoll_Notifications {
public:
    /// Takes notifications (at first it does not).
    void open();

    /// From here on push() fails with ESHUTDOWN; what is in the queue stays.
    void refuse();

    /// -1 with ESHUTDOWN or ENOMEM.
    int push(ACE_Event_Handler* handler, ACE_Reactor_Mask mask);

    /// The oldest one, whose reference is now the caller's; false when there is none.
    bool pop(ACE_Notification_Buffer& notification);

    /// Takes `mask` from the handler's (null: from all) notifications and drops those of which
    /// nothing is left: their number, or -1 with ENOMEM.
    int purge(const ACE_Event_Handler* handler, ACE_Reactor_Mask mask);

    size_t size() const { return size_.load(); }

private:
    std::mutex mutex_;
    std::deque<ACE_Notification_Buffer> queue_;
    bool open_ = false;
    std::atomic<size_t> size_{0};
};
