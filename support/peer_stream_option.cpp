#include "support/peer_stream_io.h"
#include "support/socket_helpers.h"

#include <type_traits>

template <typename Stream>
int ACE_Peer_Stream_Option_T<Stream>::set_nodelay(const Stream& stream, bool on)
{
    if constexpr (std::is_same_v<Stream, Pipe_Stream>) {
        return 0;
    } else {
        return set_sock_nodelay(stream, on);
    }
}

template <typename Stream>
int ACE_Peer_Stream_Option_T<Stream>::set_timeout(const Stream& stream, int send_seconds,
                                                  int receive_seconds)
{
    if constexpr (std::is_same_v<Stream, Pipe_Stream>) {
        return 0;
    } else {
        return set_sock_timeout(stream, send_seconds, receive_seconds);
    }
}

template <typename Stream>
int ACE_Peer_Stream_Option_T<Stream>::set_keepalive(const Stream& stream, int seconds)
{
    if constexpr (std::is_same_v<Stream, Pipe_Stream>) {
        return 0;
    } else {
        return set_sock_keepalive(stream, seconds);
    }
}

template struct ACE_Peer_Stream_Option_T<ACE_SOCK_Stream>;
template struct ACE_Peer_Stream_Option_T<ACE_SSL_SOCK_Stream>;
template struct ACE_Peer_Stream_Option_T<LSOCK_Stream>;
template struct ACE_Peer_Stream_Option_T<MEM_Stream>;
template struct ACE_Peer_Stream_Option_T<Pipe_Stream>;
