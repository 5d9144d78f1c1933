#include "host/signal_watcher.h"

#include "support/log.h"

#include <ace/Reactor.h>

#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

namespace {

sigset_t watched_signals()
{
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGHUP);
    return signals;
}

} // namespace

int prepare_signals()
{
    const sigset_t signals = watched_signals();
    const int error = ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    if (error != 0) {
        errno = error;
        return -1;
    }
    // A shell without job control starts background commands with SIGINT ignored; an ignored signal
    // would be discarded instead of waiting for the watcher.
    struct sigaction action {};
    action.sa_handler = SIG_DFL;
    if (::sigaction(SIGINT, &action, nullptr) == -1 ||
        ::sigaction(SIGTERM, &action, nullptr) == -1) {
        return -1;
    }
    // A file that may not grow any more, as a log, is a failed write and not the end.
    action.sa_handler = SIG_IGN;
    return ::sigaction(SIGXFSZ, &action, nullptr) == -1 ? -1
                                                        : ::sigaction(SIGPIPE, &action, nullptr);
}

Signal_Watcher::~Signal_Watcher()
{
    if (fd_ == -1) {
        return;
    }
    if (reactor() != nullptr) {
        reactor()->remove_handler(this,
                                  ACE_Event_Handler::READ_MASK | ACE_Event_Handler::DONT_CALL);
    }
    ::close(fd_);
}

int Signal_Watcher::open(ACE_Reactor* reactor)
{
    const sigset_t signals = watched_signals();
    fd_ = ::signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK);
    if (fd_ == -1) {
        return -1;
    }
    return reactor->register_handler(this, ACE_Event_Handler::READ_MASK);
}

int Signal_Watcher::handle_input(ACE_HANDLE /*handle*/)
{
    signalfd_siginfo info{};
    if (::read(fd_, &info, sizeof info) != static_cast<ssize_t>(sizeof info)) {
        return 0; // a spurious wake-up
    }
    const int number = static_cast<int>(info.ssi_signo);
    if (number == SIGHUP) {
        HTTPD_WARNING("SIGHUP is ignored: nothing is reopened or read again.");
        return 0;
    }
    HTTPD_INFO("Stopping on SIG%s.", ::sigabbrev_np(number));
    reactor()->end_reactor_event_loop();
    return 0;
}
