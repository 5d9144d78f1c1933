#include "httpd/http_service.h"

#include "httpd/http_access_logger.h"
#include "httpd/http_authenticator_creator_map.h"
#include "httpd/http_handler_creator_map.h"
#include "httpd/http_options.h"
#include "httpd/websocket_handler_creator_map.h"
#include "support/http_message.h"
#include "tests/support/log_capture.h"
#include "tests/support/sanitized.h"

#include <ace/INET_Addr.h>
#include <ace/Reactor.h>
#include <ace/Time_Value.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

using Words = std::vector<std::string>;

/// A descriptor that is closed at the end.
class Socket {
public:
    explicit Socket(int family) : handle_(::socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0)) {}
    ~Socket() { ::close(handle_); }
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;

    int get() const { return handle_; }

private:
    int handle_;
};

bool connect_to(const Socket& client, const std::string& path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    return ::connect(client.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) ==
           0;
}

/// Whether a server listens on the socket file.
bool is_listening(const std::string& path)
{
    return connect_to(Socket(AF_UNIX), path);
}

/// Listens on a port of the loopback interface that nobody else has.
class Busy_Port {
public:
    Busy_Port() : socket_(AF_INET)
    {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof(address);
        EXPECT_EQ(::bind(socket_.get(), reinterpret_cast<sockaddr*>(&address), length), 0);
        EXPECT_EQ(::listen(socket_.get(), 1), 0);
        EXPECT_EQ(::getsockname(socket_.get(), reinterpret_cast<sockaddr*>(&address), &length), 0);
        text_ = "127.0.0.1:" + std::to_string(ntohs(address.sin_port));
    }

    const std::string& text() const { return text_; }

private:
    Socket socket_;
    std::string text_;
};

void close_shared_objects()
{
    HTTP_Options::close_instance();
    HTTP_Access_Logger_Impl::close_instance();
    HTTP_Handler_Creator_Map::close_instance();
    HTTP_Authenticator_Creator_Map::close_instance();
    WebSocket_Handler_Creator_Map::close_instance();
}

/// Starts services in a process whose shared objects and SIGPIPE are restored after each test.
class HTTP_Service_Test : public testing::Test {
protected:
    HTTP_Service_Test()
    {
        EXPECT_NE(::mkdtemp(directory_), nullptr);
        EXPECT_EQ(::sigaction(SIGPIPE, nullptr, &sigpipe_), 0);
        close_shared_objects();
        service_ = make();
    }

    ~HTTP_Service_Test() override
    {
        service_.reset();
        close_shared_objects();
        ::sigaction(SIGPIPE, &sigpipe_, nullptr);
        std::filesystem::remove_all(directory_);
    }

    static std::unique_ptr<ACE_Service_Object> make()
    {
        return std::unique_ptr<ACE_Service_Object>(_make_HTTP_Service(nullptr));
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

    std::string path(const char* name) const { return std::string(directory_) + "/" + name; }

    Log_Capture log_;
    std::unique_ptr<ACE_Service_Object> service_;
    struct sigaction sigpipe_ {};
    char directory_[32] = "/tmp/http_service_XXXXXX";
};

} // namespace

TEST_F(HTTP_Service_Test, starts_its_loops_without_any_listener)
{
    ASSERT_EQ(init({"-t", "4"}), 0);
    EXPECT_EQ(log_.texts(LM_INFO), (std::vector<std::string>{
                                       "HTTP event loops(reactor type: epoll, number: 4) are "
                                       "started.\n",
                                       "HTTP listen backlog 128\n",
                                       "HTTP accept timeout 3s\n",
                                   }));
    EXPECT_TRUE(log_.texts(LM_ERROR).empty());
    EXPECT_EQ(service_->fini(), 0);
}

TEST_F(HTTP_Service_Test, starts_without_a_command_line)
{
    ASSERT_EQ(service_->init(0, nullptr), 0);
    EXPECT_EQ(log_.count(LM_INFO, "number: 1) are started."), 1U);
    EXPECT_EQ(service_->fini(), 0);
}

TEST_F(HTTP_Service_Test, logs_its_settings_after_the_listeners)
{
    const std::string socket = path("socket");
    ASSERT_EQ(init({"--ping-timeout=5", "--ping-interval=6", "--accept-timeout=7", "-i", "8",
                    "--listen-backlog=9", "-p", "127.0.0.1:0", "-p", socket}),
              0);
    EXPECT_EQ(log_.texts(LM_INFO), (std::vector<std::string>{
                                       "HTTP event loops(reactor type: epoll, number: 1) are "
                                       "started.\n",
                                       "HTTP 127.0.0.1:0 is listening.\n",
                                       "HTTP " + socket + " is listening.\n",
                                       "HTTP idle timeout 8s\n",
                                       "HTTP listen backlog 9\n",
                                       "HTTP accept timeout 7s\n",
                                       "WebSocketd ping interval 6s\n",
                                       "WebSocketd ping timeout 5s\n",
                                   }));
}

TEST_F(HTTP_Service_Test, settings_that_are_not_set_are_not_logged)
{
    ASSERT_EQ(init({"--listen-backlog=0"}), 0);
    EXPECT_EQ(log_.texts(LM_INFO), (std::vector<std::string>{
                                       "HTTP event loops(reactor type: epoll, number: 1) are "
                                       "started.\n",
                                       "HTTP accept timeout 3s\n",
                                   }));
}

TEST_F(HTTP_Service_Test, listens_on_several_kinds_of_address)
{
    ASSERT_EQ(init({"-p", "127.0.0.1:0,127.0.0.1:0s," + path("socket")}), 0);
    EXPECT_EQ(log_.count(LM_INFO, " is listening.\n"), 3U);
    EXPECT_EQ(log_.count(LM_INFO, "HTTPS 127.0.0.1:0 is listening.\n"), 1U);
    EXPECT_TRUE(is_listening(path("socket")));
    EXPECT_EQ(service_->fini(), 0);
    EXPECT_FALSE(is_listening(path("socket")));
}

TEST_F(HTTP_Service_Test, an_address_that_cannot_be_listened_on_is_skipped)
{
    const Busy_Port busy;
    ASSERT_EQ(init({"-p", busy.text() + "," + path("socket")}), 0);
    EXPECT_EQ(log_.texts(LM_ERROR),
              std::vector<std::string>{"Failed to listen HTTP " + busy.text() +
                                       ", errno=98, Address already in use\n"});
    EXPECT_TRUE(is_listening(path("socket")));
}

TEST_F(HTTP_Service_Test, a_text_that_is_no_address_never_becomes_a_listener)
{
    ASSERT_EQ(init({"-p", "127.0.0.1,s,65536," + path("socket")}), 0);
    EXPECT_EQ(log_.texts(LM_ERROR),
              (std::vector<std::string>{
                  "Failed to listen HTTP [::]:0, errno=22, Invalid argument\n",
                  "Failed to listen HTTPS [::]:0, errno=22, Invalid "
                  "argument\n",
                  "Failed to listen HTTP [::]:0, errno=22, Invalid argument\n",
              }));
    EXPECT_EQ(log_.count(LM_INFO, " is listening.\n"), 1U);
    EXPECT_TRUE(is_listening(path("socket")));
}

TEST_F(HTTP_Service_Test, a_path_that_is_too_long_is_refused_and_not_cut)
{
    const std::string too_long = path(std::string(100, 'a').c_str());
    ASSERT_EQ(init({"-p", too_long + "," + path("socket")}), 0);
    const std::vector<std::string> errors = log_.texts(LM_ERROR);
    ASSERT_EQ(errors.size(), 1U);
    EXPECT_EQ(errors[0].find("Failed to listen HTTP " + too_long.substr(0, 100)), 0U);
    EXPECT_TRUE(errors[0].ends_with(", errno=36, File name too long\n"));
    EXPECT_TRUE(is_listening(path("socket")));
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(directory_),
                            std::filesystem::directory_iterator()),
              1);
}

TEST_F(HTTP_Service_Test, fails_when_the_loops_do_not_start_and_can_be_tried_again)
{
    ASSERT_EQ(init({"-t", "2", "-p", path("socket")}), 0);
    rlimit limit{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &limit), 0);
    const rlimit none{0, limit.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
    const int result = init({});
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &limit), 0);
    EXPECT_EQ(result, -1);
    EXPECT_EQ(log_.count(LM_ERROR, "Failed to open event loops for HTTP: reactor type epoll, "
                                   "threads 2.\n"),
              1U);
    EXPECT_FALSE(is_listening(path("socket")));

    EXPECT_EQ(init({}), 0);
    EXPECT_TRUE(is_listening(path("socket")));
}

TEST_F(HTTP_Service_Test, a_second_init_starts_anew_with_the_options_added_up)
{
    ASSERT_EQ(init({"-p", path("first"), "-t", "2"}), 0);
    EXPECT_TRUE(is_listening(path("first")));
    ASSERT_EQ(init({"-p", path("second")}), 0);
    EXPECT_TRUE(is_listening(path("first")));
    EXPECT_TRUE(is_listening(path("second")));
    EXPECT_EQ(log_.count(LM_INFO, "number: 2) are started."), 2U);
    EXPECT_EQ(service_->fini(), 0);
    EXPECT_FALSE(is_listening(path("first")));
    EXPECT_FALSE(is_listening(path("second")));
}

TEST_F(HTTP_Service_Test, fini_releases_the_options)
{
    ASSERT_EQ(init({"-t", "2", "-p", path("socket")}), 0);
    EXPECT_EQ(service_->fini(), 0);
    EXPECT_EQ(HTTP_Options::instance()->loops(), 1);
    EXPECT_EQ(HTTP_Options::instance()->listen_address(0), nullptr);

    const std::unique_ptr<ACE_Service_Object> next = make();
    ASSERT_EQ(init(*next, {"-p", path("next")}), 0);
    EXPECT_EQ(log_.count(LM_INFO, "number: 1) are started."), 1U);
    EXPECT_FALSE(is_listening(path("socket")));
    EXPECT_TRUE(is_listening(path("next")));
    EXPECT_EQ(next->fini(), 0);
}

TEST_F(HTTP_Service_Test, fini_without_init_and_a_second_one_are_harmless)
{
    EXPECT_EQ(service_->fini(), 0);
    ASSERT_EQ(service_->init(0, nullptr), 0);
    EXPECT_EQ(service_->fini(), 0);
    EXPECT_EQ(service_->fini(), 0);
}

TEST_F(HTTP_Service_Test, its_destructor_stops_it_and_leaves_the_options_alone)
{
    ASSERT_EQ(init({"-t", "2", "-p", path("socket")}), 0);
    service_.reset();
    EXPECT_FALSE(is_listening(path("socket")));
    EXPECT_EQ(HTTP_Options::instance()->loops(), 2);
}

TEST_F(HTTP_Service_Test, fini_waits_for_compression_and_leaves_the_access_log_open)
{
    ASSERT_EQ(init({"-l", path("log"), "-m", "1", "-z"}), 0);
    HTTP_Access_Logger_Impl* const logger = HTTP_Access_Logger_Impl::instance();
    const HTTP_Request request(HTTP_METHOD_GET, ("/" + std::string(2000, 'a')).c_str());
    const HTTP_Response response;
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(logger->log(ACE_Time_Value(1), ACE_Time_Value(1), ACE_INET_Addr(), request,
                              response, 0, 0),
                  0);
    }
    EXPECT_EQ(service_->fini(), 0);
    for (int i = 1; i <= 5; ++i) {
        const std::string copy = path("log.") + std::to_string(i);
        EXPECT_TRUE(std::filesystem::exists(copy + ".gz"));
        EXPECT_FALSE(std::filesystem::exists(copy));
    }
    EXPECT_TRUE(logger->is_open());
}

TEST_F(HTTP_Service_Test, fini_closes_open_connections)
{
    ASSERT_EQ(init({"-p", path("socket")}), 0);
    const Socket client(AF_UNIX);
    ASSERT_TRUE(connect_to(client, path("socket")));
    ACE_Time_Value limit(10);
    ASSERT_GT(ACE_Reactor::instance()->handle_events(limit), 0);
    EXPECT_EQ(service_->fini(), 0);
    char byte = 0;
    EXPECT_EQ(::recv(client.get(), &byte, 1, MSG_DONTWAIT), 0);
}

TEST_F(HTTP_Service_Test, a_command_line_that_cannot_be_kept_ends_init_with_nothing_running)
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
    ASSERT_EQ(init({"-p", path("socket")}), 0);
    log_.clear();
    char* argv[] = {words[0].data(), words[1].data(), nullptr};
    const rlimit tight{static_cast<rlim_t>(pages * ::sysconf(_SC_PAGESIZE)) + (32U << 20),
                       limit.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_AS, &tight), 0);
    const int result = service_->init(2, argv);
    ASSERT_EQ(::setrlimit(RLIMIT_AS, &limit), 0);
    EXPECT_EQ(result, -1);
    EXPECT_EQ(log_.texts(LM_ERROR), std::vector<std::string>{"Failed to parse HTTP options.\n"});
    EXPECT_TRUE(log_.texts(LM_INFO).empty());
    EXPECT_FALSE(is_listening(path("socket")));
#endif
}

TEST_F(HTTP_Service_Test, ignores_sigpipe_unless_the_host_handles_it)
{
    struct sigaction action {};
    action.sa_handler = SIG_DFL;
    ASSERT_EQ(::sigaction(SIGPIPE, &action, nullptr), 0);
    ASSERT_EQ(service_->init(0, nullptr), 0);
    ASSERT_EQ(::sigaction(SIGPIPE, nullptr, &action), 0);
    EXPECT_EQ(action.sa_handler, SIG_IGN);

    const auto own = [](int) {};
    action = {};
    action.sa_handler = own;
    ASSERT_EQ(::sigaction(SIGPIPE, &action, nullptr), 0);
    ASSERT_EQ(service_->init(0, nullptr), 0);
    ASSERT_EQ(::sigaction(SIGPIPE, nullptr, &action), 0);
    EXPECT_EQ(action.sa_handler, static_cast<void (*)(int)>(own));
}

TEST_F(HTTP_Service_Test, the_factory_tells_how_to_delete_what_it_made)
{
    void (*gobbler)(void*) = nullptr;
    ACE_Service_Object* const service = _make_HTTP_Service(&gobbler);
    ASSERT_NE(service, nullptr);
    EXPECT_NE(dynamic_cast<HTTP_Service*>(service), nullptr);
    ASSERT_EQ(gobbler, &_gobble_HTTP_Service);
    EXPECT_EQ(init(*service, {"-p", path("socket")}), 0);
    gobbler(service);
    EXPECT_FALSE(is_listening(path("socket")));
}

TEST(HTTP_Service_Death_Test, the_gobbler_does_not_take_null)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(_gobble_HTTP_Service(nullptr), "_p != 0");
}
