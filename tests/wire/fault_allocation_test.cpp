// The n-th allocation of the server fails, for every n of a script of requests.

#include "tests/support/fault_script.h"
#include "tests/support/process_descriptors.h"
#include "tests/support/sanitized.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <thread>

namespace {

class Fault_Allocation : public testing::Test {
protected:
    void SetUp() override
    {
#if defined(HTTPD_TEST_SANITIZED)
        GTEST_SKIP() << "a sanitizer has the heap in its own hands";
#endif
    }
};

constexpr Fault NO_MEMORY = {Fault_Call::ALLOCATE, ENOMEM};

/// Lets one allocation fail in each run of the script, a later one in each, until a run has fewer.
/// @return how many failed
template <typename Run, typename Check>
std::uint64_t fail_each(Fault_Server& server, Run run, Check check)
{
    for (std::uint64_t n = 0;; ++n) {
        Fault fault = NO_MEMORY;
        fault.skip = n;
        fault.times = 1;
        server.faults().arm(fault);
        const std::string under_fault = run();
        const bool struck = server.faults().struck() > 0;
        server.faults().disarm();
        const std::string afterwards = check();
        EXPECT_EQ("", under_fault) << "while allocation " << n << " fails";
        EXPECT_EQ("", afterwards) << "after allocation " << n << " has failed";
        if (!struck || testing::Test::HasFailure()) {
            return n;
        }
    }
}

size_t descriptors(Fault_Server& server)
{
    return process_descriptors(server.host().pid()).count;
}

/// Connections end on their own time: waits until no more descriptors are open than before.
bool descriptors_are_back(Fault_Server& server, size_t before)
{
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (descriptors(server) > before) {
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

} // namespace

TEST_F(Fault_Allocation, that_fails_costs_no_more_than_its_request)
{
    // The access log is rotated and compressed now and then.
    Fault_Server server(Listener_Kind::TCP, {"-m", "1", "-N", "2", "-z"});
    for (int i = 0; i < 3; ++i) { // what is made once is made
        ASSERT_EQ("", server.run_script()) << server.host().log_text();
    }
    const size_t before = descriptors(server);
    const std::uint64_t failed = fail_each(
        server, [&server] { return server.run_script_under_fault(); },
        [&server] { return server.run_script(); });
    EXPECT_GT(failed, 50U);
    EXPECT_TRUE(descriptors_are_back(server, before));
    EXPECT_EQ(0, server.host().stop(SIGTERM)) << server.host().log_text();
}

TEST_F(Fault_Allocation, that_fails_costs_no_more_than_its_tls_connection)
{
    Fault_Server server(Listener_Kind::TLS);
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ("", server.run_script()) << server.host().log_text();
    }
    const size_t before = descriptors(server);
    // A handshake has hundreds of allocations: what comes after is looked at now and then.
    constexpr int STEP = 8;
    int runs = 0;
    const std::uint64_t failed = fail_each(
        server, [&server] { return server.run_beginning_under_fault(); },
        [&server, &runs] { return runs++ % STEP == 0 ? server.run_beginning() : ""; });
    EXPECT_GT(failed, 300U);
    EXPECT_EQ("", server.run_script());
    EXPECT_TRUE(descriptors_are_back(server, before));
    EXPECT_EQ(0, server.host().stop(SIGTERM)) << server.host().log_text();
}
