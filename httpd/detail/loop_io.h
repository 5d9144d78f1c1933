#pragma once

#include "httpd/websocket_io.h"

#include <ace/os_include/sys/os_types.h>

#include <sys/types.h>
#include <sys/uio.h>

class ACE_Reactor;
class Loop_IO;

/// Who writes the frames of a connection in the place of its stream.
class Frame_Output {
public:
    /// Writes a frame, or a piece of one. @return all its bytes; -1 with errno.
    virtual ssize_t write_frame(Loop_IO& io, const iovec* iov, int count) = 0;

protected:
    ~Frame_Output() = default;
};

/**
 * What the library itself needs of a WebSocket connection to push to it from its event loop without
 * ever waiting. Between WebSocket_IO and the connection engine, since the slots of WebSocket_IO are
 * laid down. Every operation is called by the thread that drives the connection.
 */
class HTTPD_EXPORT Loop_IO : public WebSocket_IO {
public:
    enum Frame_State {
        FRAMES_FREE, ///< a new message may begin
        FRAME_OPEN,  ///< a pong, or a message in fragments, is on its way: nothing may come between
        FRAMES_ENDED ///< a close frame was sent or received, or the connection is shut down
    };

    /// The loop that drives the connection; null in a worker thread.
    virtual ACE_Reactor* event_loop() const = 0;

    /// The descriptor that becomes writable when there is room.
    virtual ACE_HANDLE output_handle() const = 0;

    virtual Frame_State frame_state() const = 0;

    /**
     * Hands bytes to the stream.
     * @return bytes taken, 0 when there is no room; -1 with errno. What was not taken is to be
     *         offered again, unchanged and in front of whatever else is sent.
     */
    virtual ssize_t sendv_now(const iovec* iov, int count) = 0;

    /// Null (the default): frames go straight to the stream, and wait for room. Not owned.
    Frame_Output* frame_output() const { return frame_output_; }
    void frame_output(Frame_Output* output) { frame_output_ = output; }

    ~Loop_IO() override;

protected:
    Loop_IO();

    Frame_Output* frame_output_ = nullptr;
};
