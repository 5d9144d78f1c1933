// Reads and writes that move fewer bytes than they were asked for, or are interrupted.

#include "tests/support/fault_script.h"
#include "tests/support/sanitized.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>

namespace {

std::string name_of(const testing::TestParamInfo<Listener_Kind>& kind)
{
    return std::string(kind.param == Listener_Kind::TCP   ? "TCP"
                       : kind.param == Listener_Kind::TLS ? "TLS"
                                                          : "UNIX");
}

class Fault_Transfers : public testing::TestWithParam<Listener_Kind> {};

constexpr Fault_Call TRANSFERS[] = {Fault_Call::READ, Fault_Call::WRITE, Fault_Call::RECEIVE,
                                    Fault_Call::SEND, Fault_Call::SENDFILE};

/// Calls that the system may end with EINTR.
constexpr Fault_Call INTERRUPTED[] = {
    Fault_Call::READ,     Fault_Call::WRITE,      Fault_Call::RECEIVE,
    Fault_Call::SEND,     Fault_Call::POLL,       Fault_Call::ACCEPT,
    Fault_Call::SENDFILE, Fault_Call::EPOLL_WAIT, Fault_Call::OPEN};

Fault interrupts(Fault_Call call)
{
    Fault fault = {call, EINTR};
    if (call == Fault_Call::OPEN) {
        fault.path = "served"; // a file system that asks a server of its own may be interrupted
    }
    return fault;
}

/// What the plug-in sends as a vector of so many entries: some are empty.
std::string text_of_entries(size_t count)
{
    std::string text;
    for (size_t i = 0; i < count; ++i) {
        text += i % 7 == 3 ? "" : std::to_string(i) + ",";
    }
    return text;
}

} // namespace

TEST_P(Fault_Transfers, short_ones_leave_every_answer_as_it_is)
{
    Fault_Server server(this->GetParam());
    for (const std::uint64_t longest : {1U, 3U, 1000U}) {
        SCOPED_TRACE(longest);
        for (const Fault_Call call : TRANSFERS) {
            Fault fault = {call};
            fault.longest = longest;
            server.faults().arm(fault);
        }
        constexpr std::uint64_t EVERYTHING = 1000;
        EXPECT_EQ("", longest < EVERYTHING ? server.run_beginning() : server.run_script());
        EXPECT_GT(server.faults().struck(0) + server.faults().struck(2), 0U);
        EXPECT_GT(server.faults().struck(1) + server.faults().struck(3), 0U);
        server.faults().disarm();
    }
    EXPECT_EQ(0, server.host().stop(SIGTERM));
}

TEST_P(Fault_Transfers, interrupted_calls_are_made_again)
{
    Fault_Server server(this->GetParam());
    for (const Fault_Call call : INTERRUPTED) {
        for (const std::uint64_t period : {0U, 2U}) {
            SCOPED_TRACE("call " + std::to_string(static_cast<int>(call)) +
                         (period == 0 ? " once" : " every other time"));
            Fault fault = interrupts(call);
            fault.times = period == 0 ? 1 : Fault::FOR_EVER;
            fault.period = period == 0 ? 1 : period;
            server.faults().arm(fault);
            EXPECT_EQ("", server.run_script());
            server.faults().disarm();
        }
    }
    EXPECT_EQ(0, server.host().stop(SIGTERM));
    EXPECT_EQ(0U, server.host().count_log(" ERROR ")) << server.host().log_text();
}

TEST_P(Fault_Transfers, vectors_of_any_length_arrive_whole)
{
#if defined(HTTPD_TEST_SANITIZED)
    constexpr size_t STEP = 997;
#else
    constexpr size_t STEP = 97;
#endif
    constexpr size_t MOST = 5000;
    Fault_Server server(this->GetParam());
    std::vector<size_t> counts = {1022, 1023, 1024, 1025, 1026, 2047, 2048, 2049, MOST};
    for (size_t count = 1; count < MOST; count += count < 130 ? 1 : STEP) {
        counts.push_back(count);
    }
    for (const std::uint64_t longest : {UINT64_MAX, std::uint64_t{997}}) {
        for (const Fault_Call call : {Fault_Call::SEND, Fault_Call::WRITE}) {
            Fault fault = {call};
            fault.descriptor = Fault_Descriptor::SOCKET;
            fault.longest = longest;
            server.faults().arm(fault);
        }
        const auto client = server.connect();
        ASSERT_NE(nullptr, client);
        for (const size_t count : counts) {
            const std::string text = text_of_entries(count);
            for (const char* const mode : {"entries", "entries-behind", "chunked-entries"}) {
                const Wire_Response response = client->exchange(
                    get_request(std::string("/response/") + mode + "?" + std::to_string(count)));
                ASSERT_TRUE(response.complete && response.body == text)
                    << mode << " of " << count << ", cut to " << longest << ": "
                    << response.body.size() << " of " << text.size() << " bytes";
            }
        }
        server.faults().disarm();
    }
    EXPECT_EQ(0, server.host().stop(SIGTERM));
}

INSTANTIATE_TEST_SUITE_P(Of, Fault_Transfers,
                         testing::Values(Listener_Kind::TCP, Listener_Kind::TLS,
                                         Listener_Kind::UNIX),
                         &name_of);

// Each call that moves bytes fails once, at several points of the script.
TEST_P(Fault_Transfers, one_that_fails_costs_its_connection_and_no_more)
{
    Fault_Server server(this->GetParam());
    for (const Fault_Call call : TRANSFERS) {
        for (const int error : {ECONNRESET, EPIPE, ENOBUFS, EIO}) {
            for (const std::uint64_t skip : {0U, 5U, 11U}) {
                Fault fault = {call, error};
                fault.descriptor = call == Fault_Call::SENDFILE ? Fault_Descriptor::REGULAR_FILE
                                                                : Fault_Descriptor::SOCKET;
                fault.skip = skip;
                fault.times = 1;
                server.faults().arm(fault);
                const size_t lines = server.host().count_log(" ERROR ");
                EXPECT_EQ("", server.run_script_under_fault()) << static_cast<int>(call) << error;
                server.faults().disarm();
                EXPECT_EQ("", server.run_beginning());
                EXPECT_LE(server.host().count_log(" ERROR "), lines + 2);
            }
        }
    }
    EXPECT_EQ(0, server.host().stop(SIGTERM));
}
