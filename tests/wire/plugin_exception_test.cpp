// Plug-ins that throw: their connection ends, the others and the process do not.

#include "tests/support/log_lines.h"
#include "tests/support/probe_server.h"

#include <gtest/gtest.h>

#include <csignal>

namespace {

class Plug_In_Exception : public testing::TestWithParam<const char*> {
protected:
    Plug_In_Exception()
    {
        Probe_Server::Setup setup;
        setup.handlers = {{"/response", "response_plugin", "_make_Response"}};
        server_ = std::make_unique<Probe_Server>(setup);
    }

    /// In an event loop or in a worker thread.
    std::string target(const std::string& mode) const
    {
        return std::string("/response/") + this->GetParam() + mode;
    }

    std::unique_ptr<Probe_Server> server_;
};

} // namespace

TEST_P(Plug_In_Exception, is_answered_with_500_while_nothing_is_sent)
{
    const auto other = server_->connect();
    ASSERT_NE(nullptr, other);
    EXPECT_EQ(200, other->exchange(get_request("/response/hello")).status);
    for (const char* const mode : {"throw", "throw-number"}) {
        const auto client = server_->connect();
        ASSERT_NE(nullptr, client);
        const Wire_Response response = client->exchange(get_request(this->target(mode)));
        EXPECT_EQ(500, response.status);
        EXPECT_TRUE(client->is_closed_by_peer());
    }
    EXPECT_TRUE(server_->host().wait_for_log("ends by an exception: std::bad_alloc"));
    EXPECT_TRUE(server_->host().wait_for_log("ends by an exception: of an unknown type"));
    EXPECT_EQ(200, other->exchange(get_request("/response/hello")).status);
    EXPECT_EQ(0, server_->host().stop(SIGTERM));
}

TEST_P(Plug_In_Exception, breaks_off_a_response_that_has_begun)
{
    const auto client = server_->connect();
    ASSERT_NE(nullptr, client);
    const Wire_Response response = client->exchange(get_request(this->target("throw-late")));
    EXPECT_EQ(200, response.status);
    EXPECT_EQ("Hello", response.body);
    EXPECT_FALSE(response.complete);
    EXPECT_TRUE(client->at_end());
    EXPECT_TRUE(server_->host().wait_for_log("ends by an exception: no more"));
    EXPECT_EQ(0, server_->host().stop(SIGTERM));
    EXPECT_EQ(1U, server_->host().count_log("response: handle_close"));
}

INSTANTIATE_TEST_SUITE_P(In, Plug_In_Exception, testing::Values("", "thread/"),
                         [](const testing::TestParamInfo<const char*>& where) {
                             return std::string(*where.param == '\0' ? "loop" : "thread");
                         });
