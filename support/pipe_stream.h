#pragma once

#include "support/export.h"

#include <ace/Addr.h>
#include <ace/IPC_SAP.h>
#include <ace/Time_Value.h>

#include <sys/types.h>
#include <sys/uio.h>

#include <cstddef>

/**
 * Two descriptors as the stream of a connection: one to read from, one to write to. They may be of
 * any kind (pipes, a terminal, files, one socket for both).
 *
 * The descriptors are often shared with other processes (standard input and output), so the stream
 * never changes their blocking mode. Used by one thread at a time, but for interrupt().
 */
class HTTPD_SUPPORT_EXPORT Pipe_Stream {
public:
    using PEER_ADDR = ACE_Addr;

    /// No descriptors.
    Pipe_Stream() = default;

    /// Closes nothing of what was given to the stream: that is close().
    ~Pipe_Stream();

    Pipe_Stream(const Pipe_Stream&) = delete;
    Pipe_Stream& operator=(const Pipe_Stream&) = delete;

    /**
     * @param in, out          the descriptors to read from and to write to; ACE_INVALID_HANDLE =
     * none.
     * @param own_in, own_out  whether close() closes that descriptor. A descriptor that serves both
     *                         sides is closed once.
     */
    Pipe_Stream(int in, bool own_in, int out, bool own_out);

    /**
     * Replaces one side; an owned descriptor that stood there is closed.
     *
     * @param is_read  true: the side to read from, false: the side to write to.
     * @param own      whether close() closes `handle`.
     */
    void set_handle(int handle, bool is_read, bool own);

    /// Both sides become `handle`, not owned; ACE_INVALID_HANDLE takes both away. Closes nothing.
    void set_handle(int handle);

    /// The descriptor to read from (true) or to write to (false).
    int get_handle(bool is_read) const { return is_read ? in_ : out_; }

    /// The descriptor to read from: what an event loop watches.
    int get_handle() const { return in_; }

    /// Both sides are one and the same socket, under one number or two (as inetd gives it).
    bool is_one_socket() const;

    /// Makes interrupt() work. Called before another thread may call it. @return 0, or -1 with
    /// errno. close() undoes it.
    int make_interruptible();

    /**
     * Ends every wait of the thread that uses the stream, now and from now on: recv() finds the end
     * of input, sends fail. Called by any other thread, but not while the stream may be closed.
     */
    void interrupt();

    /// Closes what the stream owns and forgets both descriptors. @return 0, or -1 with errno.
    int close();

    /**
     * Reads what is there, waiting for it when there is nothing.
     * @param timeout  null = no limit.
     * @return bytes; 0 at the end of input, or when interrupted; -1 with errno, ETIME when the
     * limit has passed.
     */
    ssize_t recv(void* buffer, size_t length, const ACE_Time_Value* timeout = nullptr) const;

    /// Writes everything, see ace_send(). @return `length`, or -1 with errno; ECANCELED or EPIPE
    /// when interrupted.
    ssize_t send(const void* data, size_t length) const;

    /// Writes the whole vector, see ace_sendv(). @return the sum, or -1 with errno.
    ssize_t sendv(const iovec* iov, int count) const;

    /// Writes what there is room for now. @return bytes written, perhaps 0, or -1 with errno.
    ssize_t sendv_now(const iovec* iov, int count) const;

    /// A pipe has no address of its own: -1 with ENOTSOCK.
    int get_local_addr(ACE_Addr& address) const;

    /// A pipe has no peer address: leaves `address` as it is, 0.
    int get_remote_addr(ACE_Addr& address) const;

    /// Required of every ACE stream; prints nothing.
    void dump() const {}

private:
    /// What a descriptor is decides how it is written to.
    enum class Kind { PIPE, SOCKET, REGULAR_FILE };

    static Kind kind_of(int handle);

    int in_ = ACE_INVALID_HANDLE;
    int out_ = ACE_INVALID_HANDLE;
    bool own_in_ = false;
    bool own_out_ = false;
    Kind in_kind_ = Kind::PIPE;
    Kind out_kind_ = Kind::PIPE;
    int interrupt_ = ACE_INVALID_HANDLE; ///< an eventfd, readable once interrupt() was called
};
