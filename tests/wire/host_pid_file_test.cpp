// The host's PID file: who may have it, and what becomes of it.

#include "tests/support/host_run.h"
#include "tests/support/log_lines.h"

#include <gtest/gtest.h>

#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>

namespace {

using Words = std::vector<std::string>;

std::unique_ptr<Host_Process> start_with(const std::string& pid_file)
{
    Host_Process::Command command;
    command.host = {"--pid-file", pid_file};
    command.service = {"-t", "1"};
    auto host = std::make_unique<Host_Process>(command);
    EXPECT_TRUE(host->wait_for_log(" is running as process ")) << host->log_text();
    return host;
}

Host_Run refused(const std::string& pid_file, const Words& wrapper = {})
{
    return run_host({"--pid-file", pid_file}, {"-t", "1"}, wrapper);
}

std::string first_line(const std::string& path)
{
    std::string line;
    std::getline(std::ifstream(path), line);
    return line;
}

} // namespace

TEST(Host_PID_File, holds_the_number_while_the_host_runs)
{
    const Temporary_Folder folder;
    const std::string path = folder.write("pid", "99999999 of one that died\n");
    const auto host = start_with(path);
    EXPECT_EQ(std::to_string(host->pid()), first_line(path));
    EXPECT_EQ(0, host->stop(SIGTERM));
    EXPECT_FALSE(std::filesystem::exists(path));
}

TEST(Host_PID_File, second_host_is_refused_and_the_first_keeps_it)
{
    const Temporary_Folder folder;
    const std::string path = folder.path() + "/pid";
    const auto host = start_with(path);
    const std::string number = std::to_string(host->pid());
    const Host_Run second = refused(path);
    EXPECT_EQ(1, second.status);
    EXPECT_EQ(Words{"PID file " + path + " is in use by process " + number}, second.refusal);
    EXPECT_EQ(number, first_line(path));
    EXPECT_EQ(0, host->stop(SIGTERM));
}

TEST(Host_PID_File, holder_without_a_number_is_another_process)
{
    const Temporary_Folder folder;
    const std::string path = folder.write("pid", "");
    const int file = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_EQ(0, ::flock(file, LOCK_EX));
    EXPECT_EQ(Words{"PID file " + path + " is in use by another process"}, refused(path).refusal);
    ::close(file);
}

TEST(Host_PID_File, that_was_replaced_is_left_alone_at_the_end)
{
    const Temporary_Folder folder;
    const std::string path = folder.path() + "/pid";
    const auto host = start_with(path);
    std::filesystem::remove(path);
    folder.write("pid", "somebody else\n");
    EXPECT_EQ(0, host->stop(SIGTERM));
    EXPECT_EQ("somebody else", first_line(path));
}

TEST(Host_PID_File, that_cannot_be_one_is_told)
{
    const Temporary_Folder folder;
    const std::string pipe = folder.path() + "/pipe";
    ASSERT_EQ(0, ::mkfifo(pipe.c_str(), 0600));
    const std::string link = folder.path() + "/link";
    std::filesystem::create_symlink(folder.path() + "/elsewhere", link);
    const std::string lost = folder.path() + "/no-such-folder/pid";
    const struct {
        std::string path;
        std::string error;
    } rows[] = {
        {pipe, "PID file " + pipe + " is not a regular file"},
        {folder.path(), "cannot open PID file " + folder.path() + ": Is a directory"},
        {lost, "cannot open PID file " + lost + ": No such file or directory"},
        {link, "cannot open PID file " + link + ": Too many levels of symbolic links"},
    };
    for (const auto& row : rows) {
        const Host_Run run = refused(row.path);
        EXPECT_EQ(1, run.status);
        EXPECT_EQ(Words{row.error}, run.refusal);
    }
}

TEST(Host_PID_File, that_cannot_be_written_ends_the_host)
{
    const Temporary_Folder folder;
    const std::string path = folder.path() + "/pid";
    const Host_Run run = refused(path, {"env", "--ignore-signal=XFSZ", "prlimit", "--fsize=0"});
    EXPECT_EQ(1, run.status);
    EXPECT_EQ(Words{"cannot write PID file " + path + ": File too large"}, run.refusal);
    EXPECT_FALSE(std::filesystem::exists(path));
}
