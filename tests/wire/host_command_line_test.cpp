// The host program's own options: what they do, and the words for those that are wrong.

#include "tests/support/host_run.h"
#include "tests/support/log_lines.h"

#include <gtest/gtest.h>

#include <csignal>
#include <fstream>
#include <set>
#include <sstream>

namespace {

using Words = std::vector<std::string>;

/// The priorities of what a host logs from its start, with a warning in it, to its end.
std::set<std::string> priorities(const std::string& level)
{
    Host_Process::Command command;
    command.log_level = level;
    command.service = {"-p", own_loopback_address() + ":8080", "--no-such-service-option"};
    const Temporary_Folder folder;
    const std::string pid_file = folder.path() + "/pid";
    command.host = {"--pid-file", pid_file};
    command.wait_until_ready = false;
    Host_Process host(command);
    std::string number;
    while (host.is_running() && number.empty()) { // there once it runs, whatever is logged
        std::getline(std::ifstream(pid_file), number);
    }
    EXPECT_EQ(0, host.stop(SIGTERM));
    std::set<std::string> found;
    for (const std::string& line : log_lines(host)) {
        found.insert(line.substr(0, line.find(' ')));
    }
    return found;
}

} // namespace

TEST(Host_Command_Line, wrong_words_are_told_and_nothing_is_started)
{
    const struct {
        Words words;
        const char* error;
    } rows[] = {
        {{"-x"}, "unknown option \"-x\""},
        {{"--nonsense"}, "unknown option \"--nonsense\""},
        {{"--nonsense=1"}, "unknown option \"--nonsense\""},
        {{"-p"}, "unknown option \"-p\""},
        {{"8080"}, "unexpected word \"8080\"; options of the HTTP service stand behind \"--\""},
        {{""}, "unexpected word \"\"; options of the HTTP service stand behind \"--\""},
        {{"--help=1"}, "option \"--help\" takes no value"},
        {{"--version="}, "option \"--version\" takes no value"},
        {{"-f"}, "option \"-f\" needs a value"},
        {{"-f", ""}, "option \"-f\" has an empty value"},
        {{"-S"}, "option \"-S\" needs a value"},
        {{"-S", ""}, "option \"-S\" has an empty value"},
        {{"--pid-file"}, "option \"--pid-file\" needs a value"},
        {{"--pid-file="}, "option \"--pid-file\" has an empty value"},
        {{"--log-file", ""}, "option \"--log-file\" has an empty value"},
        {{"--log-level", "loud"},
         "option \"--log-level\": \"loud\" is none of error, warning, info, debug, trace"},
        {{"--proxy-from=localhost"},
         "option \"--proxy-from\": \"localhost\" is not an IPv4 or IPv6 address"},
        {{"--proxy-from", "1.2.3"},
         "option \"--proxy-from\": \"1.2.3\" is not an IPv4 or IPv6 address"},
        {{"--tls-certificate", "a.pem", "--"},
         "option \"--tls-certificate\" needs \"--tls-private-key\" too"},
        {{"--tls-private-key=a.pem", "--"},
         "option \"--tls-private-key\" needs \"--tls-certificate\" too"},
        {{"-f", "svc.conf", "--"},
         "service options behind \"--\" cannot be combined with -f or -S"},
        {{"-Sx", "--"}, "service options behind \"--\" cannot be combined with -f or -S"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.error);
        const Host_Run run = run_host(row.words);
        EXPECT_EQ(2, run.status);
        EXPECT_EQ("", run.output);
        const Words expected = {std::string("httpd_host: ") + row.error,
                                "Try \"httpd_host --help\"."};
        EXPECT_EQ(expected, run.lines);
    }
}

TEST(Host_Command_Line, help_goes_to_standard_output_and_names_every_option)
{
    const Host_Run run = run_host({"--help", "--nonsense"}); // what follows is not looked at
    EXPECT_EQ(0, run.status);
    EXPECT_TRUE(run.lines.empty());
    for (const char* const option :
         {"-f FILE", "-S DIRECTIVE", "--stdio", "--tls-certificate FILE", "--tls-private-key FILE",
          "--proxy-from ADDRESS", "--log-level LEVEL", "--log-file FILE", "--pid-file FILE",
          "--version", "--help"}) {
        EXPECT_NE(std::string::npos, run.output.find(option)) << option;
    }
}

TEST(Host_Command_Line, version_goes_to_standard_output)
{
    const Host_Run run = run_host({"--version"});
    EXPECT_EQ(0, run.status);
    EXPECT_TRUE(run.lines.empty());
    EXPECT_EQ(0U, run.output.find("httpd_host "));
    EXPECT_EQ('\n', run.output.back());
}

TEST(Host_Command_Line, level_says_what_is_logged)
{
    const std::set<std::string> none;
    EXPECT_EQ(none, priorities("error"));
    EXPECT_EQ((std::set<std::string>{"WARNING"}), priorities("warning"));
    EXPECT_EQ((std::set<std::string>{"WARNING", "INFO"}), priorities("info"));
}

TEST(Host_Command_Line, log_file_is_added_to)
{
    const Temporary_Folder folder;
    const std::string path = folder.write("host.log", "what was there\n");
    Host_Process::Command command;
    command.host = {"--log-file=" + path, "--log-level=info"};
    command.service = {"-t", "1"};
    command.wait_until_ready = false;
    Host_Process host(command);
    std::string text;
    while (host.is_running() && text.find("is running as process") == std::string::npos) {
        std::ostringstream content;
        content << std::ifstream(path).rdbuf();
        text = content.str();
    }
    EXPECT_EQ(0, host.stop(SIGTERM));
    EXPECT_TRUE(host.log().empty());
    EXPECT_EQ(0U, text.find("what was there\n"));
}

TEST(Host_Command_Line, log_file_that_cannot_be_opened_ends_the_host)
{
    const Temporary_Folder folder;
    const std::string path = folder.path() + "/no-such-folder/host.log";
    const Host_Run run = run_host({"--log-file", path}, {"-t", "1"});
    EXPECT_EQ(1, run.status);
    EXPECT_EQ(Words{"httpd_host: cannot open log file " + path + ": No such file or directory"},
              run.lines);
}

TEST(Host_Command_Line, without_a_service_svc_conf_is_read)
{
    const Temporary_Folder folder;
    const Host_Run run = run_host({}, {}, {"env", "-C", folder.path()});
    EXPECT_EQ(1, run.status);
    EXPECT_EQ(Words{"cannot read service configuration file svc.conf: No such file or directory"},
              run.refusal);
}
