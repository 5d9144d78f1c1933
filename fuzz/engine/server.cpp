#include "fuzz/engine/server.h"

#include "fuzz/engine/bindings.h"
#include "fuzz/engine/failure.h"
#include "fuzz/engine/watched_plug_ins.h"
#include "httpd/http_options.h"
#include "httpd/http_svc_handler_t.h"
#include "httpd/live_connections.h"
#include "httpd/service_share.h"

#include <ace/INET_Addr.h>
#include <ace/Log_Msg.h>
#include <ace/Log_Msg_Callback.h>
#include <ace/SOCK_Stream.h>

#include <poll.h>
#include <pthread.h>
#include <sys/stat.h>

#include <cerrno>
#include <chrono>
#include <string>
#include <vector>

extern "C" int __real_poll(pollfd* entries, nfds_t count, int milliseconds);
extern "C" int __wrap_poll(pollfd* entries, nfds_t count, int milliseconds);

namespace {

using Connection = HTTP_Svc_Handler_T<ACE_SOCK_Stream, ACE_MT_SYNCH>;

Waiting_Client* waiting_client = nullptr;

/// Takes the log lines and drops them.
class No_Log : public ACE_Log_Msg_Callback {
public:
    void log(ACE_Log_Record&) override {}
};

void set_options(std::vector<std::string> words)
{
    std::vector<char*> arguments;
    for (std::string& word : words) {
        arguments.push_back(word.data());
    }
    HTTP_Options::instance()->parse_args(static_cast<int>(arguments.size()), arguments.data());
}

/// Open descriptors, but for files, which the cache of `files` keeps, and pipes, which are those of
/// a sanitizer's helper.
size_t open_descriptors()
{
    constexpr int MOST = 64;
    size_t count = 0;
    for (int handle = 0; handle < MOST; ++handle) {
        struct stat status {};
        if (::fstat(handle, &status) == 0 && !S_ISREG(status.st_mode) && !S_ISDIR(status.st_mode) &&
            !S_ISFIFO(status.st_mode)) {
            ++count;
        }
    }
    return count;
}

} // namespace

/// The linker hands every call of poll() in the program to this one.
int __wrap_poll(pollfd* entries, nfds_t count, int milliseconds)
{
    if (waiting_client == nullptr || milliseconds == 0) {
        return __real_poll(entries, count, milliseconds);
    }
    return waiting_client->wait_for(entries[0], milliseconds);
}

Server::Server() : reactor_(&implementation_)
{
    ignore_sigpipe();
    static No_Log no_log;
    ACE_Log_Msg::instance()->msg_callback(&no_log);
    ACE_Log_Msg::instance()->clr_flags(ACE_Log_Msg::STDERR);
    ACE_Log_Msg::instance()->set_flags(ACE_Log_Msg::MSG_CALLBACK);
    ACE_Log_Msg::instance()->priority_mask(0, ACE_Log_Msg::PROCESS);
    ACE_Log_Msg::instance()->priority_mask(0, ACE_Log_Msg::THREAD);
    implementation_.timer_queue(&clock_);
    reactor_.owner(::pthread_self());
    ACE_Reactor::instance(&reactor_);
    set_options({"--idle=10", "--ping-interval=5", "--ping-timeout=3", "--socket-send-timeout=4",
                 "-s", "localhost,example.org"});
    HTTP_Options::instance()->proxy_from("127.0.0.1");
    bind_plug_ins();
    descriptors_ = open_descriptors();
}

Server& Server::instance()
{
    static auto* const server = new Server; // to the end of the process
    return *server;
}

void Server::prepare(size_t buffer_size, bool logged, Waiting_Client& client)
{
    if (buffer_size != buffer_size_) {
        set_options({"--http-receive-buffer-size=" + std::to_string(buffer_size)});
        buffer_size_ = buffer_size;
    }
    constexpr u_long ALL = 0xFFFF;
    ACE_Log_Msg::instance()->priority_mask(logged ? ALL : 0, ACE_Log_Msg::PROCESS);
    waiting_client = &client;
}

void Server::accept(int handle, unsigned number)
{
    auto* const connection = new Connection(nullptr);
    connection->reactor(&reactor_);
    connection->peer().set_handle(handle);
    connection->accepted_from(
        ACE_INET_Addr(static_cast<unsigned short>(FIRST_PORT + number), "127.0.0.1"));
    if (connection->open() == -1) {
        fail("a connection cannot be opened");
    }
}

void Server::work()
{
    constexpr int MOST_ROUNDS = 100'000;
    for (int round = 0; round < MOST_ROUNDS; ++round) {
        ACE_Time_Value at_once(ACE_Time_Value::zero);
        const int handled = reactor_.handle_events(at_once);
        if (handled == -1) {
            fail("the loop fails");
        }
        if (handled == 0) {
            return;
        }
    }
    fail("the loop does not rest");
}

void Server::pass(size_t milliseconds)
{
    this->pass_within_call(milliseconds);
    this->work();
}

void Server::pass_within_call(size_t milliseconds)
{
    clock_.pass(ACE_Time_Value(std::chrono::milliseconds(milliseconds)));
}

void Server::check_empty()
{
    waiting_client = nullptr;
    if (!Live_Connections::instance().drain(std::chrono::milliseconds(0))) {
        fail("connections are left alive");
    }
    if (live_plug_ins() != 0) {
        fail(std::to_string(live_plug_ins()) + " plug-in objects are left alive");
    }
    if (!clock_.is_empty()) {
        fail("a timer is left");
    }
    const size_t descriptors = open_descriptors();
    if (descriptors != descriptors_) {
        fail(std::to_string(descriptors) + " descriptors are open, " +
             std::to_string(descriptors_) + " were at the beginning");
    }
}
