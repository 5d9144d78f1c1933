// What the host cannot run: files and directives, the short form, and too few descriptors.

#include "tests/support/host_run.h"
#include "tests/support/log_lines.h"
#include "tests/support/sanitized.h"

#include <gtest/gtest.h>

#include <sys/resource.h>

#include <csignal>
#include <set>

namespace {

using Words = std::vector<std::string>;

} // namespace

TEST(Host_Services, configuration_file_that_cannot_be_read_is_told)
{
    const Temporary_Folder folder;
    const std::string lost = folder.path() + "/lost.conf";
    EXPECT_EQ(
        Words{"cannot read service configuration file " + lost + ": No such file or directory"},
        run_host({"-f", lost}).refusal);
    EXPECT_EQ(Words{"cannot read service configuration file " + folder.path() + ": Is a directory"},
              run_host({"-f", folder.path()}).refusal);
}

TEST(Host_Services, directive_that_fails_is_told)
{
    const struct {
        std::string directive;
        std::string reason;
    } rows[] = {
        {"dynamic X Service_Object * nolibrary_xyz:_make_X() ''",
         "cannot load library nolibrary_xyz: "},
        {"dynamic X Service_Object * httpd:_make_X() ''", "library httpd has no symbol _make_X"},
        {"nonsense", ": syntax error"},
        {"# nothing", "no service is configured"},
    };
    for (const auto& row : rows) {
        const Host_Run run = run_host({"-S", row.directive});
        EXPECT_EQ(1, run.status);
        ASSERT_FALSE(run.refusal.empty()) << row.directive;
        EXPECT_NE(std::string::npos, run.refusal.back().find(row.reason)) << run.refusal.back();
    }
}

TEST(Host_Services, too_few_descriptors_are_told_wherever_they_run_out)
{
#if defined(HTTPD_TEST_SANITIZED)
    GTEST_SKIP() << "the look for leaks at the end needs descriptors itself";
#endif
    const std::string address = own_loopback_address();
    const Temporary_Folder folder;
    const std::string handlers = folder.write("http.json", plugin_configuration({}));
    const std::string directive = "dynamic Web Service_Object * httpd:_make_HTTP_Service() '-p " +
                                  address + ":8080 -f " + handlers + "'";
    const struct {
        Words host;
        Words service;
        std::string last; ///< what the service's own failure is passed on as
    } rows[] = {
        {{}, {"-p", address + ":8080"}, "HTTP_Service: the service could not be initialised"},
        {{"-S", directive},
         {},
         "service directive \"" + directive + "\": a service could not be initialised"},
    };
    for (const auto& row : rows) {
        std::set<std::string> refusals;
        bool has_run = false;
        for (int limit = 5; limit <= 40 && !has_run; ++limit) {
            SCOPED_TRACE(limit);
            Host_Process::Command command;
            command.wrapper = {"prlimit", "--nofile=" + std::to_string(limit)};
            command.host = row.host;
            command.service = row.service;
            command.wait_until_ready = false;
            Host_Process host(command);
            has_run = host.wait_for_log(" is running as process ");
            EXPECT_EQ(has_run ? 0 : 1, host.stop(has_run ? SIGTERM : 0)) << host.log_text();
            const Words errors = lines_of(host, "ERROR");
            EXPECT_TRUE(has_run || !errors.empty()) << host.log_text();
            refusals.insert(errors.begin(), errors.end());
        }
        EXPECT_TRUE(has_run);
        EXPECT_EQ(1U, refusals.count(row.last));
        EXPECT_EQ(1U, refusals.count("Failed to open the reactor, errno=24, Too many open files"));
    }
}

TEST(Host_Services, limit_of_descriptors_is_raised_as_far_as_it_may_be)
{
    Host_Process::Command command;
    command.wrapper = {"prlimit", "--nofile=64:128"};
    command.service = {"-t", "1"};
    Host_Process host(command);
    EXPECT_TRUE(host.wait_for_log(" is running as process "));
    rlimit limit = {};
    ASSERT_EQ(0, ::prlimit(host.pid(), RLIMIT_NOFILE, nullptr, &limit));
    EXPECT_EQ(128U, limit.rlim_cur);
    EXPECT_EQ(128U, limit.rlim_max);
    EXPECT_EQ(0, host.stop(SIGTERM));
}

TEST(Host_Services, SIGHUP_is_noted_and_nothing_else)
{
    Host_Process::Command command;
    command.service = {"-t", "1"};
    Host_Process host(command);
    EXPECT_TRUE(host.wait_for_log(" is running as process "));
    ::kill(host.pid(), SIGHUP);
    EXPECT_TRUE(wait_for_log_line(host, "WARNING",
                                  "SIGHUP is ignored: nothing is reopened or read again."));
    EXPECT_EQ(0, host.stop(SIGINT));
    EXPECT_EQ(1U, count_log_lines(host, "INFO", "Stopping on SIGINT."));
}
