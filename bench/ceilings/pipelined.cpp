// One send per answer, as a server does whose answers go out one by one; requests are told apart by
// their length alone.
#include "bench/ceilings/answer.h"
#include "bench/ceilings/event_loop.h"
#include "bench/ceilings/kinds.h"
#include "bench/ceilings/listener.h"
#include "bench/ceilings/options.h"
#include "bench/common/page_buffer.h"

#include <algorithm>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

bool send_answers(int fd, size_t count, const std::string& answer)
{
    for (size_t i = 0; i < count; ++i) {
        if (send(fd, answer.data(), answer.size(), MSG_NOSIGNAL) !=
            static_cast<ssize_t>(answer.size())) {
            return false;
        }
    }
    return true;
}

} // namespace

void serve_pipelined(const Ceiling_Options& options)
{
    const std::string answer = constant_answer(true);
    Page_Buffer buffer(options.buffer_);
    Event_Loop loop(open_listener(options, false));
    std::vector<size_t> unanswered; // bytes of a request that has begun, by descriptor
    loop.run(
        [&](int fd) {
            unanswered.resize(std::max(unanswered.size(), static_cast<size_t>(fd) + 1));
            unanswered[static_cast<size_t>(fd)] = 0;
            loop.add(fd);
        },
        [&](int fd, std::uint32_t) {
            const ssize_t received = recv(fd, buffer.data(), buffer.size(), 0);
            size_t& bytes = unanswered[static_cast<size_t>(fd)];
            bytes += received > 0 ? static_cast<size_t>(received) : 0;
            if (received <= 0 || !send_answers(fd, bytes / options.request_bytes_, answer)) {
                close(fd);
            }
            bytes %= options.request_bytes_;
        });
}
