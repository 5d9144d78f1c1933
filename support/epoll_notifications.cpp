#include "support/epoll_notifications.h"

#include <cerrno>
#include <new>
#include <vector>

void Epoll_Notifications::open()
{
    const std::lock_guard guard(mutex_);
    open_ = true;
}

void Epoll_Notifications::refuse()
{
    const std::lock_guard guard(mutex_);
    open_ = false;
}

int Epoll_Notifications::push(ACE_Event_Handler* handler, ACE_Reactor_Mask mask)
{
    const std::lock_guard guard(mutex_);
    if (!open_) {
        errno = ESHUTDOWN;
        return -1;
    }
    try {
        queue_.emplace_back(handler, mask);
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
        return -1;
    }
    handler->add_reference();
    size_ = queue_.size();
    return 0;
}

bool Epoll_Notifications::pop(ACE_Notification_Buffer& notification)
{
    const std::lock_guard guard(mutex_);
    if (queue_.empty()) {
        return false;
    }
    notification = queue_.front();
    queue_.pop_front();
    size_ = queue_.size();
    return true;
}

int Epoll_Notifications::purge(const ACE_Event_Handler* handler, ACE_Reactor_Mask mask)
{
    std::vector<ACE_Event_Handler*> dropped;
    {
        const std::lock_guard guard(mutex_);
        try {
            dropped.reserve(queue_.size());
        } catch (const std::bad_alloc&) {
            errno = ENOMEM;
            return -1;
        }
        auto kept = queue_.begin();
        for (ACE_Notification_Buffer& notification : queue_) {
            if (handler == nullptr || handler == notification.eh_) {
                notification.mask_ &= ~mask;
                if (notification.mask_ == ACE_Event_Handler::NULL_MASK) {
                    dropped.push_back(notification.eh_);
                    continue;
                }
            }
            *kept++ = notification;
        }
        queue_.erase(kept, queue_.end());
        size_ = queue_.size();
    }
    for (ACE_Event_Handler* const gone : dropped) {
        gone->remove_reference();
    }
    return static_cast<int>(dropped.size());
}
