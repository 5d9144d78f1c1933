#include "httpd/lingering_close.h"

#include <ace/OS_NS_unistd.h>
#include <ace/Reactor.h>

#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <chrono>
#include <new>

namespace {

/// Reads and drops what is there. @return bytes dropped, 0 at the end, -1 with errno.
ssize_t drop_input(ACE_HANDLE handle)
{
    char bin[16 * 1024]; // on the stack, which has it already
    ssize_t received;
    do {
        received = ::recv(handle, bin, sizeof bin, MSG_DONTWAIT);
    } while (received == -1 && errno == EINTR);
    return received;
}

bool is_over(ssize_t received)
{
    return received == 0 || (received == -1 && errno != EAGAIN);
}

} // namespace

Lingering_Close::Lingering_Close(ACE_Reactor& reactor, ACE_HANDLE handle)
    : ACE_Event_Handler(&reactor), handle_(handle)
{
    this->reference_counting_policy().value(ACE_Event_Handler::Reference_Counting_Policy::ENABLED);
}

Lingering_Close::~Lingering_Close()
{
    ACE_OS::close(handle_);
}

void Lingering_Close::start(ACE_Reactor& reactor, ACE_HANDLE handle)
{
    Lingering_Close* const closer = new (std::nothrow) Lingering_Close(reactor, handle);
    if (closer == nullptr) {
        ACE_OS::close(handle);
        return;
    }
    // The reference that the constructor gave, dropped here: the reactor and the timer hold theirs.
    ACE_Event_Handler_var owner(closer);
    closer->timer_id_ = reactor.schedule_timer(closer, nullptr, ACE_Time_Value(LIMIT_SECONDS));
    if (closer->timer_id_ == -1) {
        return;
    }
    const long timer_id = closer->timer_id_;
    if (reactor.register_handler(closer, ACE_Event_Handler::READ_MASK) == -1) {
        reactor.cancel_timer(timer_id);
    }
}

void Lingering_Close::run(ACE_HANDLE handle)
{
    using Clock = std::chrono::steady_clock;
    const Clock::time_point end = Clock::now() + std::chrono::seconds(LIMIT_SECONDS);
    size_t dropped = 0;
    while (dropped < LIMIT_BYTES) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now()).count();
        pollfd input = {handle, POLLIN, 0};
        if (left <= 0 || ::poll(&input, 1, static_cast<int>(left)) == 0) {
            break;
        }
        const ssize_t received = drop_input(handle);
        if (is_over(received)) {
            break;
        }
        dropped += received > 0 ? static_cast<size_t>(received) : 0U;
    }
    ACE_OS::close(handle);
}

int Lingering_Close::handle_input(ACE_HANDLE)
{
    const ssize_t received = drop_input(handle_);
    if (is_over(received)) {
        return -1;
    }
    dropped_ += received > 0 ? static_cast<size_t>(received) : 0U;
    return dropped_ < LIMIT_BYTES ? 0 : -1;
}

int Lingering_Close::handle_timeout(const ACE_Time_Value&, const void*)
{
    timer_id_ = -1;
    this->reactor()->remove_handler(this, ALL_EVENTS_MASK);
    return 0;
}

int Lingering_Close::handle_close(ACE_HANDLE, ACE_Reactor_Mask)
{
    if (timer_id_ != -1) {
        this->reactor()->cancel_timer(timer_id_);
        timer_id_ = -1;
    }
    return 0;
}
