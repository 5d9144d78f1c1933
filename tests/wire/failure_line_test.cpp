// What the system refuses is told in the log, by the line for it, and costs no more than what it
// hit.

#include "tests/support/faults.h"
#include "tests/support/host_run.h"
#include "tests/support/listener_server.h"
#include "tests/support/log_lines.h"
#include "tests/support/sanitized.h"
#include "tests/support/stdio_host.h"
#include "tests/support/websocket_client.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <functional>
#include <regex>

namespace {

using Words = std::vector<std::string>;

const char* const HELLO = "Hello, World!";

/// A server and what is to fail in it.
class Failure_Line : public testing::Test {
protected:
    Failure_Line() : root_(folder_.path() + "/root")
    {
        folder_.write("root/small.txt", "small file");
        folder_.write("root/large.txt", std::string(100'000, 'x'));
    }

    Listener_Server& start(const Words& options = {"-t", "1"})
    {
        Probe_Server::Setup setup;
        setup.options = options;
        setup.handlers.push_back({"/files", "httpd_files", "_make_Files", "--root " + root_});
        setup.handlers.push_back(
            {"/thread", "httpd_files", "_make_Files", "--thread-size 0 --root " + root_});
        setup.websockets = {{"/ws", "websocket_probe_plugin", "_make_WS_Probe"},
                            {"/chat", "httpd_ws_chat", "_make_WS_Chat"}};
        const Faults::In_Environment environment(faults_);
        server_ = std::make_unique<Listener_Server>(Listener_Kind::TCP, setup);
        return *server_;
    }

    /// @return the status; 0 when the connection ended without an answer
    int status_of(const std::string& request)
    {
        const auto client = server_->connect();
        return client != nullptr ? client->exchange(request).status : 0;
    }

    /// Ends the server, which must serve first. @return its error lines
    Words errors()
    {
        faults_.disarm();
        EXPECT_EQ(200, status_of(get_request("/probe/hello")));
        EXPECT_EQ(0, server_->host().stop(SIGTERM)) << server_->host().log_text();
        return lines_of(server_->host(), "ERROR");
    }

    /**
     * Starts hosts in which the n-th call is the first that fails, for every n, until the line
     * comes.
     *
     * @param start  starts a host with the faults in its environment; returns its error lines
     */
    bool is_told_for_some(Fault fault, const std::string& line, const std::function<Words()>& start)
    {
        constexpr std::uint64_t MOST = 60;
        fault.times = 1;
        for (fault.skip = 0; fault.skip < MOST; ++fault.skip) {
            faults_.arm(fault);
            Words errors;
            {
                const Faults::In_Environment environment(faults_);
                errors = start();
            }
            const bool struck = faults_.struck() > 0;
            faults_.disarm();
            for (const std::string& error : errors) {
                if (error.find(line) != std::string::npos) {
                    return true;
                }
            }
            if (!struck) {
                return false; // there is no such call any more
            }
        }
        return false;
    }

    /// Starts a host for one connection and asks it something.
    Words serve_stdio(Stdio_Host::Kind kind)
    {
        Stdio_Host::Setup setup;
        setup.kind = kind;
        Stdio_Host it(setup);
        it.client().send(get_request("/probe/hello"));
        it.client().half_close();
        it.client().read_to_end();
        const int status = it.wait_for_end();
        EXPECT_TRUE(status == 0 || status == 1) << status << it.host().log_text();
        return lines_of(it.host(), "ERROR");
    }

    Temporary_Folder folder_;
    std::string root_;
    Faults faults_;
    std::unique_ptr<Listener_Server> server_;
};

} // namespace

// ---------------------------------------------------------------- files

TEST_F(Failure_Line, file_that_cannot_be_opened)
{
    start();
    EXPECT_EQ(404, status_of(get_request("/files/lost.txt"))); // the record's place is known now
    Fault fault{Fault_Call::OPEN, EIO};
    fault.path = "small.txt";
    faults_.arm(fault);
    EXPECT_EQ(500, status_of(get_request("/files/small.txt")));
    EXPECT_EQ(Words{"Failed to open the file of '/files/small.txt', errno=5, Input/output error"},
              errors());
}

TEST_F(Failure_Line, file_that_cannot_be_read)
{
    start();
    Fault fault{Fault_Call::READ, EIO};
    fault.path = "small.txt";
    faults_.arm(fault);
    EXPECT_EQ(0, status_of(get_request("/files/small.txt")));
    EXPECT_EQ(Words{"Failed to read the file of '/files/small.txt', errno=5, Input/output error"},
              errors());
}

TEST_F(Failure_Line, old_log_that_cannot_be_removed)
{
    folder_.write("log/access.log.1", "old\n");
    const std::string log = folder_.path() + "/log/access.log";
    start({"-t", "1", "-l", log, "-m", "1", "-N", "2"});
    Fault fault{Fault_Call::UNLINK, EIO};
    fault.path = "access.log.";
    faults_.arm(fault);
    for (int i = 0; i < 100 && faults_.struck() == 0; ++i) {
        EXPECT_EQ(200, status_of(get_request("/probe/hello")));
    }
    EXPECT_EQ(Words{"Failed to remove old log " + log + ".1, errno=5, Input/output error"},
              errors());
}

// ---------------------------------------------------------------- memory

/// The line comes for one of the allocations that a request costs.
TEST_F(Failure_Line, memory_that_a_request_needs)
{
#if defined(HTTPD_TEST_SANITIZED)
    GTEST_SKIP() << "a sanitizer has the heap in its own hands";
#endif
    const struct {
        std::string request;
        std::string line;
    } rows[] = {
        {get_request("/thread/large.txt", {"Range: bytes=0-99"}),
         "Failed to allocate a buffer for '/thread/large.txt', errno=12, Cannot allocate memory"},
        {upgrade_request("/ws"), "Failed to calculate WebSocket accept key, errno=12, "},
        {upgrade_request("/chat"), " is refused, errno=12, Cannot allocate memory"},
    };
    start();
    constexpr std::uint64_t MOST = 60;
    for (const auto& row : rows) {
        SCOPED_TRACE(row.line);
        bool told = false;
        for (std::uint64_t n = MOST; n-- > 0 && !told;) {
            faults_.arm({Fault_Call::ALLOCATE, ENOMEM, 0, n, 1});
            const auto client = server_->connect();
            ASSERT_NE(nullptr, client);
            client->send(row.request);
            client->half_close();
            client->read_to_end();
            faults_.disarm();
            ASSERT_EQ(200, status_of(get_request("/probe/hello"))) << n;
            told = server_->host().count_log(row.line) > 0;
        }
        EXPECT_TRUE(told || server_->host().wait_for_log(row.line)); // its reader may be behind
    }
    errors();
}

// ---------------------------------------------------------------- connections

TEST_F(Failure_Line, worker_thread_that_cannot_be_started)
{
    start();
    faults_.arm({Fault_Call::THREAD, EAGAIN});
    status_of(get_request("/probe/thread/hello"));
    const Words found = errors();
    ASSERT_EQ(1U, found.size());
    EXPECT_EQ(0U, found.front().find("Failed to start a worker thread for HTTP client "));
    EXPECT_NE(std::string::npos,
              found.front().find(", errno=11, Resource temporarily unavailable"));
}

TEST_F(Failure_Line, connection_that_cannot_be_resumed)
{
    start();
    const auto client = server_->connect();
    ASSERT_NE(nullptr, client);
    EXPECT_EQ(HELLO, client->exchange(get_request("/probe/hello")).body);
    Fault fault{Fault_Call::EPOLL_CONTROL, ENOMEM};
    fault.descriptor = Fault_Descriptor::SOCKET;
    faults_.arm(fault);
    client->send(body_request("POST", "/probe/suspend", "text"));
    EXPECT_TRUE(server_->host().wait_for_log("Failed to resume HTTP to reactor"));
    EXPECT_EQ(Words{"Failed to resume HTTP to reactor, errno=12, Cannot allocate memory"},
              errors());
}

TEST_F(Failure_Line, standard_input_that_is_not_to_be_watched)
{
    EXPECT_TRUE(is_told_for_some({Fault_Call::EVENT, EMFILE},
                                 "Failed to prepare HTTP connection handle 0, errno=24",
                                 [this] { return serve_stdio(Stdio_Host::Kind::PIPES); }));
}

TEST_F(Failure_Line, standard_input_whose_flags_cannot_be_set)
{
    EXPECT_TRUE(is_told_for_some({Fault_Call::CONTROL, EIO},
                                 "Failed to enable cloexec on HTTP connection handle ",
                                 [this] { return serve_stdio(Stdio_Host::Kind::PIPES); }));
}

// ---------------------------------------------------------------- listeners, loops, the host

TEST_F(Failure_Line, listener_whose_flags_cannot_be_set)
{
    const std::string address = own_loopback_address();
    const auto listen = [&address] {
        Host_Process::Command command;
        command.service = {"-t", "1", "-p", address + ":8080"};
        command.wait_until_ready = false;
        Host_Process host(command);
        const bool runs = host.wait_for_log(" is running as process ");
        EXPECT_EQ(runs ? 0 : 1, host.stop(runs ? SIGTERM : 0)) << host.log_text();
        return lines_of(host, "ERROR");
    };
    Fault fault{Fault_Call::CONTROL, EIO};
    fault.descriptor = Fault_Descriptor::SOCKET;
    EXPECT_TRUE(is_told_for_some(fault,
                                 "Failed to enable cloexec on HTTP listener " + address +
                                     ":8080, errno=5, Input/output error",
                                 listen));
}

TEST_F(Failure_Line, loop_that_fails_goes_on)
{
    start();
    const auto client = server_->connect(); // the host's own loop sleeps until the next one comes
    ASSERT_NE(nullptr, client);
    EXPECT_EQ(HELLO, client->exchange(get_request("/probe/hello")).body);
    faults_.arm({Fault_Call::EPOLL_WAIT, ENOMEM, 0, 0, 2});
    EXPECT_EQ(HELLO, client->exchange(get_request("/probe/hello")).body);
    EXPECT_TRUE(faults_.wait_until_struck(2));
    EXPECT_EQ(HELLO, client->exchange(get_request("/probe/hello")).body);
    const std::string line = "Failed to handle events, errno=12, Cannot allocate memory";
    EXPECT_EQ((Words{line, line}), errors());
}

TEST_F(Failure_Line, host_whose_loop_fails_ends_in_order)
{
    Host_Process::Command command;
    command.service = {"-t", "1"};
    const Faults::In_Environment environment(faults_);
    Host_Process host(command);
    ASSERT_TRUE(host.wait_for_log(" is running as process "));
    faults_.arm({Fault_Call::EPOLL_WAIT, ENOMEM});
    ::kill(host.pid(), SIGHUP); // its loop comes round
    EXPECT_EQ(1, host.stop(0));
    EXPECT_EQ(1U, count_log_lines(host, "ERROR",
                                  "The event loop failed, errno=12, Cannot allocate memory"));
    EXPECT_EQ("INFO httpd_host has stopped.", log_lines(host).back());
}

TEST_F(Failure_Line, host_without_signals_does_not_start)
{
    const Faults::In_Environment environment(faults_);
    faults_.arm({Fault_Call::SIGNAL, EMFILE});
    const Host_Run run = run_host({}, {"-t", "1"});
    EXPECT_EQ(1, run.status);
    EXPECT_EQ(Words{"Failed to watch signals, errno=24, Too many open files"}, run.refusal);
}

TEST_F(Failure_Line, PID_file_that_cannot_be_emptied)
{
    const Faults::In_Environment environment(faults_);
    faults_.arm({Fault_Call::TRUNCATE, EIO});
    const std::string path = folder_.path() + "/pid";
    const Host_Run run = run_host({"--pid-file", path}, {"-t", "1"});
    EXPECT_EQ(1, run.status);
    EXPECT_EQ(Words{"cannot empty PID file " + path + ": Input/output error"}, run.refusal);
}

TEST_F(Failure_Line, service_configuration_file_that_cannot_be_opened_again)
{
    const std::string path =
        folder_.write("svc.conf", "dynamic X Service_Object * httpd:_make_HTTP_Service() '-t 1'\n");
    Fault fault{Fault_Call::OPEN, EMFILE};
    fault.path = "svc.conf";
    EXPECT_TRUE(is_told_for_some(
        fault, "cannot process service configuration file " + path + ": ", [&path] {
            Host_Process::Command command;
            command.host = {"-f", path};
            Host_Process host(command);
            const bool runs = host.wait_for_log(" is running as process ");
            EXPECT_EQ(runs ? 0 : 1, host.stop(runs ? SIGTERM : 0)) << host.log_text();
            return lines_of(host, "ERROR");
        }));
}

TEST_F(Failure_Line, log_lines_stay_whole_when_standard_error_takes_little_at_a_time)
{
    Fault little{Fault_Call::WRITE};
    little.longest = 7;
    little.descriptor = Fault_Descriptor::OTHER;
    Fault interrupted{Fault_Call::WRITE, EINTR};
    interrupted.descriptor = Fault_Descriptor::OTHER;
    interrupted.skip = 1;
    interrupted.period = 3;
    Fault full = interrupted;
    full.error = EAGAIN;
    full.skip = 2;
    for (const Fault& fault : {little, interrupted, full}) {
        faults_.arm(fault);
        start();
        EXPECT_EQ(200, status_of(get_request("/probe/hello")));
        EXPECT_EQ(0, server_->host().stop(SIGTERM));
        EXPECT_GT(faults_.struck(), 3U);
        faults_.disarm();
        const std::regex line(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}[+-]\d{4} [A-Z]+ .+)");
        for (const std::string& text : server_->host().log()) {
            EXPECT_TRUE(std::regex_match(text, line)) << text;
        }
        EXPECT_EQ("INFO httpd_host has stopped.", log_lines(server_->host()).back());
    }
}
