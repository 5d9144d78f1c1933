// A thread per connection: a blocking recv and a send.
#include "bench/ceilings/answer.h"
#include "bench/ceilings/kinds.h"
#include "bench/ceilings/listener.h"
#include "bench/ceilings/options.h"
#include "bench/common/fail.h"

#include <cerrno>
#include <cstdint>
#include <pthread.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr size_t STACK = 256 * 1024;
constexpr size_t BUFFER = 8 * 1024; // on the stack: a thread allocates nothing

std::string answer;

extern "C" void* serve_connection(void* argument)
{
    const int fd = static_cast<int>(reinterpret_cast<std::intptr_t>(argument));
    char buffer[BUFFER];
    while (recv(fd, buffer, sizeof buffer, 0) > 0 &&
           send(fd, answer.data(), answer.size(), MSG_NOSIGNAL) ==
               static_cast<ssize_t>(answer.size())) {
    }
    close(fd);
    return nullptr;
}

} // namespace

void serve_threads(const Ceiling_Options& options)
{
    answer = constant_answer(true);
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    pthread_attr_setstacksize(&attributes, STACK);
    const int listener = open_listener(options, true);
    for (;;) {
        const int fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd == -1) {
            if (errno == EINTR || errno == ECONNABORTED) {
                continue;
            }
            fail_errno("accept4");
        }
        pthread_t thread = {};
        const int error = pthread_create(&thread, &attributes, serve_connection,
                                         reinterpret_cast<void*>(static_cast<std::intptr_t>(fd)));
        if (error != 0) {
            errno = error;
            fail_errno("pthread_create");
        }
    }
}
