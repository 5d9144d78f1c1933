#pragma once

#include "support/export.h"

#include <ace/MEM_Stream.h>

#include <sys/types.h>
#include <sys/uio.h>

#include <memory>

class ACE_SSL_Context;
class Mem_Channel;

/**
 * An ACE shared-memory stream, server side: the bytes pass through memory that both processes have
 * mapped, and a loopback socket tells of them.
 *
 * For processes that trust each other: the peer can write to the whole pool, also to the
 * administration of its free memory, and can so bring this process down. Offsets that point outside
 * the pool are refused (EPROTO).
 *
 * The socket becomes readable once per message. When a message was longer than the caller's buffer,
 * its rest makes nothing readable: see pending().
 */
class HTTPD_SUPPORT_EXPORT MEM_Stream : public ACE_MEM_Stream {
public:
    /// @param context  only there so that all streams are constructed alike; not used.
    explicit MEM_Stream(ACE_SSL_Context* context = nullptr);
    ~MEM_Stream(); ///< gives the pool back; does not close the socket
    MEM_Stream(const MEM_Stream&) = delete;
    MEM_Stream& operator=(const MEM_Stream&) = delete;

    /**
     * Makes the pool of a connection in the file `path`, for the socket that set_handle() has set.
     * @return 0, or -1 with errno.
     */
    int open_pool(const char* path);

    /// Ends the stream without waiting, gives the pool back and closes the socket. @return 0 or -1.
    int close();

    /// Ends the sending side and gives the pool back; the socket stays open.
    void half_close();

    /**
     * Receives, waiting when there is nothing.
     * @param timeout  null = no limit.
     * @return bytes; 0 at the end of the stream; -1 with errno, ETIME when the limit has passed.
     */
    ssize_t recv(void* buffer, size_t length, const ACE_Time_Value* timeout = nullptr) const;

    /// Receives what is there: recv() that fails with EAGAIN instead of waiting.
    ssize_t recv_now(void* buffer, size_t length) const;

    /// Bytes are left of a message of which recv() has returned the first part.
    bool pending() const;

    /// Sends everything, see Peer_Stream_IO_T. @return `length`, or -1 with errno.
    ssize_t send(const void* data, size_t length) const;

    /// Sends the whole vector. @return the sum, or -1 with errno.
    ssize_t sendv(const iovec* iov, int count) const;

    /// Sends what the pool and the socket take now. @return bytes taken, perhaps 0, or -1 with
    /// errno.
    ssize_t sendv_now(const iovec* iov, int count) const;

    /// The peer is a process on this machine and has no address of its own: leaves an Internet
    /// address as it is. @return 0.
    int get_remote_addr(ACE_Addr& address) const;

private:
    std::unique_ptr<Mem_Channel> channel_; ///< null until open_pool()
};
