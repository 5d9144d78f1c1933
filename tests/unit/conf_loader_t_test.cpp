#include "support/conf_loader_t.h"

#include "support/json_base_conf.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <new>
#include <string>
#include <vector>

namespace {

using Loader = Conf_Loader_T<JSON_Base_Conf>;

class Conf : public JSON_Base_Conf {
public:
    Conf() : JSON_Base_Conf(URI_Base_Conf_Traits::key, URI_Base_Conf_Traits::KEY_LEN) {}

    int handle_record() override
    {
        if (init() == "throw") {
            throw std::bad_alloc();
        }
        uris_.push_back(uri());
        return 1;
    }

    std::vector<std::string> uris_;
};

std::string record(const std::string& uri, const std::string& init = "i")
{
    return R"({"uri": ")" + uri + R"(", "dll": "d", "init": ")" + init + "\"}";
}

class Conf_Loader_T_Test : public testing::Test {
protected:
    Temp_Dir directory_;
    Log_Capture log_;
    Conf conf_;
};

TEST_F(Conf_Loader_T_Test, loads_the_records_of_a_file)
{
    const std::string path =
        directory_.write("f", "[" + record("/a") + ",\n" + record("/b") + "]\n");
    EXPECT_EQ(Loader::load(path.c_str(), conf_), 0);
    EXPECT_EQ(conf_.uris_, (std::vector<std::string>{"/a", "/b"}));
    EXPECT_TRUE(log_.lines().empty());
}

TEST_F(Conf_Loader_T_Test, loads_a_file_of_many_blocks)
{
    std::string text = "[";
    std::vector<std::string> expected;
    for (int i = 0; i < 5000; ++i) {
        expected.push_back("/" + std::to_string(i));
        text += (i == 0 ? "" : ",\n") + record(expected.back());
    }
    const std::string path = directory_.write("f", text + "]");
    EXPECT_EQ(Loader::load(path.c_str(), conf_), 0);
    EXPECT_EQ(conf_.uris_, expected);
    EXPECT_EQ(conf_.loaded(), 5000U);
}

TEST_F(Conf_Loader_T_Test, loads_one_file_after_the_other)
{
    EXPECT_EQ(Loader::load(directory_.write("f", "[" + record("/a") + "").c_str(), conf_), -1);
    EXPECT_EQ(Loader::load(directory_.write("g", "[" + record("/b") + "]").c_str(), conf_), 0);
    EXPECT_EQ(conf_.uris_, (std::vector<std::string>{"/a", "/b"}));
}

TEST_F(Conf_Loader_T_Test, succeeds_when_a_record_fails)
{
    const std::string path = directory_.write("f", "[{\"uri\": \"/a\"}, " + record("/b") + "]");
    EXPECT_EQ(Loader::load(path.c_str(), conf_), 0);
    EXPECT_EQ(conf_.uris_, std::vector<std::string>{"/b"});
    EXPECT_EQ(log_.count(LM_ERROR, "Failed to load record 1 (uri='/a') of configuration file " +
                                       path + ": missing member 'dll', missing member 'init'\n"),
              1U);
}

TEST_F(Conf_Loader_T_Test, logs_a_syntax_error_with_its_place_and_keeps_what_was_complete)
{
    const std::string path = directory_.write("f", "[\n" + record("/a") + ",\n" + record("/b") +
                                                       "\n" + record("/c") + "]");
    errno = 0;
    EXPECT_EQ(Loader::load(path.c_str(), conf_), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(conf_.uris_, (std::vector<std::string>{"/a", "/b"}));
    EXPECT_EQ(log_.texts(LM_ERROR),
              std::vector<std::string>{"Failed to parse configuration file " + path +
                                       ", line 4, column 1: parse error: after array element, I "
                                       "expect ',' or ']'\n"});
}

TEST_F(Conf_Loader_T_Test, finds_the_place_of_an_error_behind_many_blocks)
{
    std::string text = "[\n";
    for (int i = 0; i < 3000; ++i) {
        text += record("/" + std::to_string(i)) + ",\n";
    }
    const std::string path = directory_.write("f", text + "  ?]");
    EXPECT_EQ(Loader::load(path.c_str(), conf_), -1);
    EXPECT_EQ(conf_.uris_.size(), 3000U);
    EXPECT_EQ(log_.count(LM_ERROR, path + ", line 3002, column 3: lexical error: invalid char"),
              1U);
}

TEST_F(Conf_Loader_T_Test, fails_for_an_empty_file)
{
    const std::string path = directory_.write("f", "");
    EXPECT_EQ(Loader::load(path.c_str(), conf_), -1);
    EXPECT_EQ(log_.texts(LM_ERROR),
              std::vector<std::string>{"Failed to parse configuration file " + path +
                                       ", line 1, column 1: parse error: premature EOF\n"});
}

TEST_F(Conf_Loader_T_Test, fails_for_a_file_that_is_not_there)
{
    const std::string path = directory_.path("missing");
    errno = 0;
    EXPECT_EQ(Loader::load(path.c_str(), conf_), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(log_.texts(LM_ERROR),
              std::vector<std::string>{"Failed to open configuration file " + path +
                                       ", errno=2, No such file or directory\n"});
}

TEST_F(Conf_Loader_T_Test, fails_for_a_directory)
{
    const std::string path = directory_.path(".");
    errno = 0;
    EXPECT_EQ(Loader::load(path.c_str(), conf_), -1);
    EXPECT_EQ(errno, EISDIR);
    EXPECT_EQ(log_.texts(LM_ERROR),
              std::vector<std::string>{"Failed to read configuration file " + path +
                                       ", errno=21, Is a directory\n"});
}

TEST_F(Conf_Loader_T_Test, fails_without_a_path)
{
    errno = 0;
    EXPECT_EQ(Loader::load(nullptr, conf_), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(log_.texts(LM_ERROR).size(), 1U);
}

TEST_F(Conf_Loader_T_Test, fails_when_a_record_finds_no_memory)
{
    const std::string path =
        directory_.write("f", "[" + record("/a") + "," + record("/b", "throw") + "]");
    errno = 0;
    EXPECT_EQ(Loader::load(path.c_str(), conf_), -1);
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_EQ(log_.texts(LM_ERROR),
              std::vector<std::string>{"Failed to load configuration file " + path +
                                       ", errno=12, Cannot allocate memory\n"});
}

} // namespace
