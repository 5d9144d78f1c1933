// Listen addresses of every form, and what becomes of those that cannot be listened on.

#include "tests/support/log_lines.h"
#include "tests/support/probe_server.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <filesystem>

namespace {

/// A socket that listens (or not) and serves nobody.
class Occupant {
public:
    ~Occupant() { ::close(handle_); }
    Occupant(const Occupant&) = delete;
    Occupant& operator=(const Occupant&) = delete;

    static std::unique_ptr<Occupant> tcp(const std::string& host, unsigned short port)
    {
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        ::inet_pton(AF_INET, host.c_str(), &address.sin_addr);
        auto occupant = std::make_unique<Occupant>(AF_INET);
        occupant->good_ =
            ::bind(occupant->handle_, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
            ::listen(occupant->handle_, 1) == 0;
        return occupant;
    }

    static std::unique_ptr<Occupant> unix_domain(const std::string& path)
    {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
        auto occupant = std::make_unique<Occupant>(AF_UNIX);
        occupant->good_ =
            ::bind(occupant->handle_, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
            ::listen(occupant->handle_, 1) == 0;
        return occupant;
    }

    explicit Occupant(int family) : handle_(::socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
        const int on = 1; // connections of an earlier test may linger on the address
        ::setsockopt(handle_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    }

    bool good() const { return good_; }

private:
    int handle_;
    bool good_ = false;
};

/// A server with the probe on these listen addresses. Ready when the last setting was logged.
class Listen_Server {
public:
    explicit Listen_Server(const std::string& addresses)
    {
        Host_Process::Command command;
        command.wait_until_ready = false;
        command.service = {
            "-p", addresses, "-f",
            folder_.write("http.json",
                          plugin_configuration({{"/probe", "probe_plugin", "_make_Probe"}}))};
        host_ = std::make_unique<Host_Process>(command);
        EXPECT_TRUE(host_->wait_for_log("INFO httpd_host ")) << host_->log_text();
    }

    Host_Process& host() { return *host_; }

    std::vector<std::string> errors() const { return lines_of(*host_, "ERROR"); }

    bool listens(const std::string& address) const
    {
        return count_log_lines(*host_, "INFO", "HTTP " + address + " is listening.") == 1;
    }

private:
    Temporary_Folder folder_;
    std::unique_ptr<Host_Process> host_;
};

void expect_served(std::unique_ptr<Wire_Client> client)
{
    ASSERT_NE(nullptr, client);
    EXPECT_EQ("Hello, World!", client->exchange(get_request("/probe/hello")).body);
}

/// Nobody listens there.
bool is_refused(const std::string& host, unsigned short port)
{
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    ::inet_pton(AF_INET, host.c_str(), &address.sin_addr);
    const int handle = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const bool refused =
        ::connect(handle, reinterpret_cast<const sockaddr*>(&address), sizeof address) == -1 &&
        errno == ECONNREFUSED;
    ::close(handle);
    return refused;
}

} // namespace

TEST(HTTP_Listen, address_in_use_is_logged_and_the_next_one_served)
{
    const std::string address = own_loopback_address();
    const auto occupant = Occupant::tcp(address, 8080);
    ASSERT_TRUE(occupant->good());
    Listen_Server server(address + ":8080," + address + ":8081");
    EXPECT_EQ(std::vector<std::string>{"Failed to listen HTTP " + address +
                                       ":8080, errno=98, Address already in use"},
              server.errors());
    EXPECT_FALSE(server.listens(address + ":8080"));
    EXPECT_TRUE(server.listens(address + ":8081"));
    expect_served(Wire_Client::tcp(address, 8081));
    EXPECT_EQ(0, server.host().stop(SIGTERM));
}

TEST(HTTP_Listen, every_address_may_fail)
{
    const std::string address = own_loopback_address();
    const auto occupant = Occupant::tcp(address, 8080);
    ASSERT_TRUE(occupant->good());
    Listen_Server server(address + ":8080");
    EXPECT_EQ(1U, server.errors().size());
    EXPECT_EQ(1U, count_log_lines(server.host(), "INFO", "HTTP accept timeout 3s"));
    EXPECT_EQ(0, server.host().stop(SIGTERM));
}

TEST(HTTP_Listen, address_that_is_not_of_this_machine_is_logged)
{
    const std::string address = own_loopback_address();
    Listen_Server server("192.0.2.1:8080," + address + ":8080");
    EXPECT_EQ(std::vector<std::string>{"Failed to listen HTTP 192.0.2.1:8080, errno=99, Cannot "
                                       "assign requested address"},
              server.errors());
    expect_served(Wire_Client::tcp(address, 8080));
}

TEST(HTTP_Listen, host_without_a_port_never_becomes_a_wildcard)
{
    const std::string address = own_loopback_address();
    Listen_Server server("127.0.0.1," + address + ":8080");
    EXPECT_EQ(std::vector<std::string>{"Failed to listen HTTP [::]:0, errno=22, Invalid argument"},
              server.errors());
    EXPECT_EQ(1U, server.host().count_log(" is listening."));
    expect_served(Wire_Client::tcp(address, 8080));
}

TEST(HTTP_Listen, port_alone_is_every_ipv4_interface)
{
    const unsigned short port = free_local_port();
    Listen_Server server(std::to_string(port));
    EXPECT_TRUE(server.listens("0.0.0.0:" + std::to_string(port))) << server.host().log_text();
    expect_served(Wire_Client::tcp("127.0.0.1", port));
    expect_served(Wire_Client::tcp(own_loopback_address(), port));
}

TEST(HTTP_Listen, ipv6_address_is_that_address_alone)
{
    const unsigned short port = free_local_port();
    const std::string address = "[::1]:" + std::to_string(port);
    Listen_Server server(address);
    EXPECT_TRUE(server.listens(address)) << server.host().log_text();
    expect_served(Wire_Client::tcp("::1", port));
    EXPECT_TRUE(is_refused("127.0.0.1", port));
}

TEST(HTTP_Listen, ipv6_wildcard_is_both_families)
{
    const unsigned short port = free_local_port();
    const std::string address = "[::]:" + std::to_string(port);
    Listen_Server server(address);
    EXPECT_TRUE(server.listens(address)) << server.host().log_text();
    expect_served(Wire_Client::tcp("::1", port));
    expect_served(Wire_Client::tcp("127.0.0.1", port));
}

TEST(HTTP_Listen, ipv6only_is_ipv6_alone)
{
    for (const char* const host : {"", "[::]:"}) {
        SCOPED_TRACE(host);
        const unsigned short port = free_local_port();
        Listen_Server server(host + std::to_string(port) + "/ipv6only");
        EXPECT_EQ(1U, server.host().count_log(" is listening.")) << server.host().log_text();
        expect_served(Wire_Client::tcp("::1", port));
        EXPECT_TRUE(is_refused("127.0.0.1", port));
    }
}

TEST(HTTP_Listen, unix_domain_socket_is_called_HTTP_and_is_gone_at_the_end)
{
    Temporary_Folder folder;
    const std::string path = folder.path() + "/socket";
    Listen_Server server(path);
    EXPECT_TRUE(server.listens(path)) << server.host().log_text();
    EXPECT_TRUE(std::filesystem::is_socket(path));
    expect_served(Wire_Client::unix_domain(path));
    EXPECT_EQ(0, server.host().stop(SIGTERM));
    EXPECT_FALSE(std::filesystem::exists(path));
}

TEST(HTTP_Listen, unix_domain_path_that_is_too_long_is_refused)
{
    Temporary_Folder folder;
    const std::string path = folder.path() + "/" + std::string(120, 'x');
    const std::string good = folder.path() + "/socket";
    Listen_Server server(path + "," + good);
    const std::vector<std::string> errors = server.errors();
    ASSERT_EQ(1U, errors.size());
    EXPECT_EQ(0U, errors[0].find("Failed to listen HTTP " + folder.path() + "/xxx")) << errors[0];
    EXPECT_TRUE(errors[0].ends_with(", errno=36, File name too long")) << errors[0];
    expect_served(Wire_Client::unix_domain(good));
    EXPECT_EQ(0, server.host().stop(SIGTERM));
    EXPECT_TRUE(std::filesystem::exists(folder.path()));
    EXPECT_TRUE(std::filesystem::is_empty(folder.path()));
}

TEST(HTTP_Listen, stale_unix_domain_socket_is_replaced)
{
    Temporary_Folder folder;
    const std::string path = folder.path() + "/socket";
    ASSERT_TRUE(Occupant::unix_domain(path)->good()); // gone at once, its file is not
    ASSERT_TRUE(std::filesystem::is_socket(path));
    Listen_Server server(path);
    EXPECT_TRUE(server.errors().empty()) << server.host().log_text();
    expect_served(Wire_Client::unix_domain(path));
}

TEST(HTTP_Listen, socket_of_a_killed_server_is_replaced)
{
    Temporary_Folder folder;
    const std::string path = folder.path() + "/socket";
    {
        Listen_Server server(path);
        EXPECT_EQ(-SIGKILL, server.host().stop(SIGKILL));
    }
    ASSERT_TRUE(std::filesystem::is_socket(path));
    Listen_Server server(path);
    expect_served(Wire_Client::unix_domain(path));
}

TEST(HTTP_Listen, socket_of_a_server_that_lives_is_left_alone)
{
    Temporary_Folder folder;
    const std::string path = folder.path() + "/socket";
    Listen_Server first(path);
    ASSERT_TRUE(first.listens(path));
    {
        Listen_Server second(path);
        EXPECT_EQ(std::vector<std::string>{"Failed to listen HTTP " + path +
                                           ", errno=98, Address already in use"},
                  second.errors());
        EXPECT_EQ(0, second.host().stop(SIGTERM));
    }
    EXPECT_TRUE(std::filesystem::is_socket(path));
    expect_served(Wire_Client::unix_domain(path));
}

TEST(HTTP_Listen, file_that_is_no_socket_is_left_alone)
{
    Temporary_Folder folder;
    const std::string path = folder.write("file", "content");
    Listen_Server server(path);
    EXPECT_EQ(std::vector<std::string>{"Failed to listen HTTP " + path +
                                       ", errno=98, Address already in use"},
              server.errors());
    EXPECT_EQ(0, server.host().stop(SIGTERM));
    EXPECT_EQ(7U, std::filesystem::file_size(path));
}

TEST(HTTP_Listen, address_is_free_again_when_the_server_has_ended)
{
    const std::string address = own_loopback_address();
    for (int i = 0; i < 3; ++i) {
        Listen_Server server(address + ":8080");
        ASSERT_TRUE(server.errors().empty()) << server.host().log_text();
        // The server closes first, so its side of the connection lingers in the system.
        const auto client = Wire_Client::tcp(address, 8080);
        ASSERT_NE(nullptr, client);
        EXPECT_EQ(200, client->exchange(get_request("/probe/hello")).status);
        EXPECT_EQ(0, server.host().stop(SIGTERM));
    }
}
