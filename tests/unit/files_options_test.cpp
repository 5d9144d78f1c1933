#include "plugins/files/file_options.h"
#include "tests/support/log_capture.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

int parse(File_Options& options, std::vector<std::string> arguments)
{
    std::vector<char*> argv;
    for (std::string& argument : arguments) {
        argv.push_back(argument.data());
    }
    return options.parse(static_cast<int>(argv.size()), argv.empty() ? nullptr : argv.data());
}

TEST(File_Options, have_defaults_for_all_but_the_root)
{
    File_Options options;
    EXPECT_EQ(parse(options, {"--root", "/srv"}), 0);
    EXPECT_EQ(options.root_, "/srv");
    EXPECT_EQ(options.index_, "index.html");
    EXPECT_EQ(options.cache_control_, "");
    EXPECT_EQ(options.thread_size_, 256U * 1024);
}

TEST(File_Options, are_read_in_both_spellings)
{
    File_Options options;
    EXPECT_EQ(parse(options, {"--root=/a=b", "--index", "home.htm", "--cache-control",
                              "public, max-age=60", "--thread-size=1M"}),
              0);
    EXPECT_EQ(options.root_, "/a=b");
    EXPECT_EQ(options.index_, "home.htm");
    EXPECT_EQ(options.cache_control_, "public, max-age=60");
    EXPECT_EQ(options.thread_size_, 1024U * 1024);
}

TEST(File_Options, name_the_parameter_at_fault_in_one_line)
{
    struct Row {
        std::vector<std::string> arguments;
        const char* line;
    };
    const Row rows[] = {
        {{}, "parameter '--root' is required"},
        {{"--root", ""}, "parameter '--root' is required"},
        {{"--root"}, "parameter '--root' lacks its value"},
        {{"--root", "/", "--index"}, "parameter '--index' lacks its value"},
        {{"--root", "/", "--verbose"}, "unknown parameter '--verbose'"},
        {{"--rooted", "/"}, "unknown parameter '--rooted'"},
        {{"/srv"}, "unknown parameter '/srv'"},
        {{"--root", "/", "--index", "a/b"}, "'--index' has an unusable value 'a/b'"},
        {{"--root", "/", "--index", ".."}, "'--index' has an unusable value '..'"},
        {{"--root", "/", "--index="}, "'--index' has an unusable value ''"},
        {{"--root", "/", "--cache-control", "a\rb"}, "'--cache-control' has an unusable value"},
        {{"--root", "/", "--thread-size", "big"}, "'--thread-size' has an unusable value 'big'"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.line);
        const Log_Capture log;
        File_Options options;
        EXPECT_EQ(parse(options, row.arguments), -1);
        EXPECT_EQ(errno, EINVAL);
        EXPECT_EQ(log.lines().size(), 1U);
        EXPECT_EQ(log.count(LM_ERROR, row.line), 1U);
    }
}

TEST(File_Options, read_sizes_as_the_table_says)
{
    struct Row {
        const char* text;
        bool good;
        std::uint64_t size;
    };
    const Row rows[] = {
        {"0", true, 0},
        {"1", true, 1},
        {"1k", true, 1024},
        {"2K", true, 2048},
        {"3m", true, 3 << 20},
        {"1G", true, 1 << 30},
        {"18446744073709551615", true, ~std::uint64_t{0}},
        {"17179869183G", true, std::uint64_t{17179869183} << 30},
        {"17179869184G", false, 0},
        {"18446744073709551616", false, 0},
        {"", false, 0},
        {"k", false, 0},
        {"-1", false, 0},
        {"1kk", false, 0},
        {"1 k", false, 0},
        {"1t", false, 0},
        {"0x10", false, 0},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.text);
        std::uint64_t size = 0;
        EXPECT_EQ(parse_file_size(row.text, size), row.good);
        EXPECT_EQ(size, row.size);
    }
}

} // namespace
