// A thread per connection: a blocking recv and a send.
#include "bench/ceilings/answer.h"
#include "bench/ceilings/kinds.h"
#include "bench/ceilings/listener.h"
#include "bench/ceilings/options.h"
#include "bench/common/fail.h"

#include <cerrno>
#include <string>
#include <sys/socket.h>
#include <system_error>
#include <thread>
#include <unistd.h>

namespace {

void serve_connection(int fd, const std::string& answer)
{
    char buffer[8192]; // on the stack: a thread allocates nothing
    while (recv(fd, buffer, sizeof buffer, 0) > 0 &&
           send(fd, answer.data(), answer.size(), MSG_NOSIGNAL) ==
               static_cast<ssize_t>(answer.size())) {
    }
    close(fd);
}

} // namespace

void serve_threads(const Ceiling_Options& options)
{
    const std::string answer = constant_answer(true);
    const int listener = open_listener(options, true);
    for (;;) {
        const int fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd == -1) {
            if (errno == EINTR || errno == ECONNABORTED) {
                continue;
            }
            fail_errno("accept4");
        }
        try {
            std::thread([fd, &answer] { serve_connection(fd, answer); }).detach();
        } catch (const std::system_error& error) {
            fail("no thread can be started: %s", error.what());
        }
    }
}
