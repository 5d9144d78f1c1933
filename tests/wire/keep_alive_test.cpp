#include "tests/support/host_process.h"
#include "tests/support/wire_client.h"

#include <gtest/gtest.h>

namespace {

/// A server with the probe plug-in on "/probe", listening on its own address.
class Probe_Server {
public:
    explicit Probe_Server(std::vector<std::string> options = {})
        : address_(own_loopback_address()),
          configuration_(folder_.write(
              "http.json", plugin_configuration({{"/probe", "probe_plugin", "_make_Probe"}})))
    {
        Host_Process::Command command;
        command.service = {"-p", address_ + ":8080", "-f", configuration_};
        command.service.insert(command.service.end(), options.begin(), options.end());
        host_ = std::make_unique<Host_Process>(command);
    }

    std::unique_ptr<Wire_Client> connect() const { return Wire_Client::tcp(address_, 8080); }
    Host_Process& host() { return *host_; }

private:
    Temporary_Folder folder_;
    std::string address_;
    std::string configuration_;
    std::unique_ptr<Host_Process> host_;
};

} // namespace

TEST(HTTP_Keep_Alive, serves_many_requests_on_one_connection)
{
    Probe_Server server;
    const auto client = server.connect();
    ASSERT_NE(nullptr, client);
    for (int i = 0; i < 3; ++i) {
        const Wire_Response response = client->exchange(get_request("/probe/hello"));
        EXPECT_EQ("HTTP/1.1 200 OK", response.status_line);
        EXPECT_EQ("Hello, World!", response.body);
        EXPECT_EQ("Keep-Alive", response.field("connection"));
    }
    EXPECT_EQ(0, server.host().stop(SIGTERM));
}
