// One recv is one request: the least that any server must do for a kept connection.
#include "bench/ceilings/answer.h"
#include "bench/ceilings/event_loop.h"
#include "bench/ceilings/kinds.h"
#include "bench/ceilings/listener.h"
#include "bench/ceilings/options.h"
#include "bench/common/page_buffer.h"

#include <string>
#include <unistd.h>

void serve_get(const Ceiling_Options& options)
{
    const std::string answer = constant_answer(true);
    Page_Buffer buffer(options.buffer_);
    Event_Loop loop(open_listener(options, false));
    loop.run([&loop](int fd) { loop.add(fd); },
             [&](int fd, std::uint32_t) {
                 if (recv(fd, buffer.data(), buffer.size(), 0) <= 0 ||
                     send(fd, answer.data(), answer.size(), MSG_NOSIGNAL) !=
                         static_cast<ssize_t>(answer.size())) {
                     close(fd);
                 }
             });
}
