#include "httpd/json_conf_t.h"

#include "support/conf_loader_t.h"
#include "tests/support/log_capture.h"

#include <ace/DLL_Manager.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <fstream>
#include <string>
#include <unistd.h>

namespace {

constexpr char TRACE[] = "HTTPD_TEST_CONF_TRACE";

std::string plugin()
{
    return HTTPD_TEST_LIBRARY_DIR "/libtest_conf_plugin.so";
}

/// Is the library mapped? Does not load it.
bool is_loaded(const std::string& library)
{
    void* const handle = ::dlopen(library.c_str(), RTLD_NOW | RTLD_NOLOAD);
    if (handle == nullptr) {
        return false;
    }
    ::dlclose(handle);
    return true;
}

std::string record(const std::string& uri, const std::string& init, const std::string& params = "",
                   const std::string& dll = plugin())
{
    return R"({"uri": ")" + uri + R"(", "dll": ")" + dll + R"(", "init": ")" + init +
           R"(", "params": ")" + params + R"("})";
}

/**
 * Loads records into the process's registries, which are empty before and after each test. ACE
 * unmaps a library at its last close meanwhile, instead of when the process ends.
 */
class JSON_Conf_T_Test : public testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_NE(::mkdtemp(directory_), nullptr);
        ACE_DLL_Manager* const manager = ACE_DLL_Manager::instance(DLL_MANAGER_SIZE);
        policy_ = manager->unload_policy();
        manager->unload_policy(ACE_DLL_UNLOAD_POLICY_PER_PROCESS);
        ::unsetenv(TRACE);
        close_registries();
    }

    void TearDown() override
    {
        close_registries();
        ::unsetenv(TRACE);
        ACE_DLL_Manager::instance(DLL_MANAGER_SIZE)->unload_policy(policy_);
        ::unlink(file().c_str());
        ::rmdir(directory_);
    }

    static void close_registries()
    {
        HTTP_Handler_Creator_Map::close_instance();
        HTTP_Authenticator_Creator_Map::close_instance();
        WebSocket_Handler_Creator_Map::close_instance();
    }

    std::string file() const { return std::string(directory_) + "/plugins.json"; }

    /// @return how many of the records were loaded.
    template <typename Traits>
    unsigned int load(const std::string& records)
    {
        std::ofstream(file()) << "[" << records << "]";
        JSON_Conf_T<Traits> conf;
        EXPECT_EQ(Conf_Loader_T<JSON_Base_Conf>::load(file().c_str(), conf), 0);
        return conf.loaded();
    }

    unsigned int load_http(const std::string& records) { return load<HTTP_Conf_Traits>(records); }

    /// What happened to the factories of the plug-in.
    static std::string trace()
    {
        const char* const events = std::getenv(TRACE);
        return events != nullptr ? events : "";
    }

    void expect_error(const std::string& line) const
    {
        EXPECT_EQ(log_.count(LM_ERROR, line), 1U) << "wanted: " << line << "\nseen: " << errors();
        EXPECT_EQ(log_.texts(LM_ERROR).size(), 1U);
    }

    std::string errors() const
    {
        std::string all;
        for (const std::string& line : log_.texts(LM_ERROR)) {
            all += line;
        }
        return all;
    }

    Log_Capture log_;

private:
    char directory_[32] = "/tmp/json_conf_t_XXXXXX";
    u_long policy_ = 0;
};

TEST_F(JSON_Conf_T_Test, registers_the_factory_under_its_uri)
{
    EXPECT_EQ(load_http(record("/a", "_make_Conf_Test", "one two")), 1U);
    size_t off = 0;
    Object_Creator_T<HTTP_Handler>* const creator =
        HTTP_Handler_Creator_Map::instance()->find("/a/b", '/', off);
    ASSERT_NE(creator, nullptr);
    EXPECT_EQ(off, 2U);
    ASSERT_EQ(creator->argc_, 2);
    EXPECT_STREQ(creator->argv_[0], "one");
    EXPECT_STREQ(creator->argv_[1], "two");
    EXPECT_EQ(trace(), "make;init 2 <one> <two>;");
    EXPECT_EQ(errors(), "");
    EXPECT_EQ(HTTP_Handler_Creator_Map::instance()->describe(creator),
              "uri '/a' of dll '" + plugin() + "'");
}

TEST_F(JSON_Conf_T_Test, logs_a_loaded_record_with_its_five_values)
{
    load_http(record("/a", "_make_Conf_Test", "x y"));
    const std::string line = "Loaded HTTP handler(uri='/a', dll='" + plugin() +
                             "', init='_make_Conf_Test', params='x y')\n";
    EXPECT_EQ(log_.count(LM_DEBUG, line), 1U);
}

TEST_F(JSON_Conf_T_Test, log_lines_name_the_module)
{
    load_http(record("/a", "_make_Nothing"));
    EXPECT_STREQ(ACE_Log_Msg::instance()->file(), "httpd/json_conf_t.cpp");
}

TEST_F(JSON_Conf_T_Test, each_kind_fills_its_own_registry_and_has_its_own_label)
{
    EXPECT_EQ(load_http(record("/h", "_make_Conf_Test")), 1U);
    EXPECT_EQ(load<HTTP_Authenticator_Conf_Traits>(record("/a", "_make_Conf_Test_Authenticator")),
              1U);
    EXPECT_EQ(load<WebSocket_Conf_Traits>(record("/w", "_make_Conf_Test_WebSocket")), 1U);
    EXPECT_NE(HTTP_Handler_Creator_Map::instance()->find("/h", '/'), nullptr);
    EXPECT_EQ(HTTP_Handler_Creator_Map::instance()->find("/a", '/'), nullptr);
    EXPECT_NE(HTTP_Authenticator_Creator_Map::instance()->find("/a", '/'), nullptr);
    EXPECT_NE(WebSocket_Handler_Creator_Map::instance()->find("/w", '/'), nullptr);
    EXPECT_EQ(log_.count(LM_DEBUG, "Loaded HTTP handler(uri='/h', "), 1U);
    EXPECT_EQ(log_.count(LM_DEBUG, "Loaded HTTP authenticator handler(uri='/a', "), 1U);
    EXPECT_EQ(log_.count(LM_DEBUG, "Loaded WebSocket handler(uri='/w', "), 1U);
}

TEST_F(JSON_Conf_T_Test, closing_the_registry_disposes_of_the_factory_and_then_of_the_library)
{
    load_http(record("/a", "_make_Conf_Test"));
    EXPECT_TRUE(is_loaded(plugin()));
    HTTP_Handler_Creator_Map::close_instance();
    EXPECT_EQ(trace(), "make;init 0;gobble;delete;");
    EXPECT_FALSE(is_loaded(plugin()));
}

TEST_F(JSON_Conf_T_Test, a_registered_factory_without_a_disposer_is_deleted)
{
    load_http(record("/a", "_make_Conf_Test_No_Gobbler"));
    HTTP_Handler_Creator_Map::close_instance();
    EXPECT_EQ(trace(), "make;init 0;delete;");
    EXPECT_FALSE(is_loaded(plugin()));
}

TEST_F(JSON_Conf_T_Test, a_library_serves_several_records_until_the_last_is_gone)
{
    EXPECT_EQ(load_http(record("/a", "_make_Conf_Test") + "," +
                        record("/b", "_make_Conf_Test_No_Gobbler")),
              2U);
    load<WebSocket_Conf_Traits>(record("/w", "_make_Conf_Test_WebSocket"));
    HTTP_Handler_Creator_Map::close_instance();
    EXPECT_TRUE(is_loaded(plugin()));
    WebSocket_Handler_Creator_Map::close_instance();
    EXPECT_FALSE(is_loaded(plugin()));
}

TEST_F(JSON_Conf_T_Test, a_library_that_cannot_be_opened_is_logged_with_the_loaders_reason)
{
    EXPECT_EQ(load_http(record("/a", "_make_Conf_Test", "", "/nonexistent/libnone.so")), 0U);
    expect_error("Unable to open dll '/nonexistent/libnone.so': ");
    EXPECT_NE(errors().find("cannot open shared object file"), std::string::npos) << errors();
    EXPECT_EQ(HTTP_Handler_Creator_Map::instance()->find("/a", '/'), nullptr);
}

TEST_F(JSON_Conf_T_Test, a_missing_symbol_is_logged_and_the_library_closed)
{
    EXPECT_EQ(load_http(record("/a", "_make_Nothing")), 0U);
    expect_error("Unable to get symbol '_make_Nothing' from dll '" + plugin() + "': ");
    EXPECT_NE(errors().find("undefined symbol"), std::string::npos) << errors();
    EXPECT_FALSE(is_loaded(plugin()));
}

TEST_F(JSON_Conf_T_Test, a_factory_that_returns_null_is_logged_and_the_library_closed)
{
    EXPECT_EQ(load_http(record("/a", "_make_Conf_Test_Null")), 0U);
    expect_error(std::string("Failed to create HTTP handler for method '/a': ") +
                 std::strerror(EXDEV) + "\n");
    EXPECT_EQ(trace(), "make null;");
    EXPECT_FALSE(is_loaded(plugin()));
}

TEST_F(JSON_Conf_T_Test, a_factory_that_fails_init_is_logged_disposed_of_and_the_library_closed)
{
    EXPECT_EQ(load_http(record("/a", "_make_Conf_Test_Fail_Init", "p")), 0U);
    expect_error(std::string("Failed to init HTTP handler for method '/a': ") +
                 std::strerror(EDOM) + "\n");
    EXPECT_EQ(trace(), "make;init 1 <p>;gobble;delete;");
    EXPECT_FALSE(is_loaded(plugin()));
    EXPECT_EQ(HTTP_Handler_Creator_Map::instance()->find("/a", '/'), nullptr);
}

TEST_F(JSON_Conf_T_Test, without_a_disposer_a_factory_that_fails_init_is_left_alone)
{
    EXPECT_EQ(load_http(record("/a", "_make_Conf_Test_No_Gobbler_Fail_Init")), 0U);
    expect_error("Failed to init HTTP handler for method '/a': ");
    EXPECT_EQ(trace(), "make;init 0;");
    EXPECT_FALSE(is_loaded(plugin()));
}

TEST_F(JSON_Conf_T_Test, failures_carry_the_label_of_their_kind)
{
    load<HTTP_Authenticator_Conf_Traits>(record("/a", "_make_Conf_Test_Null_Authenticator"));
    load<WebSocket_Conf_Traits>(record("/w", "_make_Conf_Test_Null_WebSocket"));
    EXPECT_EQ(log_.count(LM_ERROR, "Failed to create HTTP authenticator handler for method '/a': "),
              1U);
    EXPECT_EQ(log_.count(LM_ERROR, "Failed to create WebSocket handler for method '/w': "), 1U);
}

TEST_F(JSON_Conf_T_Test, of_two_records_with_one_uri_the_first_stays)
{
    EXPECT_EQ(load_http(record("/a", "_make_Conf_Test", "first") + "," +
                        record("/a", "_make_Conf_Test", "second")),
              1U);
    expect_error("Failed to load HTTP handelr(uri='/a', dll='" + plugin() +
                 "', init='_make_Conf_Test', params='second')\n");
    EXPECT_EQ(trace(), "make;init 1 <first>;make;init 1 <second>;gobble;delete;");
    Object_Creator_T<HTTP_Handler>* const creator =
        HTTP_Handler_Creator_Map::instance()->find("/a", '/');
    ASSERT_NE(creator, nullptr);
    EXPECT_STREQ(creator->argv_[0], "first");
    EXPECT_TRUE(is_loaded(plugin()));
    HTTP_Handler_Creator_Map::close_instance();
    EXPECT_FALSE(is_loaded(plugin()));
}

TEST_F(JSON_Conf_T_Test, a_failing_record_does_not_stop_the_file)
{
    EXPECT_EQ(load_http(record("/1", "_make_Conf_Test_Null") + "," + record("/2", "_make_Nothing") +
                        "," + record("/3", "_make_Conf_Test", "", "/nonexistent/libnone.so") + "," +
                        record("/4", "_make_Conf_Test_Fail_Init") + "," +
                        record("/5", "_make_Conf_Test")),
              1U);
    EXPECT_EQ(log_.texts(LM_ERROR).size(), 4U);
    EXPECT_NE(HTTP_Handler_Creator_Map::instance()->find("/5", '/'), nullptr);
}

TEST_F(JSON_Conf_T_Test, params_are_split_like_a_command_line)
{
    ::setenv("HTTPD_TEST_CONF_VALUE", "from environment", 1);
    const struct {
        const char* params;
        const char* event;
    } rows[] = {
        {"", "init 0"},
        {"   ", "init 0"},
        {"one", "init 1 <one>"},
        {" one  two ", "init 2 <one> <two>"},
        {"'one two' three", "init 2 <one two> <three>"},
        {R"(\"one two\")", "init 1 <one two>"},
        {"-r $HTTPD_TEST_CONF_VALUE", "init 2 <-r> <from environment>"},
        {"${HTTPD_TEST_CONF_VALUE}", "init 1 <${HTTPD_TEST_CONF_VALUE}>"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.params);
        ::unsetenv(TRACE);
        EXPECT_EQ(load_http(record("/a", "_make_Conf_Test", row.params)), 1U);
        EXPECT_EQ(trace(), std::string("make;") + row.event + ";");
        HTTP_Handler_Creator_Map::close_instance();
    }
    ::unsetenv("HTTPD_TEST_CONF_VALUE");
    EXPECT_EQ(log_.texts(LM_WARNING).size(), 0U);
}

TEST_F(JSON_Conf_T_Test, params_that_cannot_be_split_are_warned_about)
{
    EXPECT_EQ(load_http(record("/a", "_make_Conf_Test", "it's lost")), 1U);
    EXPECT_EQ(trace(), "make;init 0;");
    EXPECT_EQ(log_.count(LM_WARNING, "No arguments of HTTP handler for uri '/a': "
                                     "params='it's lost' cannot be split (unbalanced quote?)\n"),
              1U);
}

TEST_F(JSON_Conf_T_Test, long_params_are_passed_whole)
{
    const std::string word(100000, 'x');
    EXPECT_EQ(load_http(record("/a", "_make_Conf_Test", word + " " + word)), 1U);
    EXPECT_EQ(trace(), "make;init 2 <" + word + "> <" + word + ">;");
}

TEST_F(JSON_Conf_T_Test, an_absent_params_member_is_an_empty_one)
{
    EXPECT_EQ(
        load_http(R"({"uri": "/a", "init": "_make_Conf_Test", "dll": ")" + plugin() + R"("})"), 1U);
    EXPECT_EQ(trace(), "make;init 0;");
}

TEST_F(JSON_Conf_T_Test, a_relative_name_goes_to_the_loader_unchanged)
{
    EXPECT_EQ(load_http(record("/a", "_make_Conf_Test", "", "no_such_plug_in")), 0U);
    expect_error("Unable to open dll 'no_such_plug_in': ");
    EXPECT_NE(errors().find("libno_such_plug_in.so"), std::string::npos) << errors();
}

} // namespace
