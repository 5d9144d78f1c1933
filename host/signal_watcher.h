#pragma once

#include <ace/Event_Handler.h>

/**
 * Blocks the signals that Signal_Watcher reads, for this thread and all that it will make, and
 * ignores SIGPIPE and SIGXFSZ. To be called before any other thread exists. @return 0, or -1 with
 * errno.
 */
int prepare_signals();

/**
 * Reads the stop signals as ordinary events of a reactor, so that nothing ever runs inside a signal
 * handler: SIGINT and SIGTERM end the reactor's event loop, SIGHUP is only noted in the log.
 *
 * Lives on the stack of the thread that runs the reactor.
 */
class Signal_Watcher : public ACE_Event_Handler {
public:
    Signal_Watcher() = default;
    ~Signal_Watcher() override;
    Signal_Watcher(const Signal_Watcher&) = delete;
    Signal_Watcher& operator=(const Signal_Watcher&) = delete;

    /// Registers with `reactor`, which must outlive this object. @return 0, or -1 with errno.
    int open(ACE_Reactor* reactor);

    ACE_HANDLE get_handle() const override { return fd_; }
    int handle_input(ACE_HANDLE handle) override;

private:
    int fd_ = -1;
};
