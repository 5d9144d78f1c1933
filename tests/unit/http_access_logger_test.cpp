#include "httpd/http_access_logger.h"

#include "support/http_message.h"
#include "support/log_rotation.h"
#include "tests/support/log_capture.h"

#include <ace/INET_Addr.h>
#include <ace/Time_Value.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

namespace {

constexpr unsigned int ALL_COPIES = UINT_MAX;

/// A request and its answer, as the logger is told of them.
struct Entry {
    ACE_Time_Value start{1'714'979'289, 118'944};
    ACE_Time_Value end{1'714'979'289, 123'456};
    std::string peer = "192.0.2.7";
    const char* method = "GET";
    std::string target = "/status";
    int minor_version = 1;
    int status = 200;
    unsigned long received = 0;
    unsigned long sent = 1536;
};

ACE_INET_Addr address_of(const std::string& host)
{
    return ACE_INET_Addr(static_cast<unsigned short>(4711), host.c_str(), AF_UNSPEC);
}

int log_entry(HTTP_Access_Logger_Impl& logger, const Entry& entry = {})
{
    HTTP_Request request;
    EXPECT_EQ(request.request_line(entry.method, entry.target), 0);
    request.minor_version(entry.minor_version);
    HTTP_Response response;
    response.status(entry.status);
    return logger.log(entry.start, entry.end, address_of(entry.peer), request, response,
                      entry.received, entry.sent);
}

/// The line, written by the C library from the formats that it must agree with.
std::string formatted(const Entry& entry)
{
    const time_t second = entry.end.sec();
    tm local{};
    ::localtime_r(&second, &local);
    char time[64];
    std::snprintf(time, sizeof(time), "%4.4d-%2.2d-%2.2d %2.2d:%2.2d:%2.2d.%06ld@",
                  local.tm_year + 1900, local.tm_mon + 1, local.tm_mday, local.tm_hour,
                  local.tm_min, local.tm_sec, static_cast<long>(entry.end.usec()));
    const ACE_Time_Value took = entry.end - entry.start;
    char duration[64];
    std::snprintf(duration, sizeof(duration), "@%lu.%06ld@", static_cast<unsigned long>(took.sec()),
                  static_cast<long>(took.usec()));
    char numbers[128];
    std::snprintf(numbers, sizeof(numbers), "%d %d %lu %lu\n", entry.minor_version, entry.status,
                  entry.received, entry.sent);
    const std::string path = entry.target.substr(0, entry.target.find('?'));
    return time + entry.peer + duration + entry.method + " " + path + " HTTP/1." + numbers;
}

std::string content_of(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

/// What a compressed copy holds.
std::string unpacked(const std::string& path)
{
    const gzFile file = ::gzopen(path.c_str(), "rb");
    if (file == nullptr) {
        ADD_FAILURE() << "cannot open " << path;
        return "";
    }
    std::string text;
    char buffer[8192];
    for (int length = 0; (length = ::gzread(file, buffer, sizeof(buffer))) > 0;) {
        text.append(buffer, static_cast<size_t>(length));
    }
    EXPECT_EQ(::gzclose(file), Z_OK);
    return text;
}

class HTTP_Access_Logger_Test : public testing::Test {
protected:
    HTTP_Access_Logger_Test() { EXPECT_NE(::mkdtemp(directory_), nullptr); }

    ~HTTP_Access_Logger_Test() override
    {
        finish_log_compression();
        std::filesystem::remove_all(directory_);
    }

    std::string path(const std::string& suffix = "") const
    {
        return std::string(directory_) + "/access.log" + suffix;
    }

    int open(unsigned int copies = ALL_COPIES, long max_size = 0, bool compression = false)
    {
        return logger_.open(path().c_str(), copies, max_size, compression);
    }

    /// The names in the directory behind "access.log".
    std::set<std::string> files() const
    {
        std::set<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(directory_)) {
            names.insert(entry.path().filename().string().substr(10));
        }
        return names;
    }

    using Names = std::set<std::string>;

    const Log_Capture log_;
    HTTP_Access_Logger_Impl logger_;
    char directory_[32] = "/tmp/access_logger_XXXXXX";
};

/// Lowers a limit of the process while it lives.
class Lower_Limit {
public:
    Lower_Limit(__rlimit_resource resource, rlim_t limit) : resource_(resource)
    {
        EXPECT_EQ(::getrlimit(resource_, &previous_), 0);
        rlimit lower = previous_;
        lower.rlim_cur = limit;
        EXPECT_EQ(::setrlimit(resource_, &lower), 0);
    }
    ~Lower_Limit() { EXPECT_EQ(::setrlimit(resource_, &previous_), 0); }

private:
    __rlimit_resource resource_;
    rlimit previous_{};
};

const std::string LINE = formatted({});
const long LINE_SIZE = static_cast<long>(LINE.size());

} // namespace

TEST_F(HTTP_Access_Logger_Test, open_needs_a_path)
{
    for (const char* path : {static_cast<const char*>(nullptr), ""}) {
        const Log_Capture log;
        EXPECT_EQ(logger_.open(path, 0, 0, false), -1);
        EXPECT_FALSE(logger_.is_open());
        const std::vector<std::string> lines = log.texts(LM_EMERGENCY);
        ASSERT_EQ(lines.size(), 1U);
        EXPECT_EQ(lines[0].find("Unexpected error in httpd/http_access_logger.cpp:"), 0U);
        EXPECT_NE(lines[0].find(", path is NULL or \"\":\n"), std::string::npos);
        EXPECT_EQ(lines[0].back(), '\n');
    }
}

TEST_F(HTTP_Access_Logger_Test, a_file_that_cannot_be_opened_is_reported)
{
    const std::string path = std::string(directory_) + "/none/access.log";
    EXPECT_EQ(logger_.open(path.c_str(), 0, 0, false), -1);
    EXPECT_FALSE(logger_.is_open());
    EXPECT_EQ(log_.texts(LM_ERROR),
              std::vector<std::string>{"Failed to open http access log '" + path +
                                       "' for writing, errno=2, No such file or directory\n"});
    EXPECT_EQ(log_entry(logger_), -1);
    EXPECT_EQ(log_.lines().size(), 1U);
}

TEST_F(HTTP_Access_Logger_Test, without_an_open_file_nothing_is_logged)
{
    EXPECT_FALSE(logger_.is_open());
    EXPECT_EQ(log_entry(logger_), -1);
    EXPECT_TRUE(log_.lines().empty());
}

TEST_F(HTTP_Access_Logger_Test, a_new_file_is_for_its_owner_only)
{
    const mode_t mask = ::umask(022);
    EXPECT_EQ(open(), 0);
    ::umask(mask);
    EXPECT_TRUE(logger_.is_open());
    struct stat info;
    ASSERT_EQ(::stat(path().c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 07777U, 0600U);
}

TEST_F(HTTP_Access_Logger_Test, an_existing_file_is_continued)
{
    std::ofstream(path()) << "earlier\n";
    ASSERT_EQ(open(), 0);
    EXPECT_EQ(log_entry(logger_), 0);
    EXPECT_EQ(content_of(path()), "earlier\n" + LINE);
}

TEST_F(HTTP_Access_Logger_Test, a_second_open_takes_the_place_of_the_first)
{
    ASSERT_EQ(open(), 0);
    ASSERT_EQ(logger_.open(path(".other").c_str(), 0, 0, false), 0);
    EXPECT_EQ(log_entry(logger_), 0);
    EXPECT_EQ(content_of(path()), "");
    EXPECT_EQ(content_of(path(".other")), LINE);
    EXPECT_EQ(logger_.open((path() + "/none").c_str(), 0, 0, false), -1);
    EXPECT_FALSE(logger_.is_open());
    EXPECT_EQ(log_entry(logger_), -1);
    EXPECT_EQ(content_of(path(".other")), LINE);
}

TEST_F(HTTP_Access_Logger_Test, a_line_reads_as_laid_down)
{
    ASSERT_EQ(open(), 0);
    EXPECT_EQ(log_entry(logger_), 0);
    const std::string line = content_of(path());
    // The date and the hour depend on where the test runs.
    EXPECT_EQ(line.substr(0, 8), "2024-05-");
    EXPECT_EQ(line.substr(16), ":09.123456@192.0.2.7@0.004512@GET /status HTTP/1.1 200 0 1536\n");
}

TEST_F(HTTP_Access_Logger_Test, a_line_has_the_bytes_that_printf_would_give)
{
    std::vector<Entry> entries(1);
    for (const int usec : {0, 1, 9, 10, 99'999, 100'000, 999'999}) {
        for (const time_t second : {time_t{1}, time_t{951'827'696}, time_t{1'714'979'289},
                                    time_t{1'714'979'290}, time_t{253'370'764'800}}) {
            Entry& entry = entries.emplace_back();
            entry.start.set(second - second % 1000, usec / 2);
            entry.end.set(second, usec);
        }
    }
    for (const time_t seconds : {time_t{0}, time_t{1}, time_t{9}, time_t{10}, time_t{100'000}}) {
        entries.emplace_back().start = ACE_Time_Value(1'714'979'289 - seconds, 123'456);
    }
    for (const char* peer : {"0.0.0.0", "255.255.255.255", "10.0.0.1", "::1", "2001:db8::7",
                             "2001:db8:1111:2222:3333:4444:5555:6666", "::"}) {
        entries.emplace_back().peer = peer;
    }
    for (const char* method : {"GET", "HEAD", "POST", "OPTIONS", "CONNECT", "DELETE"}) {
        entries.emplace_back().method = method;
    }
    entries.emplace_back().target = "/";
    entries.emplace_back().target = "/a/b?c=d&e=/f";
    entries.emplace_back().target = "/with%20blank";
    entries.emplace_back().target = "/%20@x@";
    entries.emplace_back().target = "/" + std::string(8000, 'x');
    for (const int minor : {0, 1, 9, INT_MAX, INT_MIN}) {
        entries.emplace_back().minor_version = minor;
    }
    for (const int status : {100, 101, 404, 999}) {
        entries.emplace_back().status = status;
    }
    for (const unsigned long size : {0UL, 1UL, 4'294'967'296UL, ULONG_MAX}) {
        Entry& entry = entries.emplace_back();
        entry.received = size;
        entry.sent = size;
    }
    for (const Entry& entry : entries) {
        SCOPED_TRACE(formatted(entry));
        ASSERT_EQ(open(0), 0);
        EXPECT_EQ(log_entry(logger_, entry), 0);
        EXPECT_EQ(content_of(path()), formatted(entry));
        std::filesystem::resize_file(path(), 0);
    }
    EXPECT_TRUE(log_.lines().empty());
}

TEST_F(HTTP_Access_Logger_Test, every_length_at_its_longest_fits)
{
    Entry entry;
    entry.start = ACE_Time_Value::zero;
    entry.end.set(253'402'300'799 + 200 * 86'400, 999'999); // in the year 10000
    entry.peer = "1111:2222:3333:4444:5555:6666:7777:8888";
    entry.minor_version = INT_MIN;
    entry.status = 999;
    entry.received = ULONG_MAX;
    entry.sent = ULONG_MAX;
    ASSERT_EQ(open(), 0);
    EXPECT_EQ(log_entry(logger_, entry), 0);
    EXPECT_EQ(content_of(path()), formatted(entry));
}

TEST_F(HTTP_Access_Logger_Test, a_method_that_is_not_in_the_table_shows_as_a_dash)
{
    Entry entry;
    entry.method = "PATCH";
    ASSERT_EQ(open(), 0);
    EXPECT_EQ(log_entry(logger_, entry), 0);
    entry.method = "-";
    EXPECT_EQ(content_of(path()), formatted(entry));
}

TEST_F(HTTP_Access_Logger_Test, an_ipv4_peer_of_a_dual_stack_listener_shows_as_plain_ipv4)
{
    Entry entry;
    entry.peer = "::ffff:192.0.2.7";
    ASSERT_EQ(open(), 0);
    EXPECT_EQ(log_entry(logger_, entry), 0);
    EXPECT_EQ(content_of(path()), LINE);
}

TEST_F(HTTP_Access_Logger_Test, a_connection_without_an_internet_peer_shows_the_default_address)
{
    ASSERT_EQ(open(), 0);
    const Entry entry;
    HTTP_Request request(HTTP_METHOD_GET, "/status");
    const HTTP_Response response;
    EXPECT_EQ(logger_.log(entry.start, entry.end, ACE_INET_Addr(), request, response, 0, 1536), 0);
    Entry expected;
    expected.peer = "::";
    EXPECT_EQ(content_of(path()), formatted(expected));
}

TEST_F(HTTP_Access_Logger_Test, a_clock_set_back_gives_a_duration_of_zero)
{
    ASSERT_EQ(open(), 0);
    for (const ACE_Time_Value& back : {ACE_Time_Value(0, 1), ACE_Time_Value(3600, 500'000)}) {
        Entry entry;
        entry.start = entry.end + back;
        EXPECT_EQ(log_entry(logger_, entry), 0);
    }
    Entry expected;
    expected.start = expected.end;
    EXPECT_EQ(content_of(path()), formatted(expected) + formatted(expected));
}

TEST_F(HTTP_Access_Logger_Test, without_a_limit_the_file_grows)
{
    ASSERT_EQ(open(3, 0), 0);
    for (int i = 0; i < 100; ++i) {
        ASSERT_EQ(log_entry(logger_), 0);
    }
    EXPECT_EQ(files(), Names{""});
    EXPECT_EQ(content_of(path()).size(), 100 * LINE.size());
}

TEST_F(HTTP_Access_Logger_Test, the_line_that_passes_the_limit_is_the_last_before_a_rotation)
{
    ASSERT_EQ(open(ALL_COPIES, 2 * LINE_SIZE), 0);
    EXPECT_EQ(log_entry(logger_), 0);
    EXPECT_EQ(log_entry(logger_), 0); // at the limit, not above it
    EXPECT_EQ(files(), Names{""});
    EXPECT_EQ(log_entry(logger_), 0);
    EXPECT_EQ(files(), (Names{"", ".1"}));
    EXPECT_EQ(content_of(path()), "");
    EXPECT_EQ(content_of(path(".1")), LINE + LINE + LINE);
    EXPECT_EQ(log_entry(logger_), 0);
    EXPECT_EQ(content_of(path()), LINE);
}

TEST_F(HTTP_Access_Logger_Test, a_reopened_file_counts_from_its_end)
{
    ASSERT_EQ(open(ALL_COPIES, 2 * LINE_SIZE), 0);
    EXPECT_EQ(log_entry(logger_), 0);
    EXPECT_EQ(log_entry(logger_), 0);
    ASSERT_EQ(open(ALL_COPIES, 2 * LINE_SIZE), 0);
    EXPECT_EQ(files(), Names{""});
    EXPECT_EQ(log_entry(logger_), 0);
    EXPECT_EQ(content_of(path(".1")), LINE + LINE + LINE);
}

TEST_F(HTTP_Access_Logger_Test, a_file_above_the_limit_is_rotated_after_the_next_line_only)
{
    std::ofstream(path()) << std::string(1000, 'x');
    ASSERT_EQ(open(ALL_COPIES, 500), 0);
    EXPECT_EQ(files(), Names{""});
    EXPECT_EQ(log_entry(logger_), 0);
    EXPECT_EQ(content_of(path(".1")), std::string(1000, 'x') + LINE);
    EXPECT_EQ(content_of(path()), "");
}

TEST_F(HTTP_Access_Logger_Test, only_the_newest_copies_are_kept)
{
    ASSERT_EQ(open(2, 1), 0);
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(log_entry(logger_), 0);
    }
    EXPECT_EQ(files(), (Names{"", ".4", ".5"}));
}

TEST_F(HTTP_Access_Logger_Test, numbers_continue_after_a_restart)
{
    ASSERT_EQ(open(2, 1), 0);
    EXPECT_EQ(log_entry(logger_), 0);
    EXPECT_EQ(log_entry(logger_), 0);
    ASSERT_EQ(open(2, 1), 0);
    EXPECT_EQ(log_entry(logger_), 0);
    EXPECT_EQ(files(), (Names{"", ".2", ".3"}));
}

TEST_F(HTTP_Access_Logger_Test, copies_are_compressed_when_asked_for)
{
    ASSERT_EQ(open(2, LINE_SIZE, true), 0);
    for (int i = 0; i < 6; ++i) {
        EXPECT_EQ(log_entry(logger_), 0);
    }
    finish_log_compression();
    EXPECT_EQ(files(), (Names{"", ".2.gz", ".3.gz"}));
    EXPECT_EQ(unpacked(path(".2.gz")), LINE + LINE);
    EXPECT_EQ(unpacked(path(".3.gz")), LINE + LINE);
}

TEST_F(HTTP_Access_Logger_Test, with_no_copies_to_keep_the_file_is_emptied_and_restarted)
{
    ASSERT_EQ(open(0, LINE_SIZE), 0);
    EXPECT_EQ(log_entry(logger_), 0);
    EXPECT_EQ(content_of(path()), LINE);
    EXPECT_EQ(log_entry(logger_), 0);
    EXPECT_EQ(content_of(path()), "");
    EXPECT_EQ(log_entry(logger_), 0);
    EXPECT_EQ(content_of(path()), LINE);
    EXPECT_EQ(files(), Names{""});
}

TEST_F(HTTP_Access_Logger_Test, a_file_that_someone_else_has_cut_is_not_rotated_early)
{
    ASSERT_EQ(open(ALL_COPIES, 2 * LINE_SIZE), 0);
    EXPECT_EQ(log_entry(logger_), 0);
    EXPECT_EQ(log_entry(logger_), 0);
    std::filesystem::resize_file(path(), 0);
    EXPECT_EQ(log_entry(logger_), 0);
    EXPECT_EQ(log_entry(logger_), 0);
    EXPECT_EQ(files(), Names{""});
    EXPECT_EQ(content_of(path()), LINE + LINE);
    EXPECT_EQ(log_entry(logger_), 0);
    EXPECT_EQ(files(), (Names{"", ".1"}));
}

TEST_F(HTTP_Access_Logger_Test, a_device_is_never_rotated)
{
    ASSERT_EQ(logger_.open("/dev/null", 3, 1, false), 0);
    EXPECT_EQ(log_entry(logger_), 0);
    EXPECT_EQ(log_entry(logger_), 0);
    EXPECT_FALSE(std::filesystem::exists("/dev/null.1"));
    EXPECT_TRUE(log_.lines().empty());
}

TEST_F(HTTP_Access_Logger_Test, each_failed_write_is_reported)
{
    ASSERT_EQ(logger_.open("/dev/full", 3, 1, false), 0);
    errno = 0;
    EXPECT_EQ(log_entry(logger_), -1);
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_EQ(log_entry(logger_), -1);
    const std::string line = "Failed to write http access log, errno=28, No space left on device\n";
    EXPECT_EQ(log_.texts(LM_ERROR), (std::vector<std::string>{line, line}));
    EXPECT_TRUE(logger_.is_open());
}

TEST_F(HTTP_Access_Logger_Test, a_line_that_fits_in_part_only_leaves_nothing_behind)
{
    struct sigaction ignore {};
    struct sigaction previous {};
    ignore.sa_handler = SIG_IGN;
    ASSERT_EQ(::sigaction(SIGXFSZ, &ignore, &previous), 0);
    ASSERT_EQ(open(ALL_COPIES, 3 * LINE_SIZE), 0);
    EXPECT_EQ(log_entry(logger_), 0);
    {
        const Lower_Limit limit(RLIMIT_FSIZE, static_cast<rlim_t>(LINE_SIZE + 10));
        EXPECT_EQ(log_entry(logger_), -1);
        EXPECT_EQ(errno, EFBIG);
    }
    ::sigaction(SIGXFSZ, &previous, nullptr);
    EXPECT_EQ(
        log_.texts(LM_ERROR),
        std::vector<std::string>{"Failed to write http access log, errno=27, File too large\n"});
    EXPECT_EQ(content_of(path()), LINE);
    EXPECT_EQ(log_entry(logger_), 0);
    EXPECT_EQ(log_entry(logger_), 0);
    EXPECT_EQ(content_of(path()), LINE + LINE + LINE);
    EXPECT_EQ(log_entry(logger_), 0);
    EXPECT_EQ(files(), (Names{"", ".1"}));
}

TEST_F(HTTP_Access_Logger_Test, after_a_failed_rotation_it_stays_closed)
{
    ASSERT_EQ(open(3, LINE_SIZE), 0);
    EXPECT_EQ(log_entry(logger_), 0);
    ASSERT_EQ(::unlink(path().c_str()), 0); // there is nothing to rename then
    EXPECT_EQ(log_entry(logger_), -1);
    EXPECT_FALSE(logger_.is_open());
    EXPECT_EQ(files(), Names{});
    const size_t lines = log_.lines().size();
    EXPECT_EQ(log_entry(logger_), -1);
    EXPECT_EQ(log_.lines().size(), lines);
    ASSERT_EQ(open(), 0);
    EXPECT_EQ(log_entry(logger_), 0);
    EXPECT_EQ(content_of(path()), LINE);
}

TEST_F(HTTP_Access_Logger_Test, a_file_that_cannot_be_opened_anew_after_a_rotation_is_reported)
{
    ASSERT_EQ(open(ALL_COPIES, 1), 0);
    {
        const Lower_Limit no_descriptors(RLIMIT_NOFILE, 0);
        EXPECT_EQ(log_entry(logger_), -1);
    }
    EXPECT_FALSE(logger_.is_open());
    EXPECT_EQ(log_.count(LM_ERROR, "Failed to open http access log '" + path() +
                                       "' for writing, errno=24, Too many open files\n"),
              1U);
    EXPECT_EQ(content_of(path(".1")), LINE);
}

TEST_F(HTTP_Access_Logger_Test, the_instance_is_fresh_after_it_was_closed)
{
    HTTP_Access_Logger_Impl::close_instance();
    HTTP_Access_Logger_Impl* const logger = HTTP_Access_Logger_Impl::instance();
    ASSERT_NE(logger, nullptr);
    EXPECT_EQ(HTTP_Access_Logger_Impl::instance(), logger);
    ASSERT_EQ(logger->open(path().c_str(), 0, 0, false), 0);
    EXPECT_TRUE(logger->is_open());
    HTTP_Access_Logger_Impl::close_instance();
    EXPECT_FALSE(HTTP_Access_Logger_Impl::instance()->is_open());
    HTTP_Access_Logger_Impl::close_instance();
    HTTP_Access_Logger_Impl::close_instance();
}

namespace {

constexpr int WRITERS = 8;
constexpr int LINES_EACH = 500;

Entry entry_of(int writer, int number)
{
    Entry entry;
    entry.end.set(1'714'979'289 + number / 100, writer);
    entry.start = entry.end - ACE_Time_Value(writer, number);
    entry.peer = "10.0.0." + std::to_string(writer);
    entry.target = "/" + std::to_string(number) + "/" +
                   std::string(static_cast<size_t>(number % 97), static_cast<char>('a' + writer));
    entry.received = static_cast<unsigned long>(number);
    entry.sent = static_cast<unsigned long>(writer);
    return entry;
}

/// Takes each expected line out; what is left on either side was lost, torn or doubled.
void take_lines(const std::string& text, std::multiset<std::string>& expected)
{
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        const auto found = expected.find(line + "\n");
        if (found == expected.end()) {
            ADD_FAILURE() << "no line of ours: " << line;
            return;
        }
        expected.erase(found);
    }
}

} // namespace

class HTTP_Access_Logger_Writers : public HTTP_Access_Logger_Test,
                                   public testing::WithParamInterface<bool> {};

TEST_P(HTTP_Access_Logger_Writers, lose_and_tear_no_line_while_the_log_rotates)
{
    ASSERT_EQ(open(ALL_COPIES, 8192, GetParam()), 0);
    std::multiset<std::string> expected;
    for (int writer = 0; writer < WRITERS; ++writer) {
        for (int number = 0; number < LINES_EACH; ++number) {
            expected.insert(formatted(entry_of(writer, number)));
        }
    }
    std::vector<std::thread> writers;
    std::atomic<int> failures{0};
    for (int writer = 0; writer < WRITERS; ++writer) {
        writers.emplace_back([this, writer, &failures] {
            for (int number = 0; number < LINES_EACH; ++number) {
                failures += log_entry(logger_, entry_of(writer, number)) == 0 ? 0 : 1;
            }
        });
    }
    for (std::thread& writer : writers) {
        writer.join();
    }
    finish_log_compression();
    EXPECT_EQ(failures, 0);

    size_t copies = 0;
    for (const std::string& name : files()) {
        const bool compressed = name.ends_with(".gz");
        EXPECT_EQ(compressed, GetParam() && !name.empty()) << name;
        take_lines(compressed ? unpacked(path(name)) : content_of(path(name)), expected);
        copies += name.empty() ? 0U : 1U;
    }
    EXPECT_EQ(expected.size(), 0U) << "the first that is missing: " << *expected.begin();
    EXPECT_GT(copies, 20U);
}

INSTANTIATE_TEST_SUITE_P(With_And_Without_Compression, HTTP_Access_Logger_Writers, testing::Bool());

TEST_F(HTTP_Access_Logger_Test, open_may_be_called_while_others_write)
{
    ASSERT_EQ(open(2, 4096), 0);
    std::vector<std::thread> writers;
    for (int writer = 0; writer < WRITERS; ++writer) {
        writers.emplace_back([this, writer] {
            for (int number = 0; number < LINES_EACH; ++number) {
                EXPECT_EQ(log_entry(logger_, entry_of(writer, number)), 0);
            }
        });
    }
    for (int i = 0; i < 50; ++i) {
        EXPECT_EQ(open(2, i % 2 == 0 ? 0 : 4096), 0);
    }
    for (std::thread& writer : writers) {
        writer.join();
    }
    EXPECT_TRUE(logger_.is_open());
}
