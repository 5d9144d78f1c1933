// A host that takes directives of the service configurator while it runs, one a line, from standard
// input, and answers each on standard output with a line: "done" or "failed", and how many bytes
// the allocator has given out. So one process can be told to load the service and to remove it
// again, as often as the test wants; the real host loads its services once.
//
// directive_host CERTIFICATE KEY

#include "host/log_sink.h"
#include "host/process_setup.h"
#include "host/signal_watcher.h"
#include "host/tls_setup.h"
#include "support/epoll_reactor.h"

#include <ace/Reactor.h>
#include <ace/Service_Config.h>

#include <malloc.h>
#include <unistd.h>

#include <cstdio>
#include <string>

namespace {

/// Processes what standard input says, in the thread of the reactor; its end ends the reactor.
class Directive_Reader : public ACE_Event_Handler {
public:
    ACE_HANDLE get_handle() const override { return STDIN_FILENO; }

    int handle_input(ACE_HANDLE) override
    {
        char bytes[4096];
        const ssize_t count = ::read(STDIN_FILENO, bytes, sizeof bytes);
        if (count <= 0) {
            reactor()->end_reactor_event_loop();
            return 0;
        }
        text_.append(bytes, static_cast<size_t>(count));
        for (size_t end = text_.find('\n'); end != std::string::npos; end = text_.find('\n')) {
            const int failed = ACE_Service_Config::process_directive(text_.substr(0, end).c_str());
            text_.erase(0, end + 1);
            // What is free but kept by the allocator, and so resident, is not of interest here.
            const struct mallinfo2 heap = ::mallinfo2();
            std::printf("%s %zu\n", failed == 0 ? "done" : "failed", heap.uordblks + heap.hblkhd);
            std::fflush(stdout);
        }
        return 0;
    }

private:
    std::string text_; ///< a line of which only a part has come
};

int run()
{
    // First: the service configurator would make one of its own.
    constexpr bool OWNED = true;
    ACE_Reactor::instance(new ACE_Reactor(new Epoll_Reactor, OWNED), OWNED);
    constexpr bool NO_STATIC_SERVICES = true;
    constexpr bool NO_DEFAULT_FILE = true;
    constexpr bool KEEP_LOG_LEVEL = true;
    if (ACE_Service_Config::open("directive_host", ACE_DEFAULT_LOGGER_KEY, NO_STATIC_SERVICES,
                                 NO_DEFAULT_FILE, KEEP_LOG_LEVEL) == -1) {
        return 1;
    }
    ACE_Reactor* const reactor = ACE_Reactor::instance();
    Directive_Reader reader;
    if (reactor->register_handler(&reader, ACE_Event_Handler::READ_MASK) == -1) {
        return 1;
    }
    const int result = reactor->run_reactor_event_loop();
    reactor->remove_handler(&reader, ACE_Event_Handler::READ_MASK | ACE_Event_Handler::DONT_CALL);
    ACE_Service_Config::close();
    return result == -1 ? 1 : 0;
}

} // namespace

int main(int argc, char** argv)
{
    std::string error;
    if (argc != 3 || prepare_signals() == -1 || !open_log(Log_Level::INFO, "", error) ||
        !setup_tls(argv[1], argv[2], error)) {
        std::fprintf(stderr, "directive_host: %s\n",
                     error.empty() ? "usage: directive_host CERTIFICATE KEY" : error.c_str());
        return 2;
    }
    raise_descriptor_limit();
    return run();
}
