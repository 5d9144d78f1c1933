// Files that cannot be opened or read, before their answer has begun and in the middle of it.

#include "tests/support/fault_script.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <fstream>

namespace {

constexpr int REQUESTS = 20;

class Fault_Files : public testing::Test {
protected:
    Fault_Files()
    {
        // The plug-in's first request looks in several places, with a line for each.
        EXPECT_EQ("", server_.run_script());
    }

    /// What a client gets of a file. Its connection is its own.
    Wire_Response get(const std::string& target)
    {
        const auto client = server_.connect();
        return client != nullptr ? client->exchange(get_request(target)) : Wire_Response();
    }

    /// A file by the plug-in for files, and one by the library's own send_file; new ones each time,
    /// since the plug-in keeps a file that it has served open for a while.
    std::vector<std::string> targets(const std::string& text)
    {
        const std::string name = "new-" + std::to_string(++files_) + ".txt";
        std::ofstream(server_.root() + "/" + name, std::ios::binary) << text;
        return {"/files/" + name, "/probe/file?" + server_.root() + "/" + name};
    }

    Fault fault(Fault_Call call, int error) const
    {
        Fault result = {call, error};
        result.path = call == Fault_Call::OPEN ? ".txt" : "/served/";
        return result;
    }

    /// An error has cost at most one line for each request, and its end brings the file back.
    void expect_service(size_t lines_before, const std::string& target, const std::string& text)
    {
        EXPECT_LE(server_.errors_logged(), lines_before + REQUESTS) << server_.host().log_text();
        const Wire_Response response = this->get(target);
        EXPECT_TRUE(response.complete);
        EXPECT_EQ(200, response.status);
        EXPECT_TRUE(response.body == text);
    }

    Fault_Server server_;
    unsigned files_ = 0;
};

} // namespace

TEST_F(Fault_Files, file_that_cannot_be_opened_or_looked_at_is_no_answer_of_200)
{
    for (const Fault_Call call : {Fault_Call::OPEN, Fault_Call::STAT}) {
        for (const int error : {EIO, EMFILE, ENOMEM}) {
            for (const std::string& target : this->targets(server_.file_text())) {
                SCOPED_TRACE(target + " " + std::to_string(static_cast<int>(call)) + " " +
                             std::to_string(error));
                const size_t lines = server_.errors_logged();
                server_.faults().arm(this->fault(call, error));
                for (int i = 0; i < REQUESTS; ++i) {
                    const Wire_Response response = this->get(target);
                    EXPECT_TRUE(response.status == 0 || response.status >= 500) << response.status;
                }
                server_.faults().disarm();
                this->expect_service(lines, target, server_.file_text());
            }
        }
    }
    EXPECT_EQ(0, server_.host().stop(SIGTERM));
}

TEST_F(Fault_Files, small_file_that_cannot_be_read_is_no_answer_of_200)
{
    for (const std::string& target : this->targets("small file")) {
        SCOPED_TRACE(target);
        const size_t lines = server_.errors_logged();
        server_.faults().arm(this->fault(Fault_Call::READ, EIO));
        for (int i = 0; i < REQUESTS; ++i) {
            const Wire_Response response = this->get(target);
            EXPECT_TRUE(response.status == 0 || response.status >= 500 || !response.complete)
                << response.status;
        }
        EXPECT_GT(server_.faults().struck(), 0U);
        server_.faults().disarm();
        this->expect_service(lines, target, "small file");
    }
    EXPECT_EQ(0, server_.host().stop(SIGTERM));
}

TEST_F(Fault_Files, file_that_breaks_off_ends_its_connection)
{
    for (const std::uint64_t skip : {0U, 1U}) { // at its beginning, and in the middle
        for (const std::string& target : this->targets(server_.file_text())) {
            SCOPED_TRACE(target + " after " + std::to_string(skip));
            const size_t lines = server_.errors_logged();
            for (const Fault_Call call : {Fault_Call::SENDFILE, Fault_Call::READ}) {
                Fault broken = this->fault(call, EIO);
                broken.skip = call == Fault_Call::SENDFILE ? skip : 0;
                server_.faults().arm(broken);
            }
            const auto client = server_.connect();
            ASSERT_NE(nullptr, client);
            const Wire_Response response = client->exchange(get_request(target));
            EXPECT_FALSE(response.complete);
            EXPECT_TRUE(client->at_end());
            EXPECT_EQ(0, server_.file_text().compare(0, response.body.size(), response.body));
            EXPECT_EQ(skip > 0, !response.body.empty());
            EXPECT_EQ(2U, server_.faults().struck(0) + server_.faults().struck(1));
            server_.faults().disarm();
            this->expect_service(lines, target, server_.file_text());
        }
    }
    EXPECT_EQ(0, server_.host().stop(SIGTERM));
}

TEST_F(Fault_Files, file_that_the_system_cannot_send_is_read)
{
    for (const std::string& target : this->targets(server_.file_text())) {
        for (const int error : {EINVAL, ENOSYS, EIO}) {
            for (const std::uint64_t skip : {0U, 1U}) {
                Fault broken = this->fault(Fault_Call::SENDFILE, error);
                broken.skip = skip;
                server_.faults().arm(broken);
                const Wire_Response response = this->get(target);
                EXPECT_TRUE(response.complete && response.body == server_.file_text())
                    << target << " errno " << error << " after " << skip;
                EXPECT_GT(server_.faults().struck(), 0U);
                server_.faults().disarm();
            }
        }
    }
    EXPECT_EQ(0, server_.host().stop(SIGTERM));
    EXPECT_EQ(0U, server_.host().count_log(" ERROR ")) << server_.host().log_text();
}
