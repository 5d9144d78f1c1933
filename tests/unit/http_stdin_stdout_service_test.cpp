#include "httpd/http_stdin_stdout_service.h"

#include "httpd/http_access_logger.h"
#include "httpd/http_authenticator_creator_map.h"
#include "httpd/http_handler_creator_map.h"
#include "httpd/http_options.h"
#include "httpd/http_service.h"
#include "httpd/live_connections.h"
#include "httpd/websocket_handler_creator_map.h"
#include "tests/support/host_process.h"
#include "tests/support/log_capture.h"
#include "tests/support/reactor_probe.h"
#include "tests/support/sanitized.h"
#include "tests/support/test_sockets.h"

#include <ace/Reactor.h>
#include <ace/Time_Value.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

namespace {

using Words = std::vector<std::string>;

void close_shared_objects()
{
    HTTP_Options::close_instance();
    HTTP_Access_Logger_Impl::close_instance();
    HTTP_Handler_Creator_Map::close_instance();
    HTTP_Authenticator_Creator_Map::close_instance();
    WebSocket_Handler_Creator_Map::close_instance();
}

/// Gives the process's descriptor another target while it lives.
class Descriptor_Swap {
public:
    Descriptor_Swap(int descriptor, int target)
        : descriptor_(descriptor), kept_(::fcntl(descriptor, F_DUPFD_CLOEXEC, 3))
    {
        ::dup2(target, descriptor);
    }
    ~Descriptor_Swap()
    {
        ::dup2(kept_, descriptor_);
        ::close(kept_);
    }
    Descriptor_Swap(const Descriptor_Swap&) = delete;
    Descriptor_Swap& operator=(const Descriptor_Swap&) = delete;

private:
    const int descriptor_;
    const int kept_;
};

/// The place of the process-wide reactor: ACE's own way to set it leaks at every second use.
struct Process_Reactor : ACE_Reactor {
    static ACE_Reactor*& slot() { return reactor_; }
};

/// Prints failures where they are seen: descriptor 1 is the service's.
class Failures_To_Standard_Error : public testing::EmptyTestEventListener {
    void OnTestPartResult(const testing::TestPartResult& result) override
    {
        if (result.failed()) {
            std::fprintf(stderr, "%s:%d: %s\n", result.file_name(), result.line_number(),
                         result.message());
        }
    }
};

/// The service in this process, with pipes as descriptors 0 and 1, on a reactor of the test's own
/// as the process-wide one.
class HTTP_Stdin_Stout_Service_Test : public testing::Test {
protected:
    HTTP_Stdin_Stout_Service_Test()
    {
        testing::UnitTest::GetInstance()->listeners().Append(&failures_);
        std::fflush(stdout);
        stdin_ = std::make_unique<Descriptor_Swap>(STDIN_FILENO, in_.first.get());
        stdout_ = std::make_unique<Descriptor_Swap>(STDOUT_FILENO, out_.second.get());
        EXPECT_EQ(::sigaction(SIGPIPE, nullptr, &sigpipe_), 0);
        close_shared_objects();
        others_reactor_ = std::exchange(Process_Reactor::slot(), &loop_.reactor);
        service_ = make();
    }

    ~HTTP_Stdin_Stout_Service_Test() override
    {
        service_.reset();
        Process_Reactor::slot() = others_reactor_;
        close_shared_objects();
        ::sigaction(SIGPIPE, &sigpipe_, nullptr);
        std::fflush(stdout);
        testing::UnitTest::GetInstance()->listeners().Release(&failures_);
    }

    static std::unique_ptr<ACE_Service_Object> make()
    {
        return std::unique_ptr<ACE_Service_Object>(_make_HTTP_Stdin_Stout_Service(nullptr));
    }

    int init(Words words) { return init(*service_, std::move(words)); }

    static int init(ACE_Service_Object& service, Words words)
    {
        std::vector<char*> argv;
        for (std::string& word : words) {
            argv.push_back(word.data());
        }
        argv.push_back(nullptr);
        return service.init(static_cast<int>(words.size()), argv.data());
    }

    void send(const std::string& text) const
    {
        EXPECT_EQ(::write(in_.second.get(), text.data(), text.size()),
                  static_cast<ssize_t>(text.size()));
    }

    /// Runs the process-wide reactor until its loop is ended. @return false when it was not.
    bool run()
    {
        ACE_Time_Value limit(10);
        return loop_.reactor.run_reactor_event_loop(limit) != -1 || loop_has_ended();
    }

    /// What has been written to descriptor 1.
    std::string received() const
    {
        std::string bytes(64 * 1024, '\0');
        const ssize_t count = ::read(out_.first.get(), bytes.data(), bytes.size());
        bytes.resize(count > 0 ? static_cast<size_t>(count) : 0U);
        return bytes;
    }

    bool loop_has_ended() { return loop_.reactor.reactor_event_loop_done() != 0; }

    /// No connection of the process is left.
    static bool nobody_lives() { return Live_Connections::instance().drain({}); }

    Failures_To_Standard_Error failures_;
    Log_Capture log_;
    Reactor_Loop loop_;
    Test_Pair in_ = pipe_pair();
    Test_Pair out_ = pipe_pair();
    std::unique_ptr<Descriptor_Swap> stdin_;
    std::unique_ptr<Descriptor_Swap> stdout_;
    ACE_Reactor* others_reactor_ = nullptr;
    std::unique_ptr<ACE_Service_Object> service_;
    struct sigaction sigpipe_ {};
};

} // namespace

TEST_F(HTTP_Stdin_Stout_Service_Test, answers_on_its_descriptors_until_the_end_of_input)
{
    const Temporary_Folder folder;
    const std::string handlers = folder.write(
        "http.json", plugin_configuration({{"/probe", "probe_plugin", "_make_Probe"}}));
    ASSERT_EQ(init({"-f", handlers}), 0);
    for (int i = 0; i < 2; ++i) {
        send("GET /probe/hello HTTP/1.1\r\nHost: x\r\n\r\n");
        EXPECT_EQ(loop_.round(), 1);
        EXPECT_FALSE(loop_has_ended()) << "waits for a next request";
        const std::string response = received();
        EXPECT_EQ(response.rfind("HTTP/1.1 200 OK\r\n", 0), 0U);
    }
    in_.second.close();
    EXPECT_TRUE(run());
    EXPECT_TRUE(loop_has_ended());
    EXPECT_FALSE(nobody_lives()) << "the handler is the service's";
    EXPECT_EQ(service_->fini(), 0);
    EXPECT_TRUE(nobody_lives());
    EXPECT_NE(::fcntl(STDIN_FILENO, F_GETFD), -1);
    EXPECT_NE(::fcntl(STDOUT_FILENO, F_GETFD), -1);
}

TEST_F(HTTP_Stdin_Stout_Service_Test, takes_no_command_line_too)
{
    EXPECT_EQ(service_->init(0, nullptr), 0);
    EXPECT_EQ(service_->fini(), 0);
    EXPECT_TRUE(nobody_lives());
}

TEST_F(HTTP_Stdin_Stout_Service_Test, starts_no_loop_and_listens_nowhere)
{
    ASSERT_EQ(init({"-t", "4", "-p", "127.0.0.1:0", "-c", "process", "--listen-backlog=7",
                    "--accept-timeout=5"}),
              0);
    EXPECT_EQ(log_.count(LM_INFO, "HTTP event loops"), 0U);
    EXPECT_EQ(log_.count(LM_INFO, "is listening"), 0U);
    EXPECT_EQ(log_.texts(LM_ERROR), Words());
}

TEST_F(HTTP_Stdin_Stout_Service_Test, handle_close_ends_the_event_loop_and_frees_nothing)
{
    auto* const handler = new HTTP_Stdin_Stout_Svc_Handler;
    const ACE_Event_Handler_var hold(handler);
    EXPECT_EQ(handler->handle_close(ACE_INVALID_HANDLE, ACE_Event_Handler::ALL_EVENTS_MASK), 0);
    EXPECT_TRUE(loop_has_ended());
    EXPECT_FALSE(nobody_lives());
}

TEST_F(HTTP_Stdin_Stout_Service_Test, a_closed_connection_is_not_called_any_more)
{
    ASSERT_EQ(init({"-i", "30"}), 0);
    send("nonsense\r\n\r\n");
    EXPECT_EQ(loop_.round(), 1);
    EXPECT_TRUE(loop_has_ended());
    EXPECT_EQ(log_.count(LM_ERROR, "Failed to parse HTTP header"), 1U);
    // Neither its timer nor its registration is left to the host's reactor.
    EXPECT_EQ(loop_.mask(STDIN_FILENO), -1);
    EXPECT_EQ(loop_.reactor.timer_queue()->is_empty(), 1);
    loop_.reactor.reset_reactor_event_loop();
    send("nonsense\r\n\r\n");
    loop_.round();
    EXPECT_EQ(log_.count(LM_ERROR, "Failed to parse HTTP header"), 1U);
}

TEST_F(HTTP_Stdin_Stout_Service_Test, fini_and_the_destructor_leave_nothing_to_the_reactor)
{
    for (const bool with_fini : {true, false}) {
        SCOPED_TRACE(with_fini);
        service_ = make();
        ASSERT_EQ(init({"-i", "30"}), 0);
        EXPECT_NE(loop_.mask(STDIN_FILENO), -1);
        EXPECT_EQ(loop_.reactor.timer_queue()->is_empty(), 0);
        if (with_fini) {
            EXPECT_EQ(service_->fini(), 0);
        } else {
            service_.reset();
        }
        EXPECT_TRUE(nobody_lives());
        EXPECT_EQ(loop_.mask(STDIN_FILENO), -1);
        EXPECT_EQ(loop_.reactor.timer_queue()->is_empty(), 1);
    }
}

TEST_F(HTTP_Stdin_Stout_Service_Test, the_result_of_open_is_that_of_init)
{
    Reactor_Record record;
    Held_Probe other(STDIN_FILENO);
    ASSERT_EQ(loop_.reactor.register_handler(other.probe, ACE_Event_Handler::READ_MASK), 0);
    errno = 0;
    EXPECT_EQ(init({"-i", "30"}), -1);
    EXPECT_EQ(errno, EEXIST);
    EXPECT_EQ(log_.count(LM_ERROR, "unable to register client handler, errno=17"), 1U);
    service_.reset(); // as the configurator does: without fini
    EXPECT_TRUE(nobody_lives());
    EXPECT_NE(loop_.mask(other.probe), -1) << "the other one's registration is its own";
    EXPECT_EQ(loop_.reactor.timer_queue()->is_empty(), 1);
    EXPECT_FALSE(loop_has_ended());
}

TEST_F(HTTP_Stdin_Stout_Service_Test, a_command_line_that_cannot_be_kept_ends_init_without_a_word)
{
#if defined(HTTPD_TEST_SANITIZED)
    GTEST_SKIP() << "memory cannot be limited under a sanitizer";
#else
    Words words = {"-p", std::string(size_t{256} << 20, 'a')};
    rlimit limit{};
    ASSERT_EQ(::getrlimit(RLIMIT_AS, &limit), 0);
    long pages = 0;
    FILE* const statm = std::fopen("/proc/self/statm", "r");
    ASSERT_NE(statm, nullptr);
    ASSERT_EQ(std::fscanf(statm, "%ld", &pages), 1);
    std::fclose(statm);
    char* argv[] = {words[0].data(), words[1].data(), nullptr};
    const rlimit tight{static_cast<rlim_t>(pages * ::sysconf(_SC_PAGESIZE)) + (32U << 20),
                       limit.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_AS, &tight), 0);
    const int result = service_->init(2, argv);
    const int error = errno;
    ASSERT_EQ(::setrlimit(RLIMIT_AS, &limit), 0);
    EXPECT_EQ(result, -1);
    EXPECT_EQ(error, ENOMEM);
    EXPECT_EQ(log_.texts(LM_ERROR), Words());
    EXPECT_TRUE(nobody_lives());
    EXPECT_EQ(loop_.mask(STDIN_FILENO), -1);
#endif
}

TEST_F(HTTP_Stdin_Stout_Service_Test, fini_without_init_and_a_second_one_are_harmless)
{
    EXPECT_EQ(service_->fini(), 0);
    ASSERT_EQ(init({}), 0);
    EXPECT_EQ(service_->fini(), 0);
    EXPECT_EQ(service_->fini(), 0);
    service_.reset();
    EXPECT_TRUE(nobody_lives());
}

TEST_F(HTTP_Stdin_Stout_Service_Test, a_second_init_starts_anew_with_the_options_added_up)
{
    ASSERT_EQ(init({"-t", "2"}), 0);
    ASSERT_EQ(init({"-t", "3", "-p", "1"}), 0);
    EXPECT_NE(loop_.mask(STDIN_FILENO), -1);
    EXPECT_EQ(HTTP_Options::instance()->loops(), 3);
    EXPECT_EQ(service_->fini(), 0);
    EXPECT_TRUE(nobody_lives());
}

TEST_F(HTTP_Stdin_Stout_Service_Test, fini_releases_all_but_the_authenticators)
{
    const Temporary_Folder folder;
    const std::string handlers = folder.write(
        "http.json", plugin_configuration({{"/probe", "probe_plugin", "_make_Probe"}}));
    const std::string guards = folder.write(
        "auth.json", plugin_configuration({{"/probe", "probe_plugin", "_make_Probe_Auth"}}));
    const std::string sockets = folder.write(
        "ws.json", plugin_configuration({{"/ws", "websocket_probe_plugin", "_make_WS_Probe"}}));
    ASSERT_EQ(init({"-t", "5", "-f", handlers, "-a", guards, "-w", sockets}), 0);
    const auto has_handler = [] {
        size_t off = 0;
        return HTTP_Handler_Creator_Map::instance()->find("/probe", '/', off) != nullptr;
    };
    const auto has_guard = [] {
        size_t off = 0;
        return HTTP_Authenticator_Creator_Map::instance()->find("/probe", '/', off) != nullptr;
    };
    const auto has_socket = [] {
        size_t off = 0;
        return WebSocket_Handler_Creator_Map::instance()->find("/ws", '/', off) != nullptr;
    };
    EXPECT_TRUE(has_handler());
    EXPECT_TRUE(has_guard());
    EXPECT_TRUE(has_socket());
    EXPECT_EQ(service_->fini(), 0);
    EXPECT_FALSE(has_handler());
    EXPECT_TRUE(has_guard());
    EXPECT_FALSE(has_socket());
    EXPECT_EQ(HTTP_Options::instance()->loops(), 1);
}

TEST_F(HTTP_Stdin_Stout_Service_Test, its_destructor_leaves_the_options_alone)
{
    ASSERT_EQ(init({"-t", "2"}), 0);
    service_.reset();
    EXPECT_EQ(HTTP_Options::instance()->loops(), 2);
}

TEST_F(HTTP_Stdin_Stout_Service_Test, shares_what_is_shared_with_the_listening_service)
{
    for (const bool listener_first : {false, true}) {
        SCOPED_TRACE(listener_first);
        close_shared_objects();
        service_ = make();
        const std::unique_ptr<ACE_Service_Object> listener(_make_HTTP_Service(nullptr));
        ASSERT_EQ(init(*listener, {"-t", "2"}), 0);
        ASSERT_EQ(init({}), 0);
        ACE_Service_Object& first = listener_first ? *listener : *service_;
        ACE_Service_Object& last = listener_first ? *service_ : *listener;
        EXPECT_EQ(first.fini(), 0);
        EXPECT_EQ(HTTP_Options::instance()->loops(), 2) << "the other one goes on";
        EXPECT_EQ(last.fini(), 0);
        EXPECT_EQ(HTTP_Options::instance()->loops(), 1);
        EXPECT_TRUE(nobody_lives());
    }
}

TEST_F(HTTP_Stdin_Stout_Service_Test, ignores_sigpipe_unless_the_host_handles_it)
{
    struct sigaction action {};
    action.sa_handler = SIG_DFL;
    ASSERT_EQ(::sigaction(SIGPIPE, &action, nullptr), 0);
    ASSERT_EQ(init({}), 0);
    ASSERT_EQ(::sigaction(SIGPIPE, nullptr, &action), 0);
    EXPECT_EQ(action.sa_handler, SIG_IGN);
}

TEST_F(HTTP_Stdin_Stout_Service_Test, the_factory_tells_how_to_delete_what_it_made)
{
    void (*gobbler)(void*) = nullptr;
    ACE_Service_Object* const service = _make_HTTP_Stdin_Stout_Service(&gobbler);
    ASSERT_NE(service, nullptr);
    EXPECT_NE(dynamic_cast<HTTP_Stdin_Stout_Service*>(service), nullptr);
    ASSERT_EQ(gobbler, &_gobble_HTTP_Stdin_Stout_Service);
    EXPECT_EQ(init(*service, {}), 0);
    gobbler(service);
    EXPECT_TRUE(nobody_lives());
}

TEST(HTTP_Stdin_Stout_Service_Death_Test, the_gobbler_does_not_take_null)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(_gobble_HTTP_Stdin_Stout_Service(nullptr), "_p != 0");
}
