#include "support/gzip_file.h"

#include "tests/support/temp_dir.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <string>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>
#include <zlib.h>

namespace {

const std::atomic<bool> GO_ON{false};
const std::atomic<bool> CANCELLED{true};

/// The text of a gzip file; "broken" when it does not end as one.
std::string gunzip(const std::string& path)
{
    const gzFile file = gzopen(path.c_str(), "rb");
    std::string text;
    char block[4096];
    int count = 0;
    while ((count = gzread(file, block, sizeof block)) > 0) {
        text.append(block, static_cast<size_t>(count));
    }
    const bool is_gzip = gzdirect(file) == 0;
    return gzclose(file) == Z_OK && count == 0 && is_gzip ? text : "broken";
}

/// Text that does not shrink much.
std::string noise(size_t length)
{
    std::string text(length, '\0');
    unsigned int state = 1;
    for (char& c : text) {
        state = state * 1664525U + 1013904223U;
        c = static_cast<char>(state >> 24U);
    }
    return text;
}

TEST(gzip_file, keeps_the_content)
{
    const Temp_Dir directory;
    const std::string target = directory.path("f.gz");
    for (const size_t length : {0U, 1U, 65535U, 65536U, 65537U, 1000000U}) {
        for (const int level : {1, 6, 9}) {
            const std::string content = noise(length);
            ASSERT_EQ(
                gzip_file(directory.write("f", content).c_str(), target.c_str(), level, GO_ON), 0);
            EXPECT_EQ(gunzip(target), content) << length;
        }
    }
}

TEST(gzip_file, makes_a_log_smaller)
{
    const Temp_Dir directory;
    std::string content;
    for (int i = 0; i < 10000; ++i) {
        content +=
            "2024-05-06 07:08:09.123456@192.0.2.7@0.004512@GET /status HTTP/1.1 200 0 1536\n";
    }
    const std::string target = directory.path("f.gz");
    ASSERT_EQ(gzip_file(directory.write("f", content).c_str(), target.c_str(), 1, GO_ON), 0);
    EXPECT_LT(directory.read("f.gz").size(), content.size() / 20);
    EXPECT_EQ(gunzip(target), content);
}

TEST(gzip_file, keeps_permissions_and_time)
{
    const Temp_Dir directory;
    const std::string source = directory.write("f", "text");
    const std::string target = directory.path("f.gz");
    ASSERT_EQ(chmod(source.c_str(), 0604), 0);
    const timespec times[] = {{1000, 0}, {1234567890, 5}};
    ASSERT_EQ(utimensat(AT_FDCWD, source.c_str(), times, 0), 0);
    ASSERT_EQ(gzip_file(source.c_str(), target.c_str(), 1, GO_ON), 0);
    struct stat status {};
    ASSERT_EQ(stat(target.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777U, 0604U);
    EXPECT_EQ(status.st_mtim.tv_sec, 1234567890);
}

TEST(gzip_file, replaces_what_an_interrupted_run_left)
{
    const Temp_Dir directory;
    const std::string target = directory.write("f.gz", "half done");
    ASSERT_EQ(gzip_file(directory.write("f", "text").c_str(), target.c_str(), 1, GO_ON), 0);
    EXPECT_EQ(gunzip(target), "text");
}

TEST(gzip_file, does_not_write_through_a_link)
{
    const Temp_Dir directory;
    const std::string victim = directory.write("victim", "keep");
    const std::string target = directory.path("f.gz");
    ASSERT_EQ(symlink(victim.c_str(), target.c_str()), 0);
    ASSERT_EQ(gzip_file(directory.write("f", "text").c_str(), target.c_str(), 1, GO_ON), 0);
    EXPECT_EQ(directory.read("victim"), "keep");
    EXPECT_EQ(gunzip(target), "text");
}

TEST(gzip_file, leaves_nothing_when_it_is_cancelled)
{
    const Temp_Dir directory;
    errno = 0;
    EXPECT_EQ(gzip_file(directory.write("f", "text").c_str(), directory.path("f.gz").c_str(), 1,
                        CANCELLED),
              -1);
    EXPECT_EQ(errno, ECANCELED);
    EXPECT_EQ(directory.names(), std::vector<std::string>{"f"});
}

TEST(gzip_file, says_why_it_failed)
{
    const Temp_Dir directory;
    const std::string target = directory.path("f.gz");
    errno = 0;
    EXPECT_EQ(gzip_file(directory.path("missing").c_str(), target.c_str(), 1, GO_ON), -1);
    EXPECT_EQ(errno, ENOENT);
    ASSERT_EQ(mkfifo(directory.path("fifo").c_str(), 0600), 0);
    EXPECT_EQ(gzip_file(directory.path("fifo").c_str(), target.c_str(), 1, GO_ON), -1);
    EXPECT_EQ(errno, EINVAL);
    const std::string source = directory.write("f", "text");
    EXPECT_EQ(gzip_file(source.c_str(), directory.path("none/f.gz").c_str(), 1, GO_ON), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(directory.names(), (std::vector<std::string>{"f", "fifo"}));
    ASSERT_EQ(mkdir(target.c_str(), 0700), 0);
    EXPECT_EQ(gzip_file(source.c_str(), target.c_str(), 1, GO_ON), -1);
    EXPECT_EQ(errno, EISDIR);
}

/// Compresses more than may be written; exits with 0 when all is as it should be.
[[noreturn]] void run_into_the_limit(const Temp_Dir& directory, const std::string& source)
{
    const rlimit limit = {100000, 100000};
    std::signal(SIGXFSZ, SIG_IGN);
    setrlimit(RLIMIT_FSIZE, &limit);
    const int result = gzip_file(source.c_str(), directory.path("f.gz").c_str(), 1, GO_ON);
    const bool good =
        result == -1 && errno == EFBIG && directory.names() == std::vector<std::string>{"f"};
    std::_Exit(good ? 0 : 1);
}

TEST(gzip_file, leaves_nothing_when_it_cannot_write_everything)
{
    const Temp_Dir directory;
    const std::string content = noise(1000000);
    const std::string source = directory.write("f", content);
    EXPECT_EXIT(run_into_the_limit(directory, source), testing::ExitedWithCode(0), "");
    EXPECT_EQ(directory.read("f"), content);
}

} // namespace
