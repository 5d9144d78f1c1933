// Connections that cannot be accepted, or not be served, for a while.

#include "tests/support/fault_script.h"
#include "tests/support/process_descriptors.h"
#include "tests/support/sanitized.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <thread>

namespace {

#if defined(HTTPD_TEST_SANITIZED)
constexpr std::chrono::milliseconds SOON(10'000);
#else
constexpr std::chrono::milliseconds SOON(1000);
#endif

std::string name_of(const testing::TestParamInfo<Listener_Kind>& kind)
{
    return std::string(kind.param == Listener_Kind::TCP   ? "TCP"
                       : kind.param == Listener_Kind::TLS ? "TLS"
                                                          : "UNIX");
}

class Fault_Accept : public testing::TestWithParam<Listener_Kind> {};

/// A client that has been waiting since the trouble, or comes now, is served soon after its end.
void expect_service_soon(Fault_Server& server)
{
    const auto client = server.connect();
    ASSERT_NE(nullptr, client);
    ASSERT_TRUE(client->send(get_request("/probe/hello")));
    constexpr bool HEAD_ONLY = false;
    EXPECT_EQ("Hello, World!", client->read_response(HEAD_ONLY, SOON).body);
}

/// Connections end on their own time: waits until no more descriptors are open than before.
void expect_descriptors(Fault_Server& server, size_t before)
{
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (process_descriptors(server.host().pid()).count > before &&
           std::chrono::steady_clock::now() < end) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    EXPECT_LE(process_descriptors(server.host().pid()).count, before);
}

} // namespace

TEST_P(Fault_Accept, that_fails_for_a_while_is_told_ten_times_a_second_at_most)
{
    constexpr std::uint64_t FAILURES = 5;
    Fault_Server server(this->GetParam());
    for (const int error : {EMFILE, ENFILE, ENOBUFS, ENOMEM}) {
        SCOPED_TRACE(error);
        const size_t lines = server.errors_logged();
        server.faults().arm({Fault_Call::ACCEPT, error});
        // A TLS client waits for the server's part of the handshake, so only in the background.
        std::string answer;
        std::thread waiting([&server, &answer] {
            if (const auto client = server.connect()) {
                answer = client->exchange(get_request("/probe/hello")).body;
            }
        });
        const auto begin = std::chrono::steady_clock::now();
        EXPECT_TRUE(server.faults().wait_until_struck(FAILURES));
        const std::uint64_t struck = server.faults().struck();
        const std::chrono::duration<double> took = std::chrono::steady_clock::now() - begin;
        server.faults().disarm();
        expect_service_soon(server);
        waiting.join();
        EXPECT_EQ("Hello, World!", answer);
        EXPECT_LE(static_cast<double>(struck), took.count() * 10 + 2);
        EXPECT_LE(server.host().count_log(" ERROR "), lines + struck + 1);
    }
    EXPECT_EQ("", server.run_script());
    EXPECT_EQ(0, server.host().stop(SIGTERM));
}

TEST_P(Fault_Accept, of_a_client_that_has_gone_again_changes_nothing)
{
    Fault_Server server(this->GetParam());
    for (const int error : {ECONNABORTED, EPROTO, ENETDOWN, EINTR, EAGAIN}) {
        Fault fault = {Fault_Call::ACCEPT, error};
        fault.times = 3;
        server.faults().arm(fault);
        EXPECT_EQ("", server.run_script());
        EXPECT_EQ(3U, server.faults().struck());
        server.faults().disarm();
    }
    EXPECT_EQ(0, server.host().stop(SIGTERM));
}

TEST_P(Fault_Accept, of_what_no_loop_can_watch_closes_it)
{
    Fault_Server server(this->GetParam());
    ASSERT_EQ("", server.run_script());
    const size_t before = process_descriptors(server.host().pid()).count;
    for (const int error : {ENOMEM, ENOSPC}) {
        SCOPED_TRACE(error);
        const size_t lines = server.errors_logged();
        Fault fault = {Fault_Call::EPOLL_CONTROL, error};
        fault.times = 5;
        server.faults().arm(fault);
        EXPECT_EQ("", server.run_script_under_fault());
        EXPECT_GT(server.faults().struck(), 0U);
        server.faults().disarm();
        expect_service_soon(server);
        EXPECT_LE(server.errors_logged(), lines + 10);
    }
    EXPECT_EQ("", server.run_script());
    expect_descriptors(server, before);
    EXPECT_EQ(0, server.host().stop(SIGTERM));
}

TEST_P(Fault_Accept, of_a_socket_that_refuses_its_options_serves_or_closes_it)
{
    Fault_Server server(this->GetParam());
    for (const Fault_Call call :
         {Fault_Call::SET_OPTION, Fault_Call::GET_OPTION, Fault_Call::NAME, Fault_Call::CONTROL,
          Fault_Call::SHUTDOWN, Fault_Call::TIMER_SET}) {
        SCOPED_TRACE(static_cast<int>(call));
        server.faults().arm({call, ENOBUFS});
        EXPECT_EQ("", server.run_script_under_fault());
        server.faults().disarm();
        expect_service_soon(server);
    }
    EXPECT_EQ("", server.run_script());
    EXPECT_EQ(0, server.host().stop(SIGTERM));
}

INSTANTIATE_TEST_SUITE_P(Of, Fault_Accept,
                         testing::Values(Listener_Kind::TCP, Listener_Kind::TLS,
                                         Listener_Kind::UNIX),
                         &name_of);

TEST(Fault_Thread, that_cannot_be_started_costs_its_connection_and_one_line)
{
    constexpr size_t CLIENTS = 50;
    Fault_Server server;
    ASSERT_EQ("", server.run_script());
    const size_t before = process_descriptors(server.host().pid()).count;
    for (const int error : {EAGAIN, ENOMEM, EPERM}) {
        const size_t lines = server.errors_logged();
        server.faults().arm({Fault_Call::THREAD, error});
        for (size_t i = 0; i < CLIENTS; ++i) {
            const auto client = server.connect();
            ASSERT_NE(nullptr, client);
            ASSERT_TRUE(client->send(get_request("/probe/thread/large")));
            EXPECT_TRUE(client->is_closed_by_peer());
        }
        EXPECT_EQ(CLIENTS, server.faults().struck());
        server.faults().disarm();
        EXPECT_EQ("", server.run_script());
        EXPECT_EQ(lines + CLIENTS, server.errors_logged());
    }
    expect_descriptors(server, before);
    EXPECT_EQ(0, server.host().stop(SIGTERM));
}

#if !defined(HTTPD_TEST_SANITIZED)
TEST_P(Fault_Accept, without_any_memory_fails_until_there_is_some)
{
    Fault_Server server(this->GetParam());
    ASSERT_EQ("", server.run_script());
    for (int round = 0; round < 3; ++round) {
        const size_t lines = server.host().log().size();
        server.faults().arm({Fault_Call::ALLOCATE, ENOMEM});
        std::thread waiting([&server] {
            if (const auto client = server.connect()) {
                client->exchange(get_request("/probe/hello"));
            }
        });
        EXPECT_TRUE(server.faults().wait_until_struck(20));
        std::this_thread::sleep_for(std::chrono::milliseconds(300)); // how long the shortage lasts
        server.faults().disarm();
        expect_service_soon(server);
        waiting.join();
        EXPECT_LE(server.host().log().size(), lines + 50);
    }
    EXPECT_EQ("", server.run_script());
    EXPECT_EQ(0, server.host().stop(SIGTERM));
}
#endif
