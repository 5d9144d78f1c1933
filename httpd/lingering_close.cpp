#include "httpd/lingering_close.h"

#include <ace/OS_NS_unistd.h>
#include <ace/Reactor.h>

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <new>

namespace {

/// Reads and drops what is there. @return bytes dropped, 0 at the end, -1 with errno.
ssize_t drop_input(ACE_HANDLE handle)
{
    char bin[64 * 1024]; // on the stack, which has it already
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
    const ACE_Time_Value second(1);
    closer->timer_id_ = reactor.schedule_timer(closer, nullptr, second, second);
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
    using std::chrono::milliseconds;
    constexpr milliseconds SILENCE = std::chrono::seconds(SILENCE_SECONDS);
    const Clock::time_point end = Clock::now() + std::chrono::seconds(THREAD_LIMIT_SECONDS);
    for (;;) {
        const auto left = std::chrono::duration_cast<milliseconds>(end - Clock::now());
        pollfd input = {handle, POLLIN, 0};
        if (left.count() <= 0 ||
            ::poll(&input, 1, static_cast<int>(std::min(left, SILENCE).count())) == 0 ||
            is_over(drop_input(handle))) {
            break;
        }
    }
    ACE_OS::close(handle);
}

int Lingering_Close::handle_input(ACE_HANDLE)
{
    silent_ticks_ = 0;
    return is_over(drop_input(handle_)) ? -1 : 0;
}

int Lingering_Close::handle_timeout(const ACE_Time_Value&, const void*)
{
    if (++ticks_ >= LIMIT_SECONDS || ++silent_ticks_ > SILENCE_SECONDS) {
        this->reactor()->remove_handler(this, ALL_EVENTS_MASK);
    }
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
