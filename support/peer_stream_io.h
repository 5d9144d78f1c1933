#pragma once

#include "support/export.h"
#include "support/lsock_stream.h"
#include "support/mem_stream.h"
#include "support/pipe_stream.h"

#include <ace/SOCK_Stream.h>
#include <ace/SSL/SSL_SOCK_Stream.h>
#include <ace/Time_Value.h>

#include <sys/types.h>
#include <sys/uio.h>

#include <cstddef>

/**
 * How the connection engine moves bytes over each kind of stream: the operations that ACE's own
 * stream classes do not offer in one manner, or not safely (partial TLS records, SIGPIPE, sends
 * that spin, closes that leak).
 *
 * Every operation is called by the thread that drives the connection.
 */
template <typename Stream>
struct Peer_Stream_IO_T;

/// Who waits in a receive: the event loop never does, a worker thread does.
enum class Receive_Mode { NEVER_WAIT, WAIT };

#define HTTPD_PEER_STREAM_IO(STREAM)                                                               \
    template <>                                                                                    \
    struct HTTPD_SUPPORT_EXPORT Peer_Stream_IO_T<STREAM> {                                         \
        /* Readies an accepted stream for the loop: non-blocking where bytes pass a layer. */      \
        static int prepare(STREAM& stream);                                                        \
        /* Bytes received; 0 at the end of the stream; -1 with errno: EAGAIN (nothing there, only  \
           with NEVER_WAIT), ETIME (`limit` has passed, only with WAIT), EPROTO (TLS). */          \
        static ssize_t receive(STREAM& stream, void* buffer, size_t length, Receive_Mode mode,     \
                               const ACE_Time_Value* limit);                                       \
        /* True when bytes wait above the socket, where no event will tell of them. */             \
        static bool pending(STREAM& stream);                                                       \
        /* All bytes or -1 with errno; ETIME when there is no progress (see ace_send). */          \
        static ssize_t send(STREAM& stream, const void* data, size_t length);                      \
        static ssize_t sendv(STREAM& stream, const iovec* iov, int count);                         \
        /* Bytes taken without waiting, 0 when there is no room; -1 with errno. What was not taken \
           is to be offered again, unchanged and in front of whatever else is sent. */             \
        static ssize_t sendv_now(STREAM& stream, const iovec* iov, int count);                     \
        /* Ends the stream's own protocol without waiting and closes what it owns. */              \
        static void close(STREAM& stream);                                                         \
        /* Makes the thread that waits in a receive or a send come back, now and from now on.      \
           Other than the rest, called by another thread, but never while the stream may be        \
           closed. */                                                                              \
        static void interrupt(STREAM& stream);                                                     \
        /* Ends the stream's own protocol and the sending side, and gives the descriptor away      \
           unclosed, so that late input can be read and dropped; -1 when there is none to give. */ \
        static int half_close_and_detach(STREAM& stream);                                          \
    }

HTTPD_PEER_STREAM_IO(ACE_SOCK_Stream);
HTTPD_PEER_STREAM_IO(ACE_SSL_SOCK_Stream);
HTTPD_PEER_STREAM_IO(LSOCK_Stream);
HTTPD_PEER_STREAM_IO(MEM_Stream);
HTTPD_PEER_STREAM_IO(Pipe_Stream);

#undef HTTPD_PEER_STREAM_IO

/// The socket options of a connection; a pipe pair has none and reports success.
template <typename Stream>
struct ACE_Peer_Stream_Option_T {
    static int set_nodelay(const Stream& stream, bool on);
    static int set_timeout(const Stream& stream, int send_seconds, int receive_seconds);
    static int set_keepalive(const Stream& stream, int seconds);
};

extern template struct HTTPD_SUPPORT_EXPORT ACE_Peer_Stream_Option_T<ACE_SOCK_Stream>;
extern template struct HTTPD_SUPPORT_EXPORT ACE_Peer_Stream_Option_T<ACE_SSL_SOCK_Stream>;
extern template struct HTTPD_SUPPORT_EXPORT ACE_Peer_Stream_Option_T<LSOCK_Stream>;
extern template struct HTTPD_SUPPORT_EXPORT ACE_Peer_Stream_Option_T<MEM_Stream>;
extern template struct HTTPD_SUPPORT_EXPORT ACE_Peer_Stream_Option_T<Pipe_Stream>;
