#include "support/log_rotation.h"

#include "tests/support/kept_log.h"
#include "tests/support/sanitized.h"
#include "tests/support/temp_dir.h"

#include <ace/Log_Msg.h>

#include <gtest/gtest.h>

#include <cerrno>

#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <mutex>
#include <ostream>
#include <pthread.h>
#include <sstream>
#include <string>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>
#include <zlib.h>

namespace {

using Strings = std::vector<std::string>;

constexpr unsigned int ALL = static_cast<unsigned int>(-1);
constexpr int LEVEL = 1;
constexpr bool COMPRESS = true;
constexpr bool PLAIN = false;

std::string gunzip(const std::string& path)
{
    const gzFile file = gzopen(path.c_str(), "rb");
    if (file == nullptr) {
        return "none";
    }
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

/// A gate that a thread waits at until the test opens it.
class Gate {
public:
    void open()
    {
        const std::lock_guard<std::mutex> guard(mutex_);
        is_open_ = true;
        opened_.notify_all();
    }
    void wait()
    {
        std::unique_lock<std::mutex> guard(mutex_);
        opened_.wait(guard, [this] { return is_open_; });
    }

private:
    std::mutex mutex_;
    std::condition_variable opened_;
    bool is_open_ = false;
};

/// Collects the log lines of this thread and of those that inherit its log stream, in which a
/// Log_Capture does not help.
class Log_Stream {
public:
    Log_Stream() : previous_(ACE_LOG_MSG->msg_ostream()), previous_flags_(ACE_LOG_MSG->flags())
    {
        ACE_LOG_MSG->msg_ostream(&stream_);
        ACE_LOG_MSG->clr_flags(ACE_Log_Msg::STDERR);
        ACE_LOG_MSG->set_flags(ACE_Log_Msg::OSTREAM);
    }
    ~Log_Stream()
    {
        ACE_LOG_MSG->clr_flags(ACE_Log_Msg::OSTREAM);
        ACE_LOG_MSG->set_flags(previous_flags_);
        ACE_LOG_MSG->msg_ostream(previous_);
        keep_log(stream_.str());
    }
    Log_Stream(const Log_Stream&) = delete;
    Log_Stream& operator=(const Log_Stream&) = delete;

    /// Call it when no other thread logs.
    std::string text() const { return stream_.str(); }

private:
    std::ostringstream stream_;
    std::ostream* previous_;
    unsigned long previous_flags_;
};

class Log_Rotation_Test : public testing::Test {
protected:
    void TearDown() override { finish_log_compression(); }

    unsigned int count(const char* suffix = "", unsigned int max_file_number = ALL)
    {
        return find_current_log_count(log_.c_str(), max_file_number, suffix);
    }

    /// Writes `text` into the log and rotates it.
    int rotate(unsigned int number, bool compression, unsigned int max_file_number = ALL,
               std::function<void()> callback = {}, const std::string& text = "")
    {
        directory_.write("log", text.empty() ? "line " + std::to_string(number) + "\n" : text);
        return rotate_log(log_.c_str(), number, max_file_number, LEVEL, compression,
                          std::move(callback));
    }

    [[noreturn]] void rotate_in_the_current_directory()
    {
        bool good = chdir(directory_.path("").c_str()) == 0;
        directory_.write("log", "x");
        directory_.write("log.1", "x");
        good = good && find_current_log_count("log", ALL, "") == 1;
        good = good && rotate_log("log", 2, 1, LEVEL, COMPRESS, {}) == 0;
        finish_log_compression();
        std::_Exit(good && directory_.names() == Strings{"log.2.gz"} ? 0 : 1);
    }

    /// In a child: the limit is that of the whole process.
    [[noreturn]] void run_into_the_limit()
    {
        const rlimit limit = {100000, 100000};
        std::signal(SIGXFSZ, SIG_IGN);
        setrlimit(RLIMIT_FSIZE, &limit);
        const int result = rotate_log(log_.c_str(), 1, ALL, LEVEL, COMPRESS, {});
        finish_log_compression();
        const std::string line =
            "Failed to compress rotated log " + log_ + ".1, errno=27, File too large\n";
        std::_Exit(result == 0 && lines_.text() == line ? 0 : 1);
    }

    /// The first copies may be compressed by the end of the process, the others cannot.
    [[noreturn]] void rotate_sources_and_end()
    {
        for (unsigned int number = 1; number <= 5; ++number) {
            std::rename(directory_.path("source" + std::to_string(number)).c_str(), log_.c_str());
            rotate_log(log_.c_str(), number, ALL, LEVEL, COMPRESS, {});
        }
        std::exit(0);
    }

    Temp_Dir directory_;
    const std::string log_ = directory_.path("log");
    Log_Stream lines_;
};

TEST_F(Log_Rotation_Test, counts_from_0_when_there_is_no_copy)
{
    EXPECT_EQ(count(), 0U);
    directory_.write("log", "");
    EXPECT_EQ(count(), 0U);
    EXPECT_EQ(lines_.text(), "");
}

TEST_F(Log_Rotation_Test, finds_the_highest_number_of_either_kind)
{
    directory_.write("log.1", "");
    directory_.write("log.9.gz", "");
    directory_.write("log.10", "");
    for (const char* suffix : {"", ".gz"}) {
        EXPECT_EQ(count(suffix), 10U);
    }
    directory_.write("log.12.gz", "");
    for (const char* suffix : {"", ".gz"}) {
        EXPECT_EQ(count(suffix), 12U);
    }
    EXPECT_EQ(find_current_log_count(log_.c_str(), 3, nullptr), 12U);
}

TEST_F(Log_Rotation_Test, finds_copies_of_another_suffix_on_request)
{
    directory_.write("log.7.zst", "");
    EXPECT_EQ(count(".gz"), 0U);
    EXPECT_EQ(count(".zst"), 7U);
}

TEST_F(Log_Rotation_Test, finds_no_copies_in_other_names)
{
    for (const char* name : {"log.",
                             "log.x",
                             "log.5x",
                             "log.5.",
                             "log.5.gzx",
                             "log.5.bz2",
                             "log.05",
                             "log.+5",
                             "log.-5",
                             "log. 5",
                             "log.5 ",
                             "log.5.6",
                             "log5",
                             "logs.5",
                             "xlog.5",
                             "log.gz",
                             "log.5.gz.tmp",
                             "log.4294967296",
                             "log.99999999999999999999",
                             "5"}) {
        directory_.write(name, "");
    }
    EXPECT_EQ(count(), 0U);
    directory_.write("log.4294967295", "");
    EXPECT_EQ(count(), 4294967295U);
}

TEST_F(Log_Rotation_Test, looks_for_no_copies_when_none_are_kept)
{
    directory_.write("log.5", "");
    EXPECT_EQ(count("", 0), 0U);
}

TEST_F(Log_Rotation_Test, counts_from_0_and_logs_when_the_directory_cannot_be_read)
{
    EXPECT_EQ(find_current_log_count(directory_.path("none/log").c_str(), ALL, ""), 0U);
    EXPECT_EQ(lines_.text(), "Failed to look for copies of log " + directory_.path("none/log") +
                                 ", errno=2, No such file or directory\n");
    EXPECT_EQ(find_current_log_count(nullptr, ALL, ""), 0U);
    EXPECT_EQ(find_current_log_count("", ALL, ""), 0U);
}

TEST_F(Log_Rotation_Test, keeps_the_old_copies_and_logs_when_it_cannot_look_for_them)
{
    ASSERT_EQ(rotate(1, !COMPRESS), 0);
    directory_.write("log", "x");
    rlimit limit{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    const rlimit none{0, limit.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    const int result = rotate_log(log_.c_str(), 2, 1, LEVEL, !COMPRESS, {});
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    EXPECT_EQ(result, 0);
    EXPECT_EQ(directory_.names(), (Strings{"log.1", "log.2"}));
    EXPECT_EQ(lines_.text(),
              "Failed to look for old copies of log " + log_ + ", errno=24, Too many open files\n");
}

TEST_F(Log_Rotation_Test, renames_the_log_to_its_numbered_copy)
{
    EXPECT_EQ(rotate(1, PLAIN), 0);
    EXPECT_EQ(rotate(2, PLAIN), 0);
    EXPECT_EQ(directory_.names(), (Strings{"log.1", "log.2"}));
    EXPECT_EQ(directory_.read("log.1"), "line 1\n");
    EXPECT_EQ(directory_.read("log.2"), "line 2\n");
    EXPECT_EQ(count(), 2U);
}

TEST_F(Log_Rotation_Test, keeps_the_newest_copies_only)
{
    for (unsigned int number = 1; number <= 12; ++number) {
        ASSERT_EQ(rotate(number, PLAIN, 3), 0);
    }
    EXPECT_EQ(directory_.names(), (Strings{"log.10", "log.11", "log.12"}));
}

TEST_F(Log_Rotation_Test, counts_copies_and_not_numbers)
{
    directory_.write("log.2", "");
    directory_.write("log.5.gz", "");
    directory_.write("log.5", ""); // compressed, but the plain one was not removed
    directory_.write("log.30", "");
    ASSERT_EQ(rotate(31, PLAIN, 3), 0);
    EXPECT_EQ(directory_.names(), (Strings{"log.30", "log.31", "log.5", "log.5.gz"}));
}

TEST_F(Log_Rotation_Test, removes_old_copies_of_either_kind_and_what_was_half_done)
{
    directory_.write("log.1.gz", "");
    directory_.write("log.2", "");
    directory_.write("log.3.gz.tmp", "");
    directory_.write("log.3", "");
    ASSERT_EQ(rotate(4, PLAIN, 1), 0);
    EXPECT_EQ(directory_.names(), Strings{"log.4"});
}

TEST_F(Log_Rotation_Test, leaves_other_files_alone)
{
    const Strings others = {"log.0x", "log.1.bz2", "log.1.gz.old", "logs.1"};
    for (const std::string& name : others) {
        directory_.write(name, "");
    }
    ASSERT_EQ(mkdir(directory_.path("log.1").c_str(), 0700), 0);
    ASSERT_EQ(rotate(5, PLAIN, 1), 0);
    EXPECT_EQ(directory_.names(),
              (Strings{"log.0x", "log.1", "log.1.bz2", "log.1.gz.old", "log.5", "logs.1"}));
    EXPECT_EQ(lines_.text(), "");
}

TEST_F(Log_Rotation_Test, keeps_nothing_when_it_may_keep_nothing)
{
    for (const bool compression : {PLAIN, COMPRESS}) {
        EXPECT_EQ(rotate(1, compression, 0), 0);
        finish_log_compression();
        EXPECT_TRUE(directory_.names().empty());
    }
}

TEST_F(Log_Rotation_Test, works_in_the_current_directory)
{
    // In a child: the current directory is the whole process's.
    EXPECT_EXIT(rotate_in_the_current_directory(), testing::ExitedWithCode(0), "");
}

TEST_F(Log_Rotation_Test, fails_when_the_log_cannot_be_renamed)
{
    bool called = false;
    errno = 0;
    EXPECT_EQ(rotate_log(log_.c_str(), 1, 3, LEVEL, PLAIN, [&called] { called = true; }), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(lines_.text(),
              "Failed to rotate log " + log_ + ", errno=2, No such file or directory\n");
    ASSERT_EQ(mkdir((log_ + ".1").c_str(), 0700), 0);
    errno = 0;
    EXPECT_EQ(rotate(1, COMPRESS, 3, [&called] { called = true; }), -1);
    EXPECT_EQ(errno, EISDIR);
    EXPECT_EQ(directory_.read("log"), "line 1\n");
    EXPECT_FALSE(called);
}

TEST_F(Log_Rotation_Test, refuses_what_makes_no_sense)
{
    directory_.write("log", "x");
    errno = 0;
    EXPECT_EQ(rotate_log(nullptr, 1, 3, LEVEL, PLAIN, {}), -1);
    EXPECT_EQ(errno, EINVAL);
    errno = 0;
    EXPECT_EQ(rotate_log("", 1, 3, LEVEL, PLAIN, {}), -1);
    EXPECT_EQ(errno, EINVAL);
    for (const int level : {-1, 0, 10}) {
        errno = 0;
        EXPECT_EQ(rotate_log(log_.c_str(), 1, 3, level, COMPRESS, {}), -1);
        EXPECT_EQ(errno, EINVAL);
    }
    EXPECT_EQ(directory_.names(), Strings{"log"});
    EXPECT_EQ(rotate_log(log_.c_str(), 1, 3, 10, PLAIN, {}), 0);
}

TEST_F(Log_Rotation_Test, calls_back_at_once_without_compression)
{
    int calls = 0;
    std::thread::id caller;
    EXPECT_EQ(rotate(1, PLAIN, 3,
                     [&] {
                         ++calls;
                         caller = std::this_thread::get_id();
                     }),
              0);
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(caller, std::this_thread::get_id());
}

TEST_F(Log_Rotation_Test, compresses_the_copy)
{
    EXPECT_EQ(rotate(1, COMPRESS), 0);
    finish_log_compression();
    EXPECT_EQ(directory_.names(), Strings{"log.1.gz"});
    EXPECT_EQ(gunzip(directory_.path("log.1.gz")), "line 1\n");
    EXPECT_EQ(count(".gz"), 1U);
    EXPECT_EQ(lines_.text(), "");
}

TEST_F(Log_Rotation_Test, compresses_an_empty_log)
{
    directory_.write("log", "");
    EXPECT_EQ(rotate_log(log_.c_str(), 1, 3, LEVEL, COMPRESS, {}), 0);
    finish_log_compression();
    EXPECT_EQ(directory_.names(), Strings{"log.1.gz"});
    EXPECT_EQ(gunzip(directory_.path("log.1.gz")), "");
}

TEST_F(Log_Rotation_Test, calls_back_from_another_thread_when_the_compressed_copy_is_complete)
{
    Strings names;
    std::string text;
    std::thread::id caller;
    EXPECT_EQ(rotate(1, COMPRESS, 3,
                     [&] {
                         names = directory_.names();
                         text = gunzip(directory_.path("log.1.gz"));
                         caller = std::this_thread::get_id();
                     }),
              0);
    finish_log_compression();
    EXPECT_EQ(names, Strings{"log.1.gz"});
    EXPECT_EQ(text, "line 1\n");
    EXPECT_NE(caller, std::this_thread::get_id());
}

TEST_F(Log_Rotation_Test, survives_a_callback_that_throws)
{
    EXPECT_EQ(rotate(1, PLAIN, 3, [] { throw 1; }), 0);
    EXPECT_EQ(rotate(2, COMPRESS, 3, [] { throw 1; }), 0);
    EXPECT_EQ(rotate(3, COMPRESS, 3), 0);
    finish_log_compression();
    EXPECT_EQ(directory_.names(), (Strings{"log.1", "log.2.gz", "log.3.gz"}));
    const std::string line = "The callback of a log rotation threw an exception\n";
    EXPECT_EQ(lines_.text(), line + line);
}

TEST_F(Log_Rotation_Test, does_not_wait_for_the_compression)
{
    Gate gate;
    ASSERT_EQ(rotate(1, COMPRESS, ALL, [&gate] { gate.wait(); }), 0);
    // The thread is held back: these only queue.
    ASSERT_EQ(rotate(2, COMPRESS), 0);
    ASSERT_EQ(rotate(3, COMPRESS), 0);
    EXPECT_EQ(directory_.read("log.2"), "line 2\n");
    EXPECT_EQ(directory_.read("log.3"), "line 3\n");
    EXPECT_EQ(count(".gz"), 3U);
    gate.open();
    finish_log_compression();
    EXPECT_EQ(directory_.names(), (Strings{"log.1.gz", "log.2.gz", "log.3.gz"}));
    EXPECT_EQ(gunzip(directory_.path("log.3.gz")), "line 3\n");
}

TEST_F(Log_Rotation_Test, prunes_copies_that_wait_for_their_compression)
{
    Gate gate;
    int calls = 0;
    ASSERT_EQ(rotate(1, COMPRESS, 2, [&gate] { gate.wait(); }), 0);
    for (unsigned int number = 2; number <= 6; ++number) {
        ASSERT_EQ(rotate(number, COMPRESS, 2, [&calls] { ++calls; }), 0);
    }
    gate.open();
    finish_log_compression();
    EXPECT_EQ(directory_.names(), (Strings{"log.5.gz", "log.6.gz"}));
    EXPECT_EQ(calls, 5);
    EXPECT_EQ(lines_.text(), "");
}

TEST_F(Log_Rotation_Test, never_keeps_too_many_however_fast_it_rotates)
{
    const std::string text = noise(200000);
    for (unsigned int number = 1; number <= 60; ++number) {
        ASSERT_EQ(rotate(number, COMPRESS, 3, {}, text), 0);
    }
    finish_log_compression();
    EXPECT_EQ(directory_.names(), (Strings{"log.58.gz", "log.59.gz", "log.60.gz"}));
    EXPECT_EQ(gunzip(directory_.path("log.60.gz")), text);
    EXPECT_EQ(lines_.text(), "");
}

TEST_F(Log_Rotation_Test, compresses_logs_of_several_threads)
{
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([this, name = "log" + std::to_string(i)] {
            for (unsigned int number = 1; number <= 10; ++number) {
                directory_.write(name, name);
                EXPECT_EQ(rotate_log(directory_.path(name).c_str(), number, 2, LEVEL, COMPRESS, {}),
                          0);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    finish_log_compression();
    EXPECT_EQ(directory_.names(), (Strings{"log0.10.gz", "log0.9.gz", "log1.10.gz", "log1.9.gz",
                                           "log2.10.gz", "log2.9.gz", "log3.10.gz", "log3.9.gz"}));
}

TEST_F(Log_Rotation_Test, may_be_finished_by_several_threads_at_once)
{
    ASSERT_EQ(rotate(1, COMPRESS, ALL, {}, noise(1000000)), 0);
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([this] {
            finish_log_compression();
            EXPECT_EQ(directory_.names(), Strings{"log.1.gz"});
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

TEST_F(Log_Rotation_Test, starts_again_after_it_was_finished)
{
    finish_log_compression();
    for (unsigned int number = 1; number <= 3; ++number) {
        ASSERT_EQ(rotate(number, COMPRESS), 0);
        finish_log_compression();
        EXPECT_EQ(gunzip(log_ + "." + std::to_string(number) + ".gz"),
                  "line " + std::to_string(number) + "\n");
    }
}

TEST_F(Log_Rotation_Test, lets_a_callback_rotate_again)
{
    ASSERT_EQ(rotate(1, COMPRESS, ALL, [this] { EXPECT_EQ(rotate(2, COMPRESS), 0); }), 0);
    finish_log_compression();
    EXPECT_EQ(directory_.names(), (Strings{"log.1.gz", "log.2.gz"}));
}

TEST_F(Log_Rotation_Test, blocks_signals_in_its_thread_and_no_others)
{
    sigset_t before;
    sigset_t after;
    sigset_t inside;
    sigemptyset(&inside);
    pthread_sigmask(SIG_SETMASK, nullptr, &before);
    ASSERT_EQ(
        rotate(1, COMPRESS, ALL, [&inside] { pthread_sigmask(SIG_SETMASK, nullptr, &inside); }), 0);
    pthread_sigmask(SIG_SETMASK, nullptr, &after);
    finish_log_compression();
    EXPECT_EQ(sigismember(&inside, SIGTERM), 1);
    EXPECT_EQ(sigismember(&inside, SIGHUP), 1);
    EXPECT_EQ(sigismember(&after, SIGTERM), sigismember(&before, SIGTERM));
    EXPECT_EQ(sigismember(&after, SIGHUP), sigismember(&before, SIGHUP));
}

TEST_F(Log_Rotation_Test, leaves_the_plain_copy_when_there_is_no_thread_to_compress_it)
{
    pthread_attr_t before;
    pthread_attr_t huge;
    ASSERT_EQ(pthread_getattr_default_np(&before), 0);
    ASSERT_EQ(pthread_attr_init(&huge), 0);
    constexpr size_t MORE_THAN_THERE_IS = size_t{1} << 46;
    ASSERT_EQ(pthread_attr_setstacksize(&huge, MORE_THAN_THERE_IS), 0);
    ASSERT_EQ(pthread_setattr_default_np(&huge), 0);
    bool called = false;
    const int result = rotate(1, COMPRESS, ALL, [&called] { called = true; });
    EXPECT_EQ(pthread_setattr_default_np(&before), 0);
    pthread_attr_destroy(&huge);
    pthread_attr_destroy(&before);
    EXPECT_EQ(result, 0);
    EXPECT_TRUE(called);
    EXPECT_EQ(directory_.names(), Strings{"log.1"});
    EXPECT_EQ(lines_.text(), "Failed to start the compression of rotated log " + log_ +
                                 ".1, errno=11, Resource temporarily unavailable\n");
}

TEST_F(Log_Rotation_Test, leaves_the_plain_copy_when_it_cannot_be_compressed)
{
    ASSERT_EQ(mkdir((log_ + ".1.gz.tmp").c_str(), 0700), 0); // in the way
    bool called = false;
    ASSERT_EQ(rotate(1, COMPRESS, ALL, [&called] { called = true; }), 0);
    finish_log_compression();
    EXPECT_EQ(directory_.read("log.1"), "line 1\n");
    EXPECT_EQ(directory_.names(), (Strings{"log.1", "log.1.gz.tmp"}));
    EXPECT_TRUE(called);
    EXPECT_EQ(lines_.text(),
              "Failed to compress rotated log " + log_ + ".1, errno=21, Is a directory\n");
}

TEST_F(Log_Rotation_Test, leaves_the_plain_copy_when_the_compressed_one_cannot_have_its_name)
{
    ASSERT_EQ(mkdir((log_ + ".1.gz").c_str(), 0700), 0);
    ASSERT_EQ(rotate(1, COMPRESS), 0);
    finish_log_compression();
    EXPECT_EQ(directory_.names(), (Strings{"log.1", "log.1.gz"}));
    EXPECT_EQ(directory_.read("log.1"), "line 1\n");
    EXPECT_EQ(lines_.text(),
              "Failed to compress rotated log " + log_ + ".1, errno=21, Is a directory\n");
}

TEST_F(Log_Rotation_Test, leaves_the_plain_copy_and_nothing_half_done_when_the_disk_is_full)
{
    const std::string text = noise(1000000);
    directory_.write("log", text);
    EXPECT_EXIT(run_into_the_limit(), testing::ExitedWithCode(0), "");
    EXPECT_EQ(directory_.names(), Strings{"log.1"});
    EXPECT_EQ(directory_.read("log.1"), text);
}

TEST_F(Log_Rotation_Test, leaves_plain_or_complete_copies_when_the_process_ends)
{
    const std::string text = noise(3000000);
    for (unsigned int number = 1; number <= 5; ++number) {
        directory_.write("source" + std::to_string(number), text);
    }
    EXPECT_EXIT(rotate_sources_and_end(), testing::ExitedWithCode(0), "");
    const Strings names = directory_.names();
    EXPECT_EQ(names.size(), 5U);
    for (const std::string& name : names) {
        const bool compressed = name.ends_with(".gz");
        EXPECT_TRUE(compressed || name.size() == 5) << name;
        EXPECT_EQ((compressed ? gunzip(directory_.path(name)) : directory_.read(name)) == text,
                  true)
            << name;
    }
}

TEST_F(Log_Rotation_Test, ends_with_a_forked_process_that_has_no_thread)
{
#if defined(HTTPD_TEST_SANITIZED)
    GTEST_SKIP() << "a leak check in the child takes for leaked what its parent's threads hold";
#endif
    Gate gate;
    ASSERT_EQ(rotate(1, COMPRESS, ALL, [&gate] { gate.wait(); }), 0);
    std::fflush(nullptr); // or the child writes it again
    const pid_t child = fork();
    if (child == 0) {
        std::exit(0);
    }
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    gate.open();
    finish_log_compression();
    EXPECT_EQ(directory_.names(), Strings{"log.1.gz"});
}

} // namespace
