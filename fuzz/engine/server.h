#pragma once

#include "fuzz/engine/scripted_clock.h"
#include "support/epoll_reactor.h"

#include <ace/Reactor.h>

#include <cstddef>

struct pollfd;

/// Who is asked when the server would wait for a client within a call.
class Waiting_Client {
public:
    /// What poll(2) of one descriptor is to return; -1 with errno where there is no such client.
    virtual int wait_for(pollfd& entry, int milliseconds) = 0;

protected:
    ~Waiting_Client() = default;
};

/**
 * The connections' side of a run: an event loop that the run drives itself, in its own thread and
 * on a clock of its own, the options, and the plug-ins. One for the process.
 *
 * The loop never waits. Where a call into a connection would, for room in the socket or for a pong,
 * the run plays the client meanwhile: the program's poll() is replaced for that, see server.cpp.
 */
class Server {
public:
    static Server& instance();

    /// Sets the server up for a run.
    void prepare(size_t buffer_size, bool logged, Waiting_Client& client);

    /// A connection comes in.
    /// @param handle  the server closes it
    /// @param number  of the connection's Conversation
    void accept(int handle, unsigned number);

    /// Runs the loop until it rests.
    void work();

    /// Lets the time pass, then works.
    void pass(size_t milliseconds);

    /// Lets the time pass in the middle of a call.
    void pass_within_call(size_t milliseconds);

    /// After the clients have gone: nothing may be left of them.
    void check_empty();

private:
    Server();

    Epoll_Reactor implementation_;
    ACE_Reactor reactor_;
    Scripted_Clock clock_;
    size_t buffer_size_ = 0;
    size_t descriptors_ = 0; ///< open at the beginning, files not counted
};
