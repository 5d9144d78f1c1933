#include "tests/support/environment_variable.h"
#include "tests/support/exact_line.h"
#include "tests/support/listener_server.h"
#include "tests/support/process_descriptors.h"
#include "tests/support/socket_name.h"
#include "tests/support/tls_files.h"

#include <gtest/gtest.h>

#include <sys/resource.h>

#include <algorithm>
#include <csignal>
#include <cstdio>

namespace {

constexpr const char* FAILED_ACCEPT = " ERROR Failed to accept connection from ''.";

/// The time that a log line begins with, in milliseconds of its day.
long time_of(const std::string& line)
{
    int hour = 0;
    int minute = 0;
    int second = 0;
    int milliseconds = 0;
    EXPECT_EQ(4, std::sscanf(line.c_str(), "%*d-%*d-%*dT%d:%d:%d.%d", &hour, &minute, &second,
                             &milliseconds))
        << line;
    return ((hour * 60L + minute) * 60L + second) * 1000L + milliseconds;
}

void limit_descriptors(pid_t process, rlim_t count)
{
    const rlimit limit = {count, count};
    ASSERT_EQ(0, ::prlimit(process, RLIMIT_NOFILE, &limit, nullptr));
}

/// The test's own limit, for the time of a test.
class More_Descriptors {
public:
    explicit More_Descriptors(rlim_t count)
    {
        ::getrlimit(RLIMIT_NOFILE, &before_);
        const rlimit more = {std::max(count, before_.rlim_cur), before_.rlim_max};
        granted_ = ::setrlimit(RLIMIT_NOFILE, &more) == 0;
    }
    ~More_Descriptors() { ::setrlimit(RLIMIT_NOFILE, &before_); }
    More_Descriptors(const More_Descriptors&) = delete;
    More_Descriptors& operator=(const More_Descriptors&) = delete;

    bool granted() const { return granted_; }

private:
    rlimit before_ = {};
    bool granted_ = false;
};

class Descriptor_Shortage : public testing::TestWithParam<Listener_Kind> {};

} // namespace

TEST_P(Descriptor_Shortage, is_logged_now_and_then_and_ends_with_its_cause)
{
    constexpr int CLIENTS = 100;
    constexpr size_t LINES = 13; // so that a second lies between some of them
    Listener_Server server(this->GetParam());
    limit_descriptors(server.host().pid(), 64);

    std::vector<std::unique_ptr<Wire_Client>> clients;
    for (int i = 0; i < CLIENTS; ++i) { // the system accepts them into the listener's queue
        clients.push_back(server.connect());
        ASSERT_NE(nullptr, clients.back());
    }
    ASSERT_TRUE(server.host().wait_for_log_count(FAILED_ACCEPT, LINES));
    // Who is in is served meanwhile.
    EXPECT_EQ("Hello, World!", clients.front()->exchange(get_request("/probe/hello")).body);
    std::vector<long> times;
    for (const std::string& line : server.host().log()) {
        if (line.find(FAILED_ACCEPT) != std::string::npos) {
            times.push_back(time_of(line));
        }
    }
    constexpr long DAY = 24L * 60 * 60 * 1000;
    constexpr long PER_SECOND = 10;
    for (size_t i = PER_SECOND; i < times.size(); ++i) {
        // Times are cut to milliseconds, and the wall clock may be slewed.
        EXPECT_GE((times[i] - times[i - PER_SECOND] + DAY) % DAY, 990) << i;
    }

    clients.clear();
    const auto client = server.connect();
    ASSERT_NE(nullptr, client);
    EXPECT_EQ("Hello, World!", client->exchange(get_request("/probe/hello")).body);
    EXPECT_EQ(0, server.host().stop(SIGTERM));
}

INSTANTIATE_TEST_SUITE_P(Of, Descriptor_Shortage,
                         testing::Values(Listener_Kind::TCP, Listener_Kind::UNIX),
                         [](const testing::TestParamInfo<Listener_Kind>& kind) {
                             return std::string(kind.param == Listener_Kind::TCP ? "TCP" : "UNIX");
                         });

TEST(HTTP_TLS_Listener, serves_on_descriptors_from_1024_up)
{
    constexpr int PLAIN = 1030;
    const More_Descriptors more(PLAIN + 100);
    if (!more.granted()) {
        GTEST_SKIP() << "the limit of open descriptors is too low";
    }
    Temporary_Folder folder;
    const Tls_Files files = write_tls_files(folder.path());
    Probe_Server::Setup setup;
    setup.log_level = "info";
    setup.host = {"--tls-certificate", files.certificate, "--tls-private-key", files.private_key};
    const std::string tls_address = own_loopback_address();
    setup.options = {"--accept-timeout=1", "--listen-backlog=1100", "-p", tls_address + ":8443s"};
    const Environment_Variable no_authorities("SSL_CERT_FILE", "/dev/null");
    const Environment_Variable no_folder("SSL_CERT_DIR", "/dev/null");
    Probe_Server server(setup);

    std::vector<std::unique_ptr<Wire_Client>> clients;
    for (int i = 0; i < PLAIN; ++i) {
        clients.push_back(server.connect());
        ASSERT_NE(nullptr, clients.back());
    }
    // They are accepted in the order in which they came.
    EXPECT_EQ("Hello, World!", clients.back()->exchange(get_request("/probe/hello")).body);
    const auto client = Wire_Client::tls(tls_address, 8443);
    ASSERT_NE(nullptr, client);
    ASSERT_GE(process_descriptors(server.host().pid()).greatest, 1024);
    EXPECT_EQ("Hello, World!", client->exchange(get_request("/probe/hello")).body);
    const std::string body(1024 * 1024, 'b');
    EXPECT_EQ("1048576", client->exchange(body_request("POST", "/probe/count", body)).body);
    EXPECT_EQ(std::string(1024 * 1024, 'x'),
              client->exchange(get_request("/probe/thread/large")).body);

    const auto silent = Wire_Client::tcp(tls_address, 8443);
    ASSERT_NE(nullptr, silent);
    EXPECT_TRUE(wait_for_exact_line(server.host(), "ERROR Failed to accept connection from '" +
                                                       local_name_of(silent->handle()) + "'."));
    EXPECT_EQ("Hello, World!", client->exchange(get_request("/probe/hello")).body);
    EXPECT_EQ(0, server.host().stop(SIGTERM));
}
