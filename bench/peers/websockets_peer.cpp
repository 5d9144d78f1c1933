// A WebSocket echo on libwebsockets, one service thread: bench_peer_websockets PORT
//
// The echo is sent from the writable callback, as the library asks for it.

#include "bench/peers/peer_text.h"

#include <libwebsockets.h>

#include <csignal>
#include <cstring>
#include <new>
#include <vector>

namespace {

volatile std::sig_atomic_t stopped = 0;
lws_context* context = nullptr;

/// Of one connection; the library gives zeroed memory, the objects are made and ended by hand.
struct Session {
    std::vector<unsigned char> message_; ///< behind LWS_PRE bytes that the library writes to
    bool complete_;
};

int echo(lws* connection, lws_callback_reasons reason, void* user, void* data, size_t length)
{
    Session* const session = static_cast<Session*>(user);
    switch (reason) {
    case LWS_CALLBACK_ESTABLISHED:
        new (session) Session{std::vector<unsigned char>(LWS_PRE), false};
        break;
    case LWS_CALLBACK_CLOSED:
        session->~Session();
        break;
    case LWS_CALLBACK_RECEIVE: {
        const unsigned char* const piece = static_cast<const unsigned char*>(data);
        session->message_.insert(session->message_.end(), piece, piece + length);
        if (lws_is_final_fragment(connection) != 0 &&
            lws_remaining_packet_payload(connection) == 0) {
            session->complete_ = true;
            lws_callback_on_writable(connection);
        }
        break;
    }
    case LWS_CALLBACK_SERVER_WRITEABLE:
        if (session->complete_) {
            const size_t size = session->message_.size() - LWS_PRE;
            if (lws_write(connection, session->message_.data() + LWS_PRE, size, LWS_WRITE_BINARY) <
                static_cast<int>(size)) {
                return -1;
            }
            session->message_.resize(LWS_PRE);
            session->complete_ = false;
        }
        break;
    default:
        break;
    }
    return 0;
}

void stop(int)
{
    stopped = 1;
    lws_cancel_service(context);
}

} // namespace

int main(int argc, char** argv)
{
    constexpr size_t BUFFER = 256 * 1024;
    const unsigned short port = peer_port(argc, argv);
    lws_set_log_level(LLL_ERR, nullptr);

    lws_protocols protocols[2] = {};
    protocols[0].name = "echo";
    protocols[0].callback = echo;
    protocols[0].per_session_data_size = sizeof(Session);
    protocols[0].rx_buffer_size = BUFFER;

    lws_context_creation_info info{};
    info.port = port;
    info.iface = "127.0.0.1";
    info.protocols = protocols;
    info.pt_serv_buf_size = BUFFER;
    info.timeout_secs = 3600;
    info.options = LWS_SERVER_OPTION_DISABLE_IPV6;
    context = lws_create_context(&info);
    if (context == nullptr) {
        std::fputs("bench_peer_websockets: no context\n", stderr);
        return 1;
    }
    std::signal(SIGTERM, stop);
    peer_ready();
    while (stopped == 0 && lws_service(context, 0) >= 0) {
    }
    lws_context_destroy(context);
    return 0;
}
