#include "httpd/service_share.h"

#include "httpd/live_connections.h"
#include "support/event_loop_manager.h"

#include <chrono>

#include <signal.h>

namespace {

/// How long a plug-in that is busy in a worker thread is waited for.
constexpr std::chrono::seconds DRAIN_LIMIT(10);

unsigned int started_shares = 0;

} // namespace

void Service_Share::start()
{
    if (!started_) {
        started_ = true;
        ++started_shares;
    }
}

bool Service_Share::stop()
{
    if (!started_) {
        return true;
    }
    started_ = false;
    --started_shares;
    // The connections of another service that goes on are not to be interrupted.
    drained_ = started_shares == 0 && Live_Connections::instance().drain(DRAIN_LIMIT);
    if (drained_) {
        Event_Loop_Manager::free_abandoned();
    }
    return drained_;
}

bool Service_Share::is_last() const
{
    return drained_ && started_shares == 0;
}

void ignore_sigpipe()
{
    struct sigaction action {};
    if (::sigaction(SIGPIPE, nullptr, &action) == 0 && (action.sa_flags & SA_SIGINFO) == 0 &&
        action.sa_handler == SIG_DFL) {
        action.sa_handler = SIG_IGN;
        ::sigaction(SIGPIPE, &action, nullptr);
    }
}
