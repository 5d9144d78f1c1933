// Receives into one buffer over and over, and answers when a request's bytes have come.
#include "bench/ceilings/answer.h"
#include "bench/ceilings/event_loop.h"
#include "bench/ceilings/kinds.h"
#include "bench/ceilings/listener.h"
#include "bench/ceilings/options.h"
#include "bench/common/page_buffer.h"

#include <algorithm>
#include <cerrno>
#include <string>
#include <unistd.h>
#include <vector>

void serve_upload(const Ceiling_Options& options)
{
    const std::string answer = constant_answer(true);
    Page_Buffer buffer(options.buffer_);
    Event_Loop loop(open_listener(options, false));
    std::vector<std::uint64_t> received; // bytes of the request that comes, by descriptor
    const auto take = [&](int fd) {
        for (;;) {
            const ssize_t count = recv(fd, buffer.data(), buffer.size(), 0);
            if (count <= 0) {
                return count == -1 && errno == EAGAIN;
            }
            std::uint64_t& bytes = received[static_cast<size_t>(fd)];
            bytes += static_cast<std::uint64_t>(count);
            if (bytes >= options.request_bytes_) {
                bytes -= options.request_bytes_;
                return send(fd, answer.data(), answer.size(), MSG_NOSIGNAL) ==
                       static_cast<ssize_t>(answer.size());
            }
            if (static_cast<size_t>(count) < buffer.size()) {
                return true;
            }
        }
    };
    loop.run(
        [&](int fd) {
            received.resize(std::max(received.size(), static_cast<size_t>(fd) + 1));
            received[static_cast<size_t>(fd)] = 0;
            loop.add(fd);
        },
        [&](int fd, std::uint32_t) {
            if (!take(fd)) {
                close(fd);
            }
        });
}
