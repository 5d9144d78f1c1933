#include "plugins/basic_auth/basic_auth.h"
#include "support/http_message.h"
#include "tests/support/fake_http_io.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"

#include <gtest/gtest.h>

#include <crypt.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <ctime>
#include <limits>
#include <thread>

namespace {

/// A hash of the cheapest cost that the scheme has, so that tests stay quick.
std::string hash_of(const char* password, const char* scheme)
{
    constexpr unsigned long DEFAULT_COST = 0;
    constexpr unsigned long BCRYPT_LOWEST = 4;
    const bool without_cost = scheme[1] == '1';
    const unsigned long cost = scheme[1] == '2' ? BCRYPT_LOWEST : without_cost ? DEFAULT_COST : 1;
    char setting[CRYPT_GENSALT_OUTPUT_SIZE];
    if (::crypt_gensalt_rn(scheme, cost, nullptr, 0, setting, sizeof(setting)) == nullptr) {
        return {};
    }
    crypt_data data{};
    return ::crypt_r(password, setting, &data);
}

std::string line_of(const std::string& user, const char* password, const char* scheme = "$2y$")
{
    return user + ":" + hash_of(password, scheme) + "\n";
}

std::string base64(std::string_view text)
{
    static constexpr char DIGITS[] =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string result;
    for (size_t i = 0; i < text.size(); i += 3) {
        unsigned bits = 0;
        for (size_t k = 0; k < 3; ++k) {
            bits = bits << 8 | (i + k < text.size() ? static_cast<unsigned char>(text[i + k]) : 0U);
        }
        for (size_t k = 0; k < 4; ++k) {
            result += i + k <= text.size() ? DIGITS[bits >> (18 - 6 * k) & 63U] : '=';
        }
    }
    return result;
}

bool verify(const Htpasswd_Table& table, std::string_view user_and_password)
{
    Credentials credentials;
    EXPECT_TRUE(credentials.parse("Basic " + base64(user_and_password)));
    return table.verify(credentials);
}

TEST(Htpasswd_Table, knows_users_by_every_salted_scheme)
{
    for (const char* const scheme : {"$2y$", "$2b$", "$5$", "$6$", "$y$", "$1$"}) {
        SCOPED_TRACE(scheme);
        Htpasswd_Table table;
        ASSERT_EQ(table.parse(line_of("anna", "secret", scheme), "file"), 0);
        EXPECT_EQ(table.size(), 1U);
        EXPECT_TRUE(verify(table, "anna:secret"));
        EXPECT_TRUE(verify(table, "anna:secret")); // now from the cache
        EXPECT_FALSE(verify(table, "anna:Secret"));
        EXPECT_FALSE(verify(table, "anna:secret2"));
        EXPECT_FALSE(verify(table, "anna:"));
        EXPECT_FALSE(verify(table, "Anna:secret"));
        EXPECT_FALSE(verify(table, "ann:secret"));
        EXPECT_FALSE(verify(table, ":secret"));
        EXPECT_FALSE(verify(table, "bert:secret"));
    }
}

TEST(Htpasswd_Table, refuses_everybody_when_it_is_empty)
{
    Htpasswd_Table table;
    EXPECT_EQ(table.parse("", "file"), 0);
    EXPECT_FALSE(verify(table, "anna:secret"));
    EXPECT_FALSE(verify(table, ":"));
}

TEST(Htpasswd_Table, reads_its_lines)
{
    const std::string text = "# users\n\n" + line_of("bert", "b") + "   \r\n" +
                             line_of("anna", "a") + hash_of("x", "$2y$").insert(0, "carl:") +
                             " \t\r\n" + line_of("dora@a.test", "d\xC3\xA9");
    Htpasswd_Table table;
    const Log_Capture log;
    ASSERT_EQ(table.parse(text, "file"), 0);
    EXPECT_EQ(table.size(), 4U);
    EXPECT_TRUE(log.lines().empty());
    EXPECT_TRUE(verify(table, "anna:a"));
    EXPECT_TRUE(verify(table, "bert:b"));
    EXPECT_TRUE(verify(table, "carl:x"));
    EXPECT_TRUE(verify(table, "dora@a.test:d\xC3\xA9"));
    EXPECT_FALSE(verify(table, "anna:b"));
    EXPECT_FALSE(verify(table, "bert:a"));
    EXPECT_FALSE(verify(table, "# users:"));
}

TEST(Htpasswd_Table, takes_a_last_line_without_its_end)
{
    std::string text = line_of("anna", "a");
    text.pop_back();
    Htpasswd_Table table;
    ASSERT_EQ(table.parse(text, "file"), 0);
    EXPECT_TRUE(verify(table, "anna:a"));
}

TEST(Htpasswd_Table, leaves_out_weak_hashes_with_a_warning_that_names_the_line)
{
    for (const char* const hash : {
             "{SHA}W6ph5Mm5Pz8GgiULbPgzG37mj9g=",      // unsalted
             "{SSHA}EkpcbvXHNzyCGgoCXPYxKCqQJHLjX9aW", // not known to crypt(3)
             "password",                               // plain text
             "$ecret",                                 // plain text
             "$apr1$rOioh4Wh$bVD3DRwksETubcpEH90ww0",  // not known to crypt(3)
             "rqXexS6ZhobKA",                          // DES
             "_J9..rasmBYk8r9AiWNc",                   // extended DES
             "*",                                      // locked
             "!$6$x$y",                                // locked
             "x",
         }) {
        SCOPED_TRACE(hash);
        const Log_Capture log;
        Htpasswd_Table table;
        ASSERT_EQ(table.parse("\n" + std::string("anna:") + hash + "\n" + line_of("bert", "b"),
                              "/etc/users"),
                  0);
        EXPECT_EQ(table.size(), 1U);
        EXPECT_EQ(log.lines().size(), 1U);
        EXPECT_EQ(log.count(LM_WARNING, "line 2 of /etc/users is ignored"), 1U);
        EXPECT_EQ(log.count(LM_WARNING, "anna"), 0U); // neither who nor what
        EXPECT_FALSE(verify(table, "anna:password"));
        EXPECT_TRUE(verify(table, "bert:b"));
    }
}

TEST(Htpasswd_Table, keeps_the_first_of_two_lines_for_a_user)
{
    const Log_Capture log;
    Htpasswd_Table table;
    ASSERT_EQ(
        table.parse(line_of("bert", "b") + line_of("anna", "first") + line_of("anna", "second"),
                    "file"),
        0);
    EXPECT_EQ(table.size(), 2U);
    EXPECT_TRUE(verify(table, "anna:first"));
    EXPECT_FALSE(verify(table, "anna:second"));
    EXPECT_EQ(log.count(LM_WARNING, "line 3 of file is ignored: line 2 names its user too"), 1U);
}

TEST(Htpasswd_Table, refuses_a_file_with_a_broken_line)
{
    for (const std::string_view line :
         {std::string_view("anna"), std::string_view("anna:"), std::string_view(":hash"),
          std::string_view(":"), std::string_view("an\0na:$6$x$y", 12)}) {
        const Log_Capture log;
        Htpasswd_Table table;
        EXPECT_EQ(table.parse(line_of("bert", "b") + std::string(line) + "\n", "/etc/users"), -1);
        EXPECT_EQ(errno, EINVAL);
        EXPECT_EQ(log.lines().size(), 1U);
        EXPECT_EQ(log.count(LM_ERROR, "line 2 of /etc/users is not of the form user:hash"), 1U);
    }
}

/// The least time of this thread that a question takes, in nanoseconds.
long time_of(const Htpasswd_Table& table, std::string_view user_and_password)
{
    long least = std::numeric_limits<long>::max();
    for (int i = 0; i < 5; ++i) {
        timespec begin{};
        timespec end{};
        ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &begin);
        verify(table, user_and_password);
        ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &end);
        least = std::min(least,
                         (end.tv_sec - begin.tv_sec) * 1'000'000'000 + end.tv_nsec - begin.tv_nsec);
    }
    return least;
}

TEST(Htpasswd_Table, takes_as_long_for_an_unknown_user_and_saves_a_known_pair_the_hash)
{
    Htpasswd_Table table;
    ASSERT_EQ(table.parse("anna:" + hash_of("secret", "$2y$") + "\n", "file"), 0);
    const long wrong = time_of(table, "anna:wrong");
    EXPECT_GT(time_of(table, "bert:wrong"), wrong / 4);
    EXPECT_GT(time_of(table, ":"), wrong / 4);
    EXPECT_LT(time_of(table, "anna:secret"), wrong / 4);
}

TEST(Htpasswd_Table, is_asked_by_several_threads)
{
    Htpasswd_Table table;
    ASSERT_EQ(table.parse(line_of("anna", "a") + line_of("bert", "b"), "file"), 0);
    std::vector<std::thread> threads;
    std::atomic<int> wrong{0};
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&table, &wrong] {
            for (int n = 0; n < 20; ++n) {
                wrong += verify(table, "anna:a") ? 0 : 1;
                wrong += verify(table, "bert:b") ? 0 : 1;
                wrong += n % 5 == 0 && verify(table, "anna:b") ? 1 : 0;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(wrong, 0);
}

class Htpasswd_File_Change : public testing::Test {
protected:
    void SetUp() override
    {
        path_ = directory_.write("users", line_of("anna", "old"));
        ASSERT_EQ(file_.open(path_), 0);
    }

    /// Puts a new file into the place of the old one, in one step.
    void replace(const std::string& text)
    {
        const std::string fresh = directory_.write("users.new", text);
        ASSERT_EQ(std::rename(fresh.c_str(), path_.c_str()), 0);
    }

    Temp_Dir directory_;
    std::string path_;
    Htpasswd_File file_;
};

TEST_F(Htpasswd_File_Change, is_not_read_again_while_it_is_the_same)
{
    const auto table = file_.table();
    EXPECT_EQ(file_.table(), table);
}

TEST_F(Htpasswd_File_Change, takes_effect_with_the_next_request)
{
    EXPECT_TRUE(verify(*file_.table(), "anna:old"));
    replace(line_of("anna", "new"));
    EXPECT_FALSE(verify(*file_.table(), "anna:old"));
    EXPECT_TRUE(verify(*file_.table(), "anna:new"));
    directory_.write("users", line_of("bert", "more") + line_of("anna", "new"));
    EXPECT_TRUE(verify(*file_.table(), "bert:more"));
}

TEST_F(Htpasswd_File_Change, leaves_the_old_table_to_those_who_use_it)
{
    const auto old = file_.table();
    replace(line_of("anna", "new"));
    EXPECT_NE(file_.table(), old);
    EXPECT_TRUE(verify(*old, "anna:old"));
}

TEST_F(Htpasswd_File_Change, to_a_broken_file_keeps_the_old_and_is_logged_once)
{
    const Log_Capture log;
    replace("broken\n");
    for (int i = 0; i < 3; ++i) {
        EXPECT_TRUE(verify(*file_.table(), "anna:old"));
    }
    EXPECT_EQ(log.lines().size(), 1U);
    EXPECT_EQ(log.count(LM_ERROR, "line 1 of " + path_ + " is not of the form"), 1U);
    replace(line_of("anna", "new"));
    EXPECT_TRUE(verify(*file_.table(), "anna:new"));
}

TEST_F(Htpasswd_File_Change, to_no_file_keeps_the_old_and_is_logged_once)
{
    const Log_Capture log;
    ASSERT_EQ(::unlink(path_.c_str()), 0);
    for (int i = 0; i < 3; ++i) {
        EXPECT_TRUE(verify(*file_.table(), "anna:old"));
    }
    EXPECT_EQ(log.lines().size(), 1U);
    EXPECT_EQ(log.count(LM_ERROR, "failed to read " + path_ + ", errno=2"), 1U);
    replace(line_of("anna", "new"));
    EXPECT_TRUE(verify(*file_.table(), "anna:new"));
}

TEST_F(Htpasswd_File_Change, to_something_that_is_no_file_keeps_the_old)
{
    const Log_Capture log;
    ASSERT_EQ(::unlink(path_.c_str()), 0);
    ASSERT_EQ(::mkfifo(path_.c_str(), 0600), 0);
    EXPECT_TRUE(verify(*file_.table(), "anna:old"));
    EXPECT_TRUE(verify(*file_.table(), "anna:old"));
    EXPECT_EQ(log.count(LM_ERROR, "failed to read " + path_), 1U);
}

TEST_F(Htpasswd_File_Change, is_seen_by_several_threads)
{
    const std::string first = line_of("anna", "old");
    const std::string second = line_of("anna", "old") + line_of("bert", "b");
    std::atomic<bool> stop{false};
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 3; ++i) {
        threads.emplace_back([this, &stop, &wrong] {
            while (!stop) {
                const size_t size = file_.table()->size();
                wrong += size == 1 || size == 2 ? 0 : 1;
            }
        });
    }
    for (int i = 0; i < 100; ++i) {
        replace(i % 2 == 0 ? second : first);
        file_.table();
    }
    stop = true;
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(wrong, 0);
    EXPECT_EQ(file_.table()->size(), 1U);
}

TEST(Htpasswd_File, that_is_missing_is_an_error_that_names_it)
{
    const Temp_Dir directory;
    const Log_Capture log;
    Htpasswd_File file;
    EXPECT_EQ(file.open(directory.path("missing")), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(log.lines().size(), 1U);
    EXPECT_EQ(log.count(LM_ERROR, directory.path("missing") + ", errno=2, No such file"), 1U);
}

class Basic_Auth_Request : public testing::Test {
protected:
    int init(Basic_Auth_Creator& creator, std::vector<std::string> arguments)
    {
        std::vector<char*> argv;
        for (std::string& argument : arguments) {
            argv.push_back(argument.data());
        }
        return creator.init(static_cast<int>(argv.size()), argv.empty() ? nullptr : argv.data());
    }

    int authenticate(const char* authorization)
    {
        if (authorization != nullptr) {
            io_.begin("GET", "/", {{"Authorization", authorization}});
        } else {
            io_.begin("GET", "/");
        }
        HTTP_Authenticator* const object = creator_.create();
        const int status = object->authenticate(io_, io_.mutable_request(), io_.response());
        creator_.destroy(object);
        const char* const challenge = io_.response().headers().get(HTTP_HEAD_WWW_AUTHENTICATE);
        challenge_ = challenge != nullptr ? challenge : "";
        return status;
    }

    Temp_Dir directory_;
    Basic_Auth_Creator creator_;
    Fake_HTTP_IO io_;
    std::string challenge_;
};

TEST_F(Basic_Auth_Request, is_admitted_with_the_right_password_alone)
{
    const std::string path = directory_.write("users", line_of("anna", "secret"));
    ASSERT_EQ(init(creator_, {"--file", path, "--realm", "The \"inner\" \\ circle"}), 0);
    EXPECT_EQ(authenticate(("Basic " + base64("anna:secret")).c_str()), 200);
    EXPECT_EQ(challenge_, "");
    const std::string refused[] = {
        "Basic " + base64("anna:wrong"),
        "Basic " + base64("bert:secret"),
        "Basic " + base64("annasecret"),
        "Bearer " + base64("anna:secret"),
        "Basic anna:secret",
        "Basic",
        "",
        "Basic " + base64(std::string("anna:secret\0x", 13)),
    };
    for (const std::string& authorization : refused) {
        EXPECT_EQ(authenticate(authorization.c_str()), 401) << authorization;
        EXPECT_EQ(challenge_, "Basic realm=\"The \\\"inner\\\" \\\\ circle\", charset=\"UTF-8\"");
    }
    EXPECT_EQ(authenticate(nullptr), 401);
    EXPECT_NE(challenge_, "");
}

TEST_F(Basic_Auth_Request, is_not_judged_with_bad_parameters)
{
    const std::string path = directory_.write("users", line_of("anna", "secret"));
    struct Row {
        std::vector<std::string> arguments;
        std::string line;
    };
    const Row rows[] = {
        {{}, "parameter '--file' is required"},
        {{"--realm", "r"}, "parameter '--file' is required"},
        {{"--file", path}, "parameter '--realm' is required"},
        {{"--file"}, "parameter '--file' lacks its value"},
        {{"--user", "x"}, "unknown parameter '--user'"},
        {{"--file", path, "--realm", "a\nb"}, "parameter '--realm' holds a control character"},
        {{"--file", directory_.path("none"), "--realm", "r"},
         "failed to read " + directory_.path("none") + ", errno=2"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.line);
        const Log_Capture log;
        Basic_Auth_Creator creator;
        EXPECT_EQ(init(creator, row.arguments), -1);
        EXPECT_EQ(log.lines().size(), 1U);
        EXPECT_EQ(log.count(LM_ERROR, row.line), 1U);
    }
}

} // namespace
