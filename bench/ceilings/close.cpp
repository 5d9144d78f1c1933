// A connection per request: accept4, recv, send, close.
#include "bench/ceilings/answer.h"
#include "bench/ceilings/event_loop.h"
#include "bench/ceilings/kinds.h"
#include "bench/ceilings/listener.h"
#include "bench/ceilings/options.h"
#include "bench/common/page_buffer.h"

#include <cerrno>
#include <string>
#include <unistd.h>

void serve_close(const Ceiling_Options& options)
{
    const std::string answer = constant_answer(false);
    Page_Buffer buffer(options.buffer_);
    Event_Loop loop(open_listener(options, false));
    // False: the request has not come yet.
    const auto answer_and_close = [&](int fd) {
        const ssize_t received = recv(fd, buffer.data(), buffer.size(), 0);
        if (received == -1 && errno == EAGAIN) {
            return false;
        }
        if (received > 0) {
            // Whether it arrives shows at the other end.
            static_cast<void>(send(fd, answer.data(), answer.size(), MSG_NOSIGNAL));
        }
        close(fd);
        return true;
    };
    loop.run(
        [&](int fd) {
            if (!answer_and_close(fd)) {
                loop.add(fd);
            }
        },
        [&](int fd, std::uint32_t) { answer_and_close(fd); });
}
