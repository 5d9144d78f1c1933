#pragma once

#include "httpd/websocket_io.h"
#include "support/file_send.h"

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
 * What the library itself needs of a connection: to push to a WebSocket client from its event loop
 * without ever waiting, and to send from an open file. Between WebSocket_IO and the connection
 * engine, since the slots of WebSocket_IO are laid down. Every operation is called by the thread
 * that drives the connection, those that send a response also by one that the plug-in chose.
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

    /**
     * Whether send_file_part() may be called for what comes next: the stream is a plain socket, the
     * response not chunked and neither complete nor without a body. The default is no.
     */
    virtual bool sends_from_files() const;

    /**
     * Sends a part of an open file as HTTP_IO::send() would that is called for each block of it.
     * @param length   more than 0
     * @param last     of the call for the last block
     * @param outcome  what became of the file; unless COMPLETE nothing more of it has been sent
     * @return that of the last call, when it failed or `outcome` is COMPLETE or FILE_ENDED; -1 for
     *         READ_FAILED with errno, which is not logged.
     */
    virtual int send_file_part(int file, off_t offset, size_t length, size_t block_size, bool last,
                               File_Sent::Outcome& outcome);

    /// Null (the default): frames go straight to the stream, and wait for room. Not owned.
    Frame_Output* frame_output() const { return frame_output_; }
    void frame_output(Frame_Output* output) { frame_output_ = output; }

    ~Loop_IO() override;

protected:
    Loop_IO();

    Frame_Output* frame_output_ = nullptr;
};
