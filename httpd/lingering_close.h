#pragma once

#include <ace/Event_Handler.h>

class ACE_Reactor;

/**
 * Closes a connection whose client is still sending, so that the client gets to read the response.
 *
 * A socket that is closed with unread input answers it with a reset, which discards the response on
 * its way (RFC 9112, section 9.6). So the sending side was shut, and what still arrives is read and
 * dropped, however much it is: many clients read no response before they have sent all. It ends
 * when the client closes, has sent nothing for SILENCE_SECONDS, or after LIMIT_SECONDS in all.
 */
class Lingering_Close : public ACE_Event_Handler {
public:
    enum {
        SILENCE_SECONDS = 2,
        LIMIT_SECONDS = 30,
        THREAD_LIMIT_SECONDS = 8 ///< in a worker thread: the end of the service waits for those
    };

    /// Drops the input as an event handler of `reactor`. Takes the descriptor. Any thread.
    static void start(ACE_Reactor& reactor, ACE_HANDLE handle);

    /// Drops the input in the calling thread, for THREAD_LIMIT_SECONDS at most. Takes the
    /// descriptor.
    static void run(ACE_HANDLE handle);

    ACE_HANDLE get_handle() const override { return handle_; }
    int handle_input(ACE_HANDLE handle) override;
    int handle_timeout(const ACE_Time_Value& now, const void* act) override;
    int handle_close(ACE_HANDLE handle, ACE_Reactor_Mask mask) override;

private:
    Lingering_Close(ACE_Reactor& reactor, ACE_HANDLE handle);
    ~Lingering_Close() override;

    ACE_HANDLE handle_;
    long timer_id_ = -1; ///< ticks once a second
    int ticks_ = 0;
    int silent_ticks_ = 0; ///< since the last input
};
