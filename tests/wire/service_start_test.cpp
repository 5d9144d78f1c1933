// Start and end of the service: in the host's short form and through service configuration files.

#include "tests/support/log_lines.h"
#include "tests/support/probe_server.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>

namespace {

Plugin_Record response_plugin()
{
    return {"/response", "response_plugin", "_make_Response"};
}

/// The lines of the service itself, without those of the host program and the plug-ins.
std::vector<std::string> service_lines(const Host_Process& host)
{
    std::vector<std::string> lines = log_lines(host);
    const auto others = [](const std::string& line) {
        return line.find("httpd_host") != std::string::npos ||
               line.find(" probe: ") != std::string::npos ||
               line.find(" response: ") != std::string::npos;
    };
    lines.erase(std::remove_if(lines.begin(), lines.end(), others), lines.end());
    return lines;
}

/// How many threads of the process have which name.
std::map<std::string, int> thread_names(pid_t pid)
{
    std::map<std::string, int> names;
    std::error_code ended;
    const std::string tasks = "/proc/" + std::to_string(pid) + "/task";
    for (const auto& task : std::filesystem::directory_iterator(tasks, ended)) {
        std::string name;
        std::getline(std::ifstream(task.path() / "comm"), name);
        ++names[name];
    }
    return names;
}

std::string directive(const std::string& name, const std::string& options)
{
    return "dynamic " + name + " Service_Object * httpd:_make_HTTP_Service() '" + options + "'\n";
}

/// A host that processes one service configuration file.
std::unique_ptr<Host_Process> host_with_file(const std::string& path)
{
    Host_Process::Command command;
    command.host = {"-f", path};
    return std::make_unique<Host_Process>(command);
}

constexpr char RUNNING[] = "INFO httpd_host ";

} // namespace

TEST(HTTP_Service, logs_what_it_starts_in_order)
{
    const std::string address = own_loopback_address();
    Host_Process::Command command;
    command.service = {"--ping-timeout=10",
                       "-t",
                       "2",
                       "-p",
                       address + ":8080," + address + ":8081",
                       "--ping-interval=20",
                       "-i",
                       "30",
                       "--listen-backlog=64",
                       "--accept-timeout=5",
                       "--read-ahead",
                       "--http-receive-buffer-size=16k"};
    Host_Process host(command);
    ASSERT_TRUE(host.wait_for_log(RUNNING));
    const std::vector<std::string> expected = {
        "DEBUG HTTP receive buffer size: 16384",
        "DEBUG Enabled read-ahead.",
        "INFO HTTP event loops(reactor type: epoll, number: 2) are started.",
        "INFO HTTP " + address + ":8080 is listening.",
        "INFO HTTP " + address + ":8081 is listening.",
        "INFO HTTP idle timeout 30s",
        "INFO HTTP listen backlog 64",
        "INFO HTTP accept timeout 5s",
        "INFO WebSocketd ping interval 20s",
        "INFO WebSocketd ping timeout 10s"};
    EXPECT_EQ(expected, service_lines(host));
    EXPECT_EQ(0, host.stop(SIGTERM));
}

TEST(HTTP_Service, logs_only_the_settings_that_there_are)
{
    const std::string address = own_loopback_address();
    Host_Process::Command command;
    command.service = {"-p", address + ":8080", "--listen-backlog=0"};
    Host_Process host(command);
    ASSERT_TRUE(host.wait_for_log(RUNNING));
    const std::vector<std::string> expected = {
        "INFO HTTP event loops(reactor type: epoll, number: 1) are started.",
        "INFO HTTP " + address + ":8080 is listening.", "INFO HTTP accept timeout 3s"};
    EXPECT_EQ(expected, service_lines(host));
    EXPECT_EQ(0, host.stop(SIGTERM));
}

TEST(HTTP_Service, runs_its_loops_without_a_listen_address)
{
    Host_Process::Command command;
    command.service = {"-t", "4"};
    Host_Process host(command);
    ASSERT_TRUE(host.wait_for_log(RUNNING));
    const std::vector<std::string> expected = {
        "INFO HTTP event loops(reactor type: epoll, number: 4) are started.",
        "INFO HTTP listen backlog 128", "INFO HTTP accept timeout 3s"};
    EXPECT_EQ(expected, service_lines(host));
    // The threads exist; each gives itself its name when it first runs.
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    std::map<std::string, int> names;
    do {
        names = thread_names(host.pid());
    } while (names.count("httpd-loop-0") + names.count("httpd-loop-1") +
                     names.count("httpd-loop-2") + names.count("httpd-loop-3") <
                 4 &&
             std::chrono::steady_clock::now() < end);
    for (const char* const name :
         {"httpd-loop-0", "httpd-loop-1", "httpd-loop-2", "httpd-loop-3"}) {
        EXPECT_EQ(1, names[name]) << name;
    }
    EXPECT_EQ(0U, names.count("httpd-loop-4"));
    EXPECT_EQ(0, host.stop(SIGTERM));
}

TEST(HTTP_Service, hands_connections_to_its_loops_in_rotation)
{
    Probe_Server::Setup setup;
    setup.options = {"-t", "3"};
    setup.handlers = {response_plugin()};
    Probe_Server server(setup);
    std::vector<std::unique_ptr<Wire_Client>> clients;
    std::vector<std::string> names;
    for (int i = 0; i < 7; ++i) {
        clients.push_back(server.connect());
        ASSERT_NE(nullptr, clients.back());
        names.push_back(clients.back()->exchange(get_request("/response/thread-name")).body);
    }
    const std::vector<std::string> expected = {"httpd-loop-0", "httpd-loop-1", "httpd-loop-2",
                                               "httpd-loop-0", "httpd-loop-1", "httpd-loop-2",
                                               "httpd-loop-0"};
    EXPECT_EQ(expected, names);
    // A connection stays on its loop.
    for (size_t i = 0; i < clients.size(); ++i) {
        EXPECT_EQ(expected[i], clients[i]->exchange(get_request("/response/thread-name")).body);
    }
}

TEST(HTTP_Service, names_the_thread_of_a_connection)
{
    Probe_Server::Setup setup;
    setup.handlers = {response_plugin()};
    Probe_Server server(setup);
    const auto client = server.connect();
    ASSERT_NE(nullptr, client);
    EXPECT_EQ("HTTPd", client->exchange(get_request("/response/thread/thread-name")).body);
}

TEST(HTTP_Service, warns_of_an_unknown_option_and_takes_the_others)
{
    const std::string address = own_loopback_address();
    Host_Process::Command command;
    command.service = {"-i", "30", "--nonsense", "-p", address + ":8080"};
    Host_Process host(command);
    ASSERT_TRUE(host.wait_for_log(RUNNING));
    EXPECT_EQ(std::vector<std::string>{"Unknown HTTP option: nonsense"}, lines_of(host, "WARNING"));
    EXPECT_EQ(1U, count_log_lines(host, "INFO", "HTTP idle timeout 30s"));
    EXPECT_EQ(1U, count_log_lines(host, "INFO", "HTTP " + address + ":8080 is listening."));
    EXPECT_EQ(0, host.stop(SIGTERM));
}

TEST(HTTP_Service, releases_the_plugins_when_it_ends)
{
    for (const int signal : {SIGTERM, SIGINT}) {
        SCOPED_TRACE(signal);
        Probe_Server::Setup setup;
        setup.handlers = {response_plugin()};
        Probe_Server server(setup);
        const auto idle = server.connect();
        ASSERT_NE(nullptr, idle);
        EXPECT_EQ(200, idle->exchange(get_request("/response/hello")).status);
        const auto in_thread = server.connect();
        ASSERT_NE(nullptr, in_thread);
        EXPECT_EQ(200, in_thread->exchange(get_request("/response/thread/hello")).status);
        EXPECT_EQ(0, server.host().stop(signal));

        // The open connections first, then the factory, then the host.
        const std::vector<std::string> lines = log_lines(server.host());
        ASSERT_GE(lines.size(), 4U);
        const std::vector<std::string> last(lines.end() - 4, lines.end());
        const std::vector<std::string> expected = {
            "INFO response: handle_close", "INFO response: handle_close",
            "INFO response: factory deleted", "INFO httpd_host has stopped."};
        EXPECT_EQ(expected, last);
        EXPECT_TRUE(idle->is_closed_by_peer());
        EXPECT_TRUE(in_thread->is_closed_by_peer());
    }
}

TEST(HTTP_Service, starts_from_a_service_configuration_file)
{
    Temporary_Folder folder;
    const std::string address = own_loopback_address();
    const std::string handlers =
        folder.write("http.json", plugin_configuration({response_plugin()}));
    const auto host = host_with_file(folder.write(
        "svc.conf", "# The one service.\n" +
                        directive("HTTP_Service", "-p " + address + ":8080 -t 2 -f " + handlers)));
    ASSERT_TRUE(host->wait_for_log(RUNNING)) << host->log_text();
    EXPECT_EQ(1U, count_log_lines(*host, "INFO", "HTTP " + address + ":8080 is listening."));
    EXPECT_EQ(1U, count_log_lines(*host, "INFO",
                                  "HTTP event loops(reactor type: epoll, number: 2) are started."));
    const auto client = Wire_Client::tcp(address, 8080);
    ASSERT_NE(nullptr, client);
    EXPECT_EQ("Hello, World!", client->exchange(get_request("/response/hello")).body);
    EXPECT_EQ(0, host->stop(SIGTERM));
    EXPECT_EQ(1U, count_log_lines(*host, "INFO", "response: factory deleted"));
}

TEST(HTTP_Service, directive_that_fails_ends_the_host_with_a_line_that_says_why)
{
    const struct {
        const char* directive;
        const char* reason;
    } rows[] = {
        {"dynamic HTTP_Service Service_Object * nolibrary_xyz:_make_HTTP_Service() ''\n",
         ": cannot load library nolibrary_xyz: "},
        {"dynamic HTTP_Service Service_Object * httpd:_make_Nothing() ''\n",
         ": library httpd has no symbol _make_Nothing"},
        {"\nnonsense HTTP_Service\n", ", line 2: syntax error"},
        {"# nothing\n", "no service is configured"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.directive);
        Temporary_Folder folder;
        const std::string path = folder.write("svc.conf", row.directive);
        const auto host = host_with_file(path);
        EXPECT_EQ(1, host->stop(0));
        const std::vector<std::string> errors = lines_of(*host, "ERROR");
        ASSERT_FALSE(errors.empty()) << host->log_text();
        EXPECT_NE(std::string::npos, errors.back().find(row.reason)) << host->log_text();
    }
}

TEST(HTTP_Service, directive_that_fails_takes_down_what_was_started)
{
    Temporary_Folder folder;
    const std::string socket = folder.path() + "/socket";
    const std::string path = folder.write(
        "svc.conf", directive("HTTP_Service", "-p " + socket) +
                        "dynamic Other Service_Object * nolibrary_xyz:_make_Other() ''\n");
    const auto host = host_with_file(path);
    EXPECT_EQ(1, host->stop(0));
    EXPECT_EQ(1U, count_log_lines(*host, "INFO", "HTTP " + socket + " is listening."));
    EXPECT_FALSE(std::filesystem::exists(socket));
}

// The options are those of the process: the second service finds the first one's addresses too.
TEST(HTTP_Service, two_in_one_process_both_serve)
{
    Temporary_Folder folder;
    const std::string address = own_loopback_address();
    const std::string handlers =
        folder.write("http.json", plugin_configuration({response_plugin()}));
    const auto host = host_with_file(
        folder.write("svc.conf", directive("First", "-p " + address + ":8080 -f " + handlers) +
                                     directive("Second", "-p " + address + ":8081")));
    ASSERT_TRUE(host->wait_for_log(RUNNING)) << host->log_text();
    std::vector<std::unique_ptr<Wire_Client>> clients;
    for (const auto port : {static_cast<unsigned short>(8080), static_cast<unsigned short>(8081)}) {
        clients.push_back(Wire_Client::tcp(address, port));
        ASSERT_NE(nullptr, clients.back());
        EXPECT_EQ("Hello, World!", clients.back()->exchange(get_request("/response/hello")).body);
        clients.push_back(Wire_Client::tcp(address, port));
        ASSERT_NE(nullptr, clients.back());
        EXPECT_EQ("HTTPd",
                  clients.back()->exchange(get_request("/response/thread/thread-name")).body);
    }
    // They are still open when the services end, in the reverse order of their start.
    EXPECT_EQ(0, host->stop(SIGTERM)) << host->log_text();
    EXPECT_EQ(4U, count_log_lines(*host, "INFO", "response: handle_close"));
    EXPECT_EQ(1U, count_log_lines(*host, "INFO", "response: factory deleted"));
    EXPECT_EQ("INFO httpd_host has stopped.", log_lines(*host).back());
    EXPECT_EQ(std::vector<std::string>{"Failed to listen HTTP " + address +
                                       ":8080, errno=98, Address already in use"},
              lines_of(*host, "ERROR"));
}
