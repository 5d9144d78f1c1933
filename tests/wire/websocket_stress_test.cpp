#include "tests/support/environment_variable.h"
#include "tests/support/probe_server.h"
#include "tests/support/process_descriptors.h"
#include "tests/support/tls_files.h"
#include "tests/support/websocket_client.h"

#include <gtest/gtest.h>

#include <sys/socket.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <random>
#include <string>
#include <thread>
#include <vector>

// Many clients that keep to no rule, against a plug-in that does whatever its interface allows,
// both by chance. HTTPD_STRESS_SECONDS, HTTPD_STRESS_CONNECTIONS and HTTPD_STRESS_SEED change how
// long, how many and which; the ordinary run is short.

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

unsigned number_from_environment(const char* name, unsigned otherwise)
{
    const char* const text = std::getenv(name);
    return text != nullptr ? static_cast<unsigned>(std::atoi(text)) : otherwise;
}

unsigned run_seconds()
{
    return number_from_environment("HTTPD_STRESS_SECONDS", 2);
}

/// Chance, seeded; one for each client.
class Chance {
public:
    explicit Chance(unsigned seed) : engine_(seed) {}

    unsigned below(unsigned limit)
    {
        return std::uniform_int_distribution<unsigned>(0, limit - 1)(engine_);
    }

    bool one_in(unsigned n) { return this->below(n) == 0; }
    bool coin() { return this->one_in(2); }

    std::string text()
    {
        const unsigned limit = this->one_in(30) ? 70000 : this->one_in(8) ? 9000 : 150;
        return std::string(this->below(limit), static_cast<char>('A' + this->below(26)));
    }

private:
    std::minstd_rand engine_;
};

class Stress_Server {
public:
    Stress_Server() : tls_address_(own_loopback_address())
    {
        const Tls_Files files = write_tls_files(folder_.path());
        Probe_Server::Setup setup;
        setup.log_level = "info";
        setup.host = {"--tls-certificate", files.certificate, "--tls-private-key",
                      files.private_key};
        setup.handlers.push_back({"/counts", "websocket_stress_plugin", "_make_WS_Stress_Counts"});
        setup.websockets = {{"/stress", "websocket_stress_plugin", "_make_WS_Stress"}};
        setup.options = {"-t",
                         "2",
                         "-i",
                         "2",
                         "--ping-interval",
                         "1",
                         "--ping-timeout",
                         "1",
                         "--socket-send-timeout",
                         "1",
                         "--accept-timeout=20",
                         "--listen-backlog",
                         "1024",
                         "-p",
                         tls_address_ + ":8443s",
                         "-p",
                         this->socket_path()};
        const Environment_Variable no_authorities("SSL_CERT_FILE", "/dev/null");
        const Environment_Variable no_folder("SSL_CERT_DIR", "/dev/null");
        server_ = std::make_unique<Probe_Server>(setup);
    }

    static constexpr unsigned KINDS = 3;

    /// A connection to one of the three listeners on which nothing waits for long.
    std::unique_ptr<Wire_Client> connect(unsigned kind) const
    {
        std::unique_ptr<Wire_Client> client = kind == 0 ? server_->connect()
                                              : kind == 1
                                                  ? Wire_Client::tls(tls_address_, 8443)
                                                  : Wire_Client::unix_domain(this->socket_path());
        if (client != nullptr) {
            const timeval limit = {2, 0};
            ::setsockopt(client->handle(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
            ::setsockopt(client->handle(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
        }
        return client;
    }

    std::string counts(const char* target) const
    {
        const auto client = server_->connect();
        return client == nullptr ? "" : client->exchange(get_request(target)).body;
    }

    size_t threads() const
    {
        const std::filesystem::directory_iterator tasks(
            "/proc/" + std::to_string(server_->host().pid()) + "/task");
        return static_cast<size_t>(std::distance(begin(tasks), end(tasks)));
    }

    size_t descriptors() const { return process_descriptors(server_->host().pid()).count; }

    Host_Process& host() const { return server_->host(); }

    /// The report of a sanitizer, if there is one.
    std::string report() const
    {
        std::string text;
        for (const std::string& line : this->host().log()) {
            const bool start = line.find("Sanitizer") != std::string::npos ||
                               line.find("runtime error") != std::string::npos;
            if ((start || !text.empty()) && text.size() < 20000) {
                text += line + "\n";
            }
        }
        return text;
    }

private:
    /// Where each ping replaces the time-out of the last one, no time-out is ever reached; that
    /// takes a longer run.
    static std::string ping_interval() { return run_seconds() < 10 ? "1" : "2"; }

    std::string socket_path() const { return folder_.path() + "/stress.sock"; }

    Temporary_Folder folder_;
    std::string tls_address_;
    std::unique_ptr<Probe_Server> server_;
};

/// What the clients did.
struct Tally {
    std::atomic<unsigned long> conversations{0};
    std::atomic<unsigned long> echoes{0};
    std::atomic<unsigned long> refused{0}; ///< connects
};

std::string malformed_frame(Chance& chance)
{
    WebSocket_Frame_Options options;
    switch (chance.below(7)) {
    case 0:
        options.masked = false;
        return websocket_frame(WS_TEXT, "x", options);
    case 1:
        options.reserved = static_cast<unsigned char>(1 + chance.below(7));
        return websocket_frame(WS_TEXT, "x", options);
    case 2:
        options.length_bytes = chance.coin() ? 2 : 8;
        return websocket_frame(WS_BINARY, "short", options);
    case 3:
        return websocket_frame(WS_PING, std::string(126 + chance.below(300), 'p'));
    case 4:
        options.final = false;
        return websocket_frame(WS_CLOSE, close_payload(1000), options);
    case 5:
        return websocket_frame(WS_TEXT, "\xC3\x28");
    default:
        return std::string(1 + chance.below(40), static_cast<char>(chance.below(256)));
    }
}

std::string any_frame(Chance& chance)
{
    switch (chance.below(12)) {
    case 0:
    case 1:
    case 2:
        return websocket_frame(WS_TEXT, chance.text());
    case 3:
        return websocket_frame(WS_BINARY, chance.text());
    case 4:
    case 5: {
        std::string frames = websocket_fragment(WS_TEXT, chance.text());
        for (unsigned i = chance.below(3); i > 0; --i) {
            frames += chance.coin() ? websocket_frame(WS_PING, "between")
                                    : websocket_fragment(WS_CONTINUATION, chance.text());
        }
        return chance.one_in(4) ? frames : frames + websocket_frame(WS_CONTINUATION, "");
    }
    case 6:
    case 7:
        return websocket_frame(WS_PING, std::string(chance.below(126), 'p'));
    case 8:
        return websocket_frame(WS_PONG, "");
    case 9:
        return websocket_frame(3 + chance.below(5), "reserved");
    case 10:
        return chance.one_in(3)
                   ? websocket_frame(WS_CLOSE, chance.coin() ? "" : close_payload(1001))
                   : websocket_frame(WS_TEXT, "");
    default:
        return chance.one_in(3) ? malformed_frame(chance) : websocket_frame(WS_TEXT, "x");
    }
}

class Stress_Client {
public:
    Stress_Client(const Stress_Server& server, unsigned seed, Tally& tally)
        : server_(server), chance_(seed), tally_(tally)
    {
    }

    void run(const std::atomic<bool>& stopping)
    {
        while (!stopping) {
            const auto wire = server_.connect(chance_.below(Stress_Server::KINDS));
            if (wire == nullptr) {
                ++tally_.refused;
                continue;
            }
            ++tally_.conversations;
            WebSocket_Client client(std::move(const_cast<std::unique_ptr<Wire_Client>&>(wire)));
            if (chance_.one_in(8)) {
                this->converse(client, stopping);
            } else {
                this->misbehave(client);
            }
        }
    }

private:
    std::string target(const std::string& mode)
    {
        return "/stress/" + mode + "/" + std::to_string(chance_.below(1000000));
    }

    /// One that keeps to the rules is served as if it were alone.
    void converse(WebSocket_Client& client, const std::atomic<bool>& stopping)
    {
        const Clock::time_point start = Clock::now();
        if (!client.open(this->target(chance_.coin() ? "echo" : "thread-echo"))) {
            EXPECT_TRUE(stopping) << client.response().raw_head << "after "
                                  << (Clock::now() - start) / milliseconds(1) << " ms, "
                                  << (client.wire().at_end() ? "closed" : "silent");
            return;
        }
        for (unsigned i = 1 + chance_.below(10); i > 0; --i) {
            const std::string message = chance_.text() + std::to_string(chance_.below(1000000));
            std::string echo;
            bool complete = client.send(WS_TEXT, message);
            while (complete && echo.size() < message.size()) {
                const WebSocket_Frame frame = client.read();
                complete = frame.complete;
                if (frame.opcode == WS_PING) {
                    client.send(WS_PONG, frame.payload);
                } else {
                    echo += frame.payload;
                }
            }
            if (!complete && stopping) {
                return;
            }
            ASSERT_TRUE(complete);
            ASSERT_EQ(message, echo);
            ++tally_.echoes;
            tally_.echoes.notify_all();
        }
        client.send(WS_CLOSE, close_payload(1000));
    }

    void misbehave(WebSocket_Client& client)
    {
        static const char* const modes[] = {"plain", "thread", "later", "thread-later"};
        const std::string request = upgrade_request(
            this->target(modes[chance_.below(std::size(modes))]),
            chance_.coin() ? std::vector<std::string>{"Sec-WebSocket-Protocol: a, b"}
                           : std::vector<std::string>{});
        Wire_Client& wire = client.wire();
        bool open = this->send(wire, chance_.coin() ? request : request + any_frame(chance_));
        wire.receive(milliseconds(500));
        for (unsigned i = chance_.below(25); open && i > 0; --i) {
            open = this->step(wire);
        }
    }

    /// @return false when the connection has ended, or is to.
    bool step(Wire_Client& wire)
    {
        switch (chance_.below(16)) {
        case 0: // neither sends nor reads for a while
            std::this_thread::sleep_for(
                milliseconds(chance_.below(chance_.one_in(10) ? 1500 : 80)));
            return true;
        case 1: // the rest of it never comes
            if (chance_.one_in(3)) {
                const std::string frame = any_frame(chance_);
                this->send(wire,
                           frame.substr(0, chance_.below(static_cast<unsigned>(frame.size()) + 1)));
                return false;
            }
            return true;
        case 2:
            if (chance_.one_in(3)) {
                wire.half_close();
                wire.receive(milliseconds(chance_.below(300)));
                return false;
            }
            return true;
        case 3:
            if (chance_.one_in(3)) {
                const linger reset = {1, 0};
                ::setsockopt(wire.handle(), SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
                return false;
            }
            return true;
        case 4:
        case 5:
        case 6:
        case 7:
            wire.receive(milliseconds(chance_.below(30)));
            return !wire.at_end();
        default:
            return this->send(wire, any_frame(chance_));
        }
    }

    /// In one piece or in two.
    bool send(Wire_Client& wire, const std::string& bytes)
    {
        if (chance_.one_in(3)) {
            const size_t cut = chance_.below(static_cast<unsigned>(bytes.size()) + 1);
            return wire.send(bytes.substr(0, cut)) && wire.send(bytes.substr(cut));
        }
        return wire.send(bytes);
    }

    const Stress_Server& server_;
    Chance chance_;
    Tally& tally_;
};

/// The clients, each in a thread, until the end of the object's life.
class Crowd {
public:
    Crowd(const Stress_Server& server, unsigned size)
    {
        const unsigned seed = number_from_environment("HTTPD_STRESS_SEED", 1);
        for (unsigned i = 0; i < size; ++i) {
            threads_.emplace_back([this, &server, seed, i] {
                Stress_Client(server, seed * 1000 + i, tally_).run(stopping_);
            });
        }
    }

    ~Crowd() { this->leave(); }

    /// From now on a connection may be refused, and none is made that need not be.
    void expect_the_end() { stopping_ = true; }

    void leave()
    {
        stopping_ = true;
        for (std::thread& thread : threads_) {
            thread.join();
        }
        threads_.clear();
    }

    const Tally& tally() const { return tally_; }

private:
    Tally tally_;
    std::atomic<bool> stopping_{false};
    std::vector<std::thread> threads_;
};

unsigned crowd_size()
{
    return number_from_environment("HTTPD_STRESS_CONNECTIONS", 24);
}

/// A number that is going down, when it has come down to `goal` or some seconds have passed.
template <typename Number>
size_t settled(const Number& number, size_t goal)
{
    const Clock::time_point end = Clock::now() + std::chrono::seconds(10);
    while (number() > goal && Clock::now() < end) {
        std::this_thread::sleep_for(milliseconds(10));
    }
    return number();
}

} // namespace

TEST(WebSocket_Stress, leaves_nothing_behind_and_goes_on_serving)
{
    const Stress_Server server;
    const auto threads = [&server] { return server.threads(); };
    const auto descriptors = [&server] { return server.descriptors(); };
    const size_t threads_before = server.threads();
    const size_t descriptors_before = server.descriptors();

    Crowd crowd(server, crowd_size());
    std::this_thread::sleep_for(std::chrono::seconds(run_seconds()));
    crowd.leave();

    const std::string counts = server.counts("/counts/settled");
    std::printf("%lu connections, %lu echoes, %lu refused; plug-in: %s\n",
                crowd.tally().conversations.load(), crowd.tally().echoes.load(),
                crowd.tally().refused.load(), counts.c_str());
    EXPECT_NE(0U, crowd.tally().echoes);
    EXPECT_EQ(0U, crowd.tally().refused);
    const size_t behind_opened = counts.find(' ');
    const std::string opened = counts.substr(0, behind_opened).substr(counts.find('=') + 1);
    EXPECT_EQ("opened=" + opened + " closed=" + opened + " left=0 wrong_closes=0 out_of_turn=0",
              counts);
    EXPECT_EQ(descriptors_before, settled(descriptors, descriptors_before));
    EXPECT_EQ(threads_before, settled(threads, threads_before));

    const auto client = server.connect(0);
    ASSERT_NE(nullptr, client);
    EXPECT_EQ("Hello, World!", client->exchange(get_request("/probe/hello")).body);
    WebSocket_Client echo(server.connect(0));
    ASSERT_TRUE(echo.open("/stress/echo/1"));
    echo.send(WS_TEXT, "still here");
    EXPECT_EQ("still here", echo.read().payload);
    EXPECT_EQ(0, server.host().stop(SIGTERM)) << server.report();
}

TEST(WebSocket_Stress, a_server_that_is_stopped_in_the_midst_ends_cleanly)
{
    const Stress_Server server;
    Crowd crowd(server, crowd_size());
    const auto& echoes = crowd.tally().echoes;
    for (unsigned long seen = echoes; seen < 100; seen = echoes) {
        echoes.wait(seen);
    }
    crowd.expect_the_end();
    EXPECT_EQ(0, server.host().stop(SIGTERM)) << server.report();
    EXPECT_EQ(0U, server.host().count_log("plug-ins are left loaded"));
}
