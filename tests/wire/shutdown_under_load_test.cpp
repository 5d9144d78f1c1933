#include "tests/support/environment_variable.h"
#include "tests/support/exact_line.h"
#include "tests/support/probe_server.h"
#include "tests/support/tls_files.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <functional>
#include <mutex>
#include <thread>

namespace {

using Clock = std::chrono::steady_clock;
using Connect = std::function<std::unique_ptr<Wire_Client>()>;

constexpr const char* HELLO = "Hello, World!";
constexpr int WARM = 5; ///< responses that each client has had before the server is stopped

/// One client: the same request again and again, over new connections where one ends.
struct Load {
    const char* name;
    bool tls;
    std::string request;
    std::string body; ///< of every complete response
};

const std::vector<Load>& loads()
{
    static const std::string large(1024 * 1024, 'x');
    static const std::string upload(200 * 1024, 'u');
    static const std::vector<Load> rows = {
        {"keep-alive", false, get_request("/probe/hello"), HELLO},
        {"one request per connection", false, get_request("/probe/hello", {"Connection: close"}),
         HELLO},
        {"thread", false, get_request("/probe/thread"), HELLO},
        {"large response", false, get_request("/probe/large"), large},
        {"large response in a thread", false, get_request("/probe/thread/large"), large},
        {"chunked upload", false, chunked_request("POST", "/probe/count", {upload, upload}),
         "409600"},
        {"chunked upload to a thread", false,
         chunked_request("POST", "/probe/thread/count", {upload, upload}), "409600"},
        {"suspended", false, body_request("POST", "/probe/suspend", "later"), "later"},
        {"suspended thread", false, body_request("POST", "/probe/thread-suspend", "later"),
         "later"},
        {"TLS", true, get_request("/probe/hello"), HELLO},
        {"TLS in a thread", true, get_request("/probe/thread"), HELLO},
        {"TLS upload", true, chunked_request("POST", "/probe/count", {upload}), "204800"},
    };
    return rows;
}

/// Counts the clients that have been served for a while.
class Warm_Up {
public:
    void done()
    {
        const std::lock_guard<std::mutex> guard(mutex_);
        ++warm_;
        changed_.notify_all();
    }

    bool wait_for(size_t clients)
    {
        std::unique_lock<std::mutex> guard(mutex_);
        return changed_.wait_for(guard, std::chrono::seconds(30),
                                 [this, clients] { return warm_ >= clients; });
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    size_t warm_ = 0;
};

/// Until `stopping` and the connection has ended.
void hammer(const Load& load, const Connect& connect, Warm_Up& warm_up,
            const std::atomic<bool>& stopping, std::atomic<int>& wrong)
{
    int answered = 0;
    bool refused = false;
    while (!refused && !(stopping && answered >= WARM)) {
        const auto client = connect();
        refused = client == nullptr;
        while (client != nullptr) {
            const Wire_Response response = client->exchange(load.request);
            if (!response.complete) {
                break; // the connection ended before the response did: nothing to judge
            }
            if (response.status != 200 || response.body != load.body) {
                ++wrong;
                ADD_FAILURE() << load.name << ": " << response.status_line << ", "
                              << response.body.size() << " bytes";
            }
            if (++answered == WARM) {
                warm_up.done();
            }
        }
    }
}

class HTTP_Shutdown : public testing::Test {
protected:
    void SetUp() override
    {
        const Tls_Files files = write_tls_files(folder_.path());
        Probe_Server::Setup setup;
        setup.log_level = "info";
        setup.host = {"--tls-certificate", files.certificate, "--tls-private-key",
                      files.private_key};
        const std::string tls_address = own_loopback_address();
        setup.options = {"-t", "4", "-p", tls_address + ":8443s"};
        const Environment_Variable no_authorities("SSL_CERT_FILE", "/dev/null");
        const Environment_Variable no_folder("SSL_CERT_DIR", "/dev/null");
        server_ = std::make_unique<Probe_Server>(setup);
        tls_ = [tls_address] { return Wire_Client::tls(tls_address, 8443); };
        plain_ = [this] { return server_->connect(); };
    }

    Temporary_Folder folder_;
    std::unique_ptr<Probe_Server> server_;
    Connect plain_;
    Connect tls_;
};

} // namespace

TEST_F(HTTP_Shutdown, under_load_is_clean_and_quick)
{
    Warm_Up warm_up;
    std::atomic<bool> stopping{false};
    std::atomic<int> wrong{0};
    std::vector<std::thread> clients;
    for (const Load& load : loads()) {
        clients.emplace_back([this, &load, &warm_up, &stopping, &wrong] {
            hammer(load, load.tls ? tls_ : plain_, warm_up, stopping, wrong);
        });
    }
    const bool warm = warm_up.wait_for(loads().size());
    stopping = true;
    const Clock::time_point start = Clock::now();
    const int status = server_->host().stop(SIGTERM);
    const auto taken = Clock::now() - start;
    for (std::thread& client : clients) {
        client.join();
    }
    EXPECT_TRUE(warm);
    EXPECT_EQ(0, status) << server_->host().log_text();
    EXPECT_LT(taken, std::chrono::seconds(15));
    EXPECT_EQ(0, wrong);
    EXPECT_EQ(0U, server_->host().count_log("Sanitizer"));
    EXPECT_EQ(0U, server_->host().count_log("still in"));
}

TEST_F(HTTP_Shutdown, closes_idle_connections_of_every_kind)
{
    const auto loop = plain_();
    const auto thread = plain_();
    const auto tls = tls_();
    const auto tls_thread = tls_();
    const auto silent = plain_();
    const auto half = plain_();
    const auto half_thread = plain_();
    for (const auto* client : {&loop, &thread, &tls, &tls_thread, &silent, &half, &half_thread}) {
        ASSERT_NE(nullptr, *client);
    }
    EXPECT_EQ(HELLO, loop->exchange(get_request("/probe/hello")).body);
    EXPECT_EQ(HELLO, thread->exchange(get_request("/probe/thread")).body);
    EXPECT_EQ(HELLO, tls->exchange(get_request("/probe/hello")).body);
    EXPECT_EQ(HELLO, tls_thread->exchange(get_request("/probe/thread")).body);
    ASSERT_TRUE(half->send("POST /probe/count HTTP/1.1\r\nContent-Length: 10\r\n\r\nhalf"));
    ASSERT_TRUE(
        half_thread->send("POST /probe/thread/count HTTP/1.1\r\nContent-Length: 10\r\n\r\nhalf"));
    ASSERT_TRUE(server_->host().wait_for_log_count("probe: handle_body 4", 2));

    EXPECT_EQ(0, server_->host().stop(SIGTERM));
    for (const auto* client : {&loop, &thread, &tls, &tls_thread, &silent, &half, &half_thread}) {
        EXPECT_TRUE((*client)->is_closed_by_peer());
    }
    // Every plug-in object was told.
    EXPECT_EQ(server_->host().count_log("probe: handle_request"),
              server_->host().count_log("probe: handle_close"));
    EXPECT_EQ(std::vector<std::string>(), texts_of(server_->host(), "ERROR"));
}

/// Takes as long as a stopping server waits for a plug-in: ten seconds.
TEST(Slow_HTTP_Shutdown, names_a_plug_in_that_does_not_come_back_and_ends)
{
    Probe_Server server;
    const auto stuck = server.connect();
    ASSERT_NE(nullptr, stuck);
    ASSERT_TRUE(stuck->send(get_request("/probe/thread-stuck")));
    ASSERT_TRUE(server.host().wait_for_log("probe: handle_request GET /probe/thread-stuck"));

    const Clock::time_point start = Clock::now();
    EXPECT_EQ(0, server.host().stop(SIGTERM));
    const auto taken = Clock::now() - start;
    EXPECT_GE(taken, std::chrono::seconds(10));
    EXPECT_LT(taken, std::chrono::seconds(15));
    EXPECT_TRUE(wait_for_exact_line(
        server.host(), "ERROR A connection is still in its worker thread, its plug-in is left "
                       "loaded: uri '/probe' of dll '" +
                           library_path("probe_plugin") + "'."));
    EXPECT_EQ(0U, server.host().count_log("Sanitizer"));
}
