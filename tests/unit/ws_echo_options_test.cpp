#include "plugins/ws_echo/ws_echo_options.h"
#include "tests/support/log_capture.h"

#include <gtest/gtest.h>

#include <cerrno>

namespace {

using Names = std::vector<std::string>;

int parse(WS_Echo_Options& options, Names arguments)
{
    std::vector<char*> argv;
    for (std::string& argument : arguments) {
        argv.push_back(argument.data());
    }
    return options.parse(static_cast<int>(argv.size()), argv.empty() ? nullptr : argv.data());
}

TEST(WS_Echo_Options, have_defaults)
{
    WS_Echo_Options options;
    EXPECT_EQ(parse(options, {}), 0);
    EXPECT_FALSE(options.thread_);
    EXPECT_EQ(options.protocols_, Names());
}

TEST(WS_Echo_Options, are_read_in_both_spellings)
{
    WS_Echo_Options options;
    EXPECT_EQ(parse(options, {"--protocol", "chat, v2.chat ,\tx", "--thread"}), 0);
    EXPECT_TRUE(options.thread_);
    EXPECT_EQ(options.protocols_, (Names{"chat", "v2.chat", "x"}));
    EXPECT_EQ(parse(options, {"--protocol=a!#$%&'*+-.^_`|~Z9"}), 0);
    EXPECT_FALSE(options.thread_);
    EXPECT_EQ(options.protocols_, Names{"a!#$%&'*+-.^_`|~Z9"});
}

TEST(WS_Echo_Options, that_are_no_good_are_named_in_one_line)
{
    const struct {
        Names arguments;
        std::string line;
    } rows[] = {
        {{"--thread=yes"}, "ws_echo: parameter '--thread' takes no value"},
        {{"--thread", "yes"}, "ws_echo: unknown parameter 'yes'"},
        {{"--threads"}, "ws_echo: unknown parameter '--threads'"},
        {{"--thread", "--protocol"}, "ws_echo: parameter '--protocol' lacks its value"},
        {{"--protocol", ""}, "ws_echo: parameter '--protocol': '' is not a sub-protocol's name"},
        {{"--protocol="}, "ws_echo: parameter '--protocol': '' is not a sub-protocol's name"},
        {{"--protocol=a,"}, "ws_echo: parameter '--protocol': '' is not a sub-protocol's name"},
        {{"--protocol=a,,b"}, "ws_echo: parameter '--protocol': '' is not a sub-protocol's name"},
        {{"--protocol=a b"}, "ws_echo: parameter '--protocol': 'a b' is not a sub-protocol's name"},
        {{"--protocol=a,b/1"},
         "ws_echo: parameter '--protocol': 'b/1' is not a sub-protocol's name"},
    };
    for (const auto& row : rows) {
        WS_Echo_Options options;
        const Log_Capture log;
        errno = 0;
        EXPECT_EQ(parse(options, row.arguments), -1) << row.line;
        EXPECT_EQ(errno, EINVAL) << row.line;
        EXPECT_EQ(log.lines().size(), 1U) << row.line;
        EXPECT_EQ(log.count(LM_ERROR, row.line), 1U) << row.line;
    }
}

TEST(WS_Echo_Options, choose_the_first_offer_that_is_named)
{
    WS_Echo_Options options;
    ASSERT_EQ(parse(options, {"--protocol=chat,superchat"}), 0);
    EXPECT_STREQ(options.choose({"other", " superchat\t", "chat"}), "superchat");
    EXPECT_STREQ(options.choose({"chat"}), "chat");
    EXPECT_EQ(options.choose({"Chat", "chat2", "", " "}), nullptr);
    EXPECT_EQ(options.choose({}), nullptr);
}

} // namespace
