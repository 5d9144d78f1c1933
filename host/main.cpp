#include "host/host_options.h"
#include "host/log_sink.h"
#include "host/pid_file.h"
#include "host/process_setup.h"
#include "host/service_loader.h"
#include "host/signal_watcher.h"
#include "host/tls_setup.h"
#include "support/epoll_reactor.h"
#include "support/log.h"

#include <ace/Reactor.h>
#include <ace/Service_Config.h>

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <exception>

namespace {

enum Exit_Status { STOPPED = 0, FAILED = 1, WRONG_USAGE = 2 };

int fail(const std::string& error)
{
    HTTPD_ERROR("%s", error.c_str());
    return FAILED;
}

int print(const char* text)
{
    return std::fputs(text, stdout) >= 0 && std::fflush(stdout) == 0 ? STOPPED : FAILED;
}

bool run_event_loop()
{
    ACE_Reactor* const reactor = ACE_Reactor::instance();
    while (reactor->reactor_event_loop_done() == 0) {
        if (reactor->run_reactor_event_loop() == -1 && errno != EINTR) {
            HTTPD_ERROR("The event loop failed, errno=%d, %m", errno);
            return false;
        }
    }
    return true;
}

/// Closes the services whenever they may have been opened, also where only some could be.
class Services {
public:
    Services() = default;
    ~Services() { ACE_Service_Config::close(); }
    Services(const Services&) = delete;
    Services& operator=(const Services&) = delete;

    bool open(Host_Options& options, std::string& error)
    {
        constexpr bool NO_STATIC_SERVICES = true;
        constexpr bool NO_DEFAULT_FILE = true;
        constexpr bool KEEP_LOG_LEVEL = true;
        if (ACE_Service_Config::open("httpd_host", ACE_DEFAULT_LOGGER_KEY, NO_STATIC_SERVICES,
                                     NO_DEFAULT_FILE, KEEP_LOG_LEVEL) == -1) {
            error = "cannot open the service configurator";
            return false;
        }
        return load_services(options, error);
    }
};

int serve(Host_Options& options)
{
    std::string error;
    Pid_File pid_file;
    if (!options.pid_file_.empty() && !pid_file.lock(options.pid_file_, error)) {
        return fail(error);
    }
    if (!options.tls_certificate_.empty() &&
        !setup_tls(options.tls_certificate_, options.tls_private_key_, error)) {
        return fail(error);
    }
    raise_descriptor_limit();
    constexpr bool OWNED = true;
    auto* const reactor = new Epoll_Reactor;
    ACE_Reactor::instance(new ACE_Reactor(reactor, OWNED), OWNED);
    if (!reactor->initialized()) {
        HTTPD_ERROR("Failed to open the reactor, errno=%d, %m", errno);
        return FAILED;
    }
    Signal_Watcher signals;
    if (signals.open(ACE_Reactor::instance()) == -1) {
        HTTPD_ERROR("Failed to watch signals, errno=%d, %m", errno);
        return FAILED;
    }
    bool clean = true;
    {
        Services services;
        if (!services.open(options, error) || !pid_file.write(error)) {
            return fail(error);
        }
        HTTPD_INFO("httpd_host %s is running as process %d.", HTTPD_VERSION,
                   static_cast<int>(::getpid()));
        clean = run_event_loop();
    }
    HTTPD_INFO("httpd_host has stopped.");
    return clean ? STOPPED : FAILED;
}

int run(int argc, char** argv)
{
    Host_Options options;
    std::string error;
    if (!parse_host_options(argc, argv, options, error)) {
        std::fprintf(stderr, "httpd_host: %s\nTry \"httpd_host --help\".\n", error.c_str());
        return WRONG_USAGE;
    }
    switch (options.action_) {
    case Host_Options::Action::SHOW_HELP:
        return print(host_help());
    case Host_Options::Action::SHOW_VERSION:
        return print("httpd_host " HTTPD_VERSION "\n");
    case Host_Options::Action::RUN:
        break;
    }
    if (prepare_signals() == -1 || !open_log(options.log_level_, options.log_file_, error)) {
        std::fprintf(stderr, "httpd_host: %s\n",
                     error.empty() ? "cannot set up signals" : error.c_str());
        return FAILED;
    }
    return serve(options);
}

} // namespace

int main(int argc, char** argv)
{
    try {
        open_standard_descriptors();
        if (asks_for_stdio(argc, argv)) {
            keep_standard_error_from_the_client();
        }
        return run(argc, argv);
    } catch (const std::exception& problem) {
        std::fprintf(stderr, "httpd_host: %s\n", problem.what());
        return FAILED;
    }
}
