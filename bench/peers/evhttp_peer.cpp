// libevent's evhttp in one thread: bench_peer_evhttp PORT

#include "bench/peers/peer_text.h"

#include <event2/buffer.h>
#include <event2/event.h>
#include <event2/http.h>

#include <csignal>
#include <string_view>

namespace {

// The body of an upload has been collected by then and is dropped with the request.
void answer(evhttp_request* request, void*)
{
    evhttp_add_header(evhttp_request_get_output_headers(request), "Content-Type", PEER_TYPE);
    evbuffer* const body = evbuffer_new();
    evbuffer_add_reference(body, PEER_TEXT.data(), PEER_TEXT.size(), nullptr, nullptr);
    evhttp_send_reply(request, HTTP_OK, "OK", body);
    evbuffer_free(body);
}

void stop(evutil_socket_t, short, void* base)
{
    event_base_loopbreak(static_cast<event_base*>(base));
}

} // namespace

int main(int argc, char** argv)
{
    const unsigned short port = peer_port(argc, argv);
    event_base* const base = event_base_new();
    evhttp* const http = evhttp_new(base);
    evhttp_set_gencb(http, answer, nullptr);
    evhttp_set_timeout(http, 3600);
    if (evhttp_bind_socket(http, "127.0.0.1", port) == -1) {
        std::perror("bench_peer_evhttp");
        return 1;
    }
    event* const term = evsignal_new(base, SIGTERM, stop, base);
    event_add(term, nullptr);
    peer_ready();
    event_base_dispatch(base);
    event_free(term);
    evhttp_free(http);
    event_base_free(base);
    return 0;
}
