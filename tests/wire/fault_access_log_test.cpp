// The access log's disk is full, read-only or broken; requests are served all the same.

#include "tests/support/fault_script.h"

#include <gtest/gtest.h>

#include <sys/resource.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

namespace {

constexpr int REQUESTS = 1000;

/// Seconds of trouble are ten lines each, and the last one has only begun.
size_t most_lines(std::chrono::steady_clock::duration trouble)
{
    return 10U * (1U + static_cast<size_t>(
                           std::chrono::duration_cast<std::chrono::seconds>(trouble).count()));
}

std::string content_of(const std::string& path)
{
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

std::vector<std::string> lines_of_file(const std::string& path)
{
    std::vector<std::string> lines;
    std::istringstream text(content_of(path));
    for (std::string line; std::getline(text, line);) {
        lines.push_back(line);
    }
    return lines;
}

bool is_whole(const std::string& line)
{
    return line.size() > 27 && line[4] == '-' && line[26] == '@' &&
           line.find("@GET /probe/hello HTTP/1.1 200 0 13") != std::string::npos;
}

class Fault_Access_Log : public testing::Test {
protected:
    void start(const std::vector<std::string>& options = {})
    {
        server_ = std::make_unique<Fault_Server>(Listener_Kind::TCP, options);
        client_ = server_->connect();
        ASSERT_NE(nullptr, client_);
    }

    void TearDown() override
    {
        if (server_ != nullptr) {
            EXPECT_EQ(0, server_->host().stop(SIGTERM)) << server_->host().log_text();
        }
    }

    void serve(int requests)
    {
        for (int i = 0; i < requests; ++i) {
            ASSERT_EQ(200, client_->exchange(get_request("/probe/hello")).status) << i;
        }
    }

    Fault fault(Fault_Call call, int error, const std::string& path = "access.log") const
    {
        Fault result = {call, error};
        result.path = path;
        return result;
    }

    Host_Process& host() { return server_->host(); }
    Faults& faults() { return server_->faults(); }

    std::unique_ptr<Fault_Server> server_;
    std::unique_ptr<Wire_Client> client_;
};

} // namespace

TEST_F(Fault_Access_Log, that_cannot_be_written_is_told_ten_times_a_second_at_most)
{
    for (const int error : {ENOSPC, EROFS, EIO, EDQUOT}) {
        SCOPED_TRACE(error);
        this->start();
        const auto begin = std::chrono::steady_clock::now();
        this->faults().arm(this->fault(Fault_Call::WRITE, error));
        this->serve(REQUESTS);
        EXPECT_GE(this->faults().struck(), static_cast<unsigned>(REQUESTS - 1));
        this->faults().disarm();
        const auto trouble = std::chrono::steady_clock::now() - begin;
        this->serve(3);
        client_.reset();
        EXPECT_EQ(0, this->host().stop(SIGTERM));
        const size_t told = this->host().count_log("Failed to write http access log, errno=" +
                                                   std::to_string(error));
        EXPECT_GE(told, 1U);
        EXPECT_LE(told, most_lines(trouble));
        const std::vector<std::string> lines = lines_of_file(server_->access_log());
        EXPECT_GE(lines.size(), 3U);
        for (const std::string& line : lines) {
            EXPECT_TRUE(is_whole(line)) << line;
        }
    }
}

TEST_F(Fault_Access_Log, line_that_fits_in_part_leaves_nothing_behind)
{
    this->start();
    Fault none = this->fault(Fault_Call::WRITE, 0); // strikes without harm: a line is written after
    none.longest = 1000;                            // its answer
    this->faults().arm(none);
    this->serve(2);
    ASSERT_TRUE(this->faults().wait_until_struck(2));
    this->faults().disarm();
    Fault part = this->fault(Fault_Call::WRITE, 0);
    part.longest = 20;
    part.times = 1;
    this->faults().arm(part);
    const size_t full_disk = this->faults().arm(this->fault(Fault_Call::WRITE, ENOSPC));
    this->serve(2);
    ASSERT_TRUE(this->faults().wait_until_struck(2, full_disk));
    this->faults().disarm();
    this->serve(2);
    client_.reset();
    EXPECT_EQ(0, this->host().stop(SIGTERM));
    const std::vector<std::string> lines = lines_of_file(server_->access_log());
    EXPECT_EQ(4U, lines.size());
    for (const std::string& line : lines) {
        EXPECT_TRUE(is_whole(line)) << line;
    }
}

TEST_F(Fault_Access_Log, that_is_written_in_small_parts_has_every_line)
{
    this->start();
    Fault part = this->fault(Fault_Call::WRITE, 0);
    part.longest = 7;
    this->faults().arm(part);
    this->serve(50);
    this->faults().disarm();
    client_.reset();
    EXPECT_EQ(0, this->host().stop(SIGTERM));
    const std::vector<std::string> lines = lines_of_file(server_->access_log());
    EXPECT_EQ(50U, lines.size());
    for (const std::string& line : lines) {
        EXPECT_TRUE(is_whole(line)) << line;
    }
}

TEST_F(Fault_Access_Log, that_cannot_be_rotated_is_told_once_and_ends)
{
    for (const int error : {EROFS, ENOSPC, EIO, EACCES}) {
        SCOPED_TRACE(error);
        this->start({"-m", "1", "-N", "2"});
        this->faults().arm(this->fault(Fault_Call::RENAME, error));
        this->serve(REQUESTS);
        EXPECT_EQ(1U, this->faults().struck());
        this->faults().disarm();
        EXPECT_EQ("", server_->run_script());
        client_.reset();
        EXPECT_EQ(0, this->host().stop(SIGTERM));
        EXPECT_EQ(1U, this->host().count_log("Failed to rotate log"));
        EXPECT_EQ(1U, this->host().count_log(" ERROR ")) << this->host().log_text();
        EXPECT_GT(content_of(server_->access_log()).size(), 1024U); // nothing of it is lost
    }
}

TEST_F(Fault_Access_Log, that_cannot_be_opened_again_is_told_once)
{
    this->start({"-m", "1", "-N", "2"});
    this->faults().arm(this->fault(Fault_Call::OPEN, EMFILE));
    this->serve(REQUESTS);
    this->faults().disarm();
    EXPECT_EQ("", server_->run_script());
    client_.reset();
    EXPECT_EQ(0, this->host().stop(SIGTERM));
    EXPECT_EQ(1U, this->host().count_log("Failed to open http access log"));
    EXPECT_EQ(1U, this->host().count_log(" ERROR ")) << this->host().log_text();
}

TEST_F(Fault_Access_Log, copy_that_cannot_be_compressed_stays_as_it_is)
{
    const struct {
        Fault_Call call;
        int error;
        const char* path;
    } rows[] = {{Fault_Call::WRITE, ENOSPC, ".gz.tmp"},  {Fault_Call::SYNC, EIO, ".gz.tmp"},
                {Fault_Call::OPEN, EROFS, ".gz.tmp"},    {Fault_Call::RENAME, EIO, ".gz.tmp"},
                {Fault_Call::READ, EIO, "access.log.1"}, {Fault_Call::STAT, EIO, "access.log.1"}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.path + std::to_string(static_cast<int>(row.call)));
        this->start({"-m", "1", "-N", "1000", "-z"});
        this->faults().arm(this->fault(row.call, row.error, row.path));
        while (this->faults().struck() == 0) {
            this->serve(5);
        }
        EXPECT_TRUE(this->host().wait_for_log("Failed to compress rotated log"));
        this->faults().disarm();
        client_.reset();
        EXPECT_EQ(0, this->host().stop(SIGTERM));
        EXPECT_GT(content_of(server_->access_log() + ".1").size(), 1024U);
        EXPECT_FALSE(std::filesystem::exists(server_->access_log() + ".1.gz"));
        EXPECT_FALSE(std::filesystem::exists(server_->access_log() + ".1.gz.tmp"));
        EXPECT_EQ(this->host().count_log(" ERROR "),
                  this->host().count_log("Failed to compress rotated log"));
    }
}

TEST_F(Fault_Access_Log, compressor_that_cannot_start_leaves_the_copy_as_it_is)
{
    this->start({"-m", "1", "-N", "1000", "-z"});
    this->faults().arm({Fault_Call::THREAD, EAGAIN});
    while (this->faults().struck() == 0) {
        this->serve(5);
    }
    this->faults().disarm();
    EXPECT_TRUE(this->host().wait_for_log("Failed to start the compression of rotated log"));
    EXPECT_GT(content_of(server_->access_log() + ".1").size(), 1024U);
}

TEST_F(Fault_Access_Log, that_may_not_grow_does_not_end_the_process)
{
    constexpr rlim_t MOST_BYTES = 3000;
    this->start();
    rlimit before = {};
    const rlimit limit = {MOST_BYTES, RLIM_INFINITY};
    ASSERT_EQ(0, ::prlimit(this->host().pid(), RLIMIT_FSIZE, &limit, &before));
    const auto begin = std::chrono::steady_clock::now();
    this->serve(REQUESTS);
    const auto trouble = std::chrono::steady_clock::now() - begin;
    EXPECT_TRUE(this->host().is_running());
    EXPECT_TRUE(this->host().wait_for_log("Failed to write http access log, errno=27"));
    EXPECT_LE(std::filesystem::file_size(server_->access_log()), MOST_BYTES);
    ASSERT_EQ(0, ::prlimit(this->host().pid(), RLIMIT_FSIZE, &before, nullptr));
    this->serve(50);
    client_.reset();
    EXPECT_EQ(0, this->host().stop(SIGTERM));
    EXPECT_LE(this->host().count_log(" ERROR "), most_lines(trouble));
    for (const std::string& line : lines_of_file(server_->access_log())) {
        EXPECT_TRUE(is_whole(line)) << line;
    }
    EXPECT_GT(std::filesystem::file_size(server_->access_log()), MOST_BYTES);
}

// The host's own log, which its main thread writes too.
TEST_F(Fault_Access_Log, nor_does_a_log_of_the_host_that_may_not_grow)
{
    Temporary_Folder folder;
    Probe_Server::Setup setup;
    setup.host = {"--log-file", folder.path() + "/host.log"};
    const std::string address = own_loopback_address();
    Host_Process::Command command;
    command.host = setup.host;
    command.wait_until_ready = false;
    command.service = {"-p", address + ":8080"};
    Host_Process host(command);
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (content_of(folder.path() + "/host.log").find("is running") == std::string::npos &&
           std::chrono::steady_clock::now() < end) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    const rlimit limit = {1, RLIM_INFINITY};
    ASSERT_EQ(0, ::prlimit(host.pid(), RLIMIT_FSIZE, &limit, nullptr));
    EXPECT_EQ(0, host.stop(SIGTERM)); // its main thread logs that it stops
}
