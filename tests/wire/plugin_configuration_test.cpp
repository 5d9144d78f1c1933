// Plug-in configuration files as a starting server reads them, and what they route where.

#include "tests/support/log_lines.h"
#include "tests/support/probe_server.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>

namespace {

/// A server that reads one configuration file with this content; its socket is for requests.
class Configured_Server {
public:
    explicit Configured_Server(const std::string& content, const std::string& option = "-f")
        : file_(folder_.write("plugins.json", content)), host_(command(option))
    {
        EXPECT_TRUE(host_.wait_for_log("INFO httpd_host ")) << host_.log_text();
    }

    std::unique_ptr<Wire_Client> connect() const
    {
        return Wire_Client::unix_domain(folder_.path() + "/socket");
    }

    Host_Process& host() { return host_; }
    const std::string& file() const { return file_; }
    std::vector<std::string> errors() const { return lines_of(host_, "ERROR"); }

    bool has_loaded(const std::string& kind, const Plugin_Record& record) const
    {
        return count_log_lines(host_, "DEBUG",
                               "Loaded " + kind + " handler(uri='" + record.uri + "', dll='" +
                                   library_path(record.dll) + "', init='" + record.init +
                                   "', params='" + record.params + "')") == 1;
    }

private:
    Host_Process::Command command(const std::string& option) const
    {
        Host_Process::Command result;
        result.service = {"-p", folder_.path() + "/socket", option, file_};
        return result;
    }

    Temporary_Folder folder_;
    std::string file_;
    Host_Process host_;
};

const Plugin_Record GOOD = {"/good", "probe_plugin", "_make_Probe", "one two"};

/// A record as text; `more` goes behind its members.
std::string record(const std::string& uri, const std::string& more = "")
{
    return "{\"uri\": \"" + uri + "\", \"dll\": \"" + library_path("probe_plugin") +
           "\", \"init\": \"_make_Probe\"" + more + "}";
}

/// The same without its uri.
std::string unnamed_record()
{
    return "{\"dll\": \"" + library_path("probe_plugin") + "\", \"init\": \"_make_Probe\"}";
}

std::string good_record()
{
    return record("/good", ", \"params\": \"one two\"");
}

/// The plug-in of that URI answers.
void expect_served(const Configured_Server& server, const std::string& uri)
{
    const auto client = server.connect();
    ASSERT_NE(nullptr, client);
    EXPECT_EQ("Hello, World!", client->exchange(get_request(uri + "/hello")).body) << uri;
}

/// One failing record between two good ones: the line is logged once, and the good ones serve.
void expect_record_fails(const Plugin_Record& bad, const std::string& beginning)
{
    Configured_Server server(
        plugin_configuration({{"/first", "probe_plugin", "_make_Probe"}, bad, GOOD}));
    const std::vector<std::string> errors = server.errors();
    ASSERT_EQ(1U, errors.size()) << server.host().log_text();
    EXPECT_EQ(0U, errors[0].find(beginning)) << errors[0];
    expect_served(server, "/first");
    expect_served(server, "/good");
    EXPECT_EQ(0, server.host().stop(SIGTERM));
}

/// A file that is read with one error line and still has one good record.
void expect_file_error(const std::string& content, const std::string& error)
{
    Configured_Server server(content);
    const std::vector<std::string> errors = server.errors();
    ASSERT_EQ(1U, errors.size()) << server.host().log_text();
    EXPECT_NE(std::string::npos, errors[0].find(server.file() + error)) << errors[0];
    EXPECT_TRUE(server.has_loaded("HTTP", GOOD));
    expect_served(server, "/good");
}

} // namespace

TEST(Plugin_Configuration, record_is_loaded_with_its_parameters)
{
    Configured_Server server(plugin_configuration({GOOD}));
    EXPECT_TRUE(server.has_loaded("HTTP", GOOD)) << server.host().log_text();
    EXPECT_TRUE(server.errors().empty());
    expect_served(server, "/good");
    EXPECT_EQ(0, server.host().stop(SIGTERM));
    EXPECT_EQ(1U, count_log_lines(server.host(), "INFO",
                                  "probe: handle_request GET /good/hello off=5 params=one,two"));
}

TEST(Plugin_Configuration, environment_is_substituted_in_parameters)
{
    ::setenv("HTTPD_TEST_WIRE_PARAMETER", "from-outside", 1);
    Configured_Server server(plugin_configuration(
        {{"/good", "probe_plugin", "_make_Probe", "$HTTPD_TEST_WIRE_PARAMETER 'two words'"}}));
    ::unsetenv("HTTPD_TEST_WIRE_PARAMETER");
    expect_served(server, "/good");
    EXPECT_EQ(0, server.host().stop(SIGTERM));
    EXPECT_EQ(1U, server.host().count_log("off=5 params=from-outside,two words"))
        << server.host().log_text();
}

TEST(Plugin_Configuration, library_that_is_missing)
{
    expect_record_fails({"/bad", "no_such_plugin", "_make_Probe"},
                        "Unable to open dll '" + library_path("no_such_plugin") + "': ");
}

TEST(Plugin_Configuration, file_that_is_no_library)
{
    Temporary_Folder folder;
    const std::string path = folder.write("libnot.so", "not a library");
    expect_record_fails({"/bad", path, "_make_Probe"}, "Unable to open dll '" + path + "': ");
}

TEST(Plugin_Configuration, factory_that_is_missing)
{
    expect_record_fails({"/bad", "probe_plugin", "_make_Nothing"},
                        "Unable to get symbol '_make_Nothing' from dll '" +
                            library_path("probe_plugin") + "': ");
}

TEST(Plugin_Configuration, factory_that_gives_nothing)
{
    expect_record_fails({"/bad", "test_conf_plugin", "_make_Conf_Test_Null"},
                        "Failed to create HTTP handler for method '/bad': Invalid cross-device "
                        "link");
}

TEST(Plugin_Configuration, factory_that_refuses_its_parameters)
{
    for (const char* const factory :
         {"_make_Conf_Test_Fail_Init", "_make_Conf_Test_No_Gobbler_Fail_Init"}) {
        SCOPED_TRACE(factory);
        expect_record_fails({"/bad", "test_conf_plugin", factory},
                            "Failed to init HTTP handler for method '/bad': Numerical argument "
                            "out of domain");
    }
}

TEST(Plugin_Configuration, first_record_of_an_uri_wins)
{
    const Plugin_Record second = {"/good", "test_conf_plugin", "_make_Conf_Test", "a b"};
    Configured_Server server(plugin_configuration({GOOD, second}));
    EXPECT_EQ(std::vector<std::string>{"Failed to load HTTP handelr(uri='/good', dll='" +
                                       library_path("test_conf_plugin") +
                                       "', init='_make_Conf_Test', params='a b')"},
              server.errors());
    EXPECT_TRUE(server.has_loaded("HTTP", GOOD));
    EXPECT_FALSE(server.has_loaded("HTTP", second));
    expect_served(server, "/good");
}

TEST(Plugin_Configuration, kinds_are_told_apart_in_the_log)
{
    const struct {
        const char* option;
        const char* kind;
        const char* good;
        const char* bad;
    } rows[] = {
        {"-f", "HTTP", "_make_Conf_Test", "_make_Conf_Test_Null"},
        {"-a", "HTTP authenticator", "_make_Conf_Test_Authenticator",
         "_make_Conf_Test_Null_Authenticator"},
        {"-w", "WebSocket", "_make_Conf_Test_WebSocket", "_make_Conf_Test_Null_WebSocket"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.kind);
        const Plugin_Record good = {"/good", "test_conf_plugin", row.good};
        Configured_Server server(
            plugin_configuration({good, {"/bad", "test_conf_plugin", row.bad}, good}), row.option);
        EXPECT_TRUE(server.has_loaded(row.kind, good)) << server.host().log_text();
        const std::vector<std::string> errors = server.errors();
        ASSERT_EQ(2U, errors.size());
        EXPECT_EQ(0U, errors[0].find("Failed to create " + std::string(row.kind) +
                                     " handler for method '/bad': "))
            << errors[0];
        EXPECT_EQ(0U, errors[1].find("Failed to load " + std::string(row.kind) +
                                     " handelr(uri='/good', dll='"))
            << errors[1];
        EXPECT_EQ(0, server.host().stop(SIGTERM));
    }
}

TEST(Plugin_Configuration, layouts_that_are_accepted)
{
    const std::string layouts[] = {
        "[" + good_record() + "]",
        good_record(),
        "{\"/good\": " + unnamed_record() + "}",
        "{\"any name\": " + good_record() + "}",
        "{\"handlers\": [" + good_record() + "]}",
        "{\"handlers\": {\"/good\": " + unnamed_record() + "}}",
        "{\"/other\": " + unnamed_record() + ", \"/good\": " + unnamed_record() + "}",
        "/* one */ [ // two\n" + good_record() + " /* three */ ] // four",
        "[" + record("/other") + ",\n" + good_record() + "]\n",
    };
    for (const std::string& layout : layouts) {
        SCOPED_TRACE(layout);
        Configured_Server server(layout);
        EXPECT_TRUE(server.errors().empty()) << server.host().log_text();
        expect_served(server, "/good");
    }
}

TEST(Plugin_Configuration, syntax_error_is_placed_and_what_was_complete_serves)
{
    expect_file_error("[" + good_record() + ",\n" + record("/other") + "\n  !\n]",
                      ", line 3, column 3: ");
    expect_file_error("[" + good_record() + "\n", ", line ");
    expect_file_error("[" + good_record() + ",\n {\"uri\": \"/x\", \"dll\" \"y\"}]",
                      ", line 2, column ");
}

TEST(Plugin_Configuration, record_with_a_wrong_member_is_named_and_the_others_load)
{
    const auto file = [](const std::string& bad) {
        return "[" + record("/first") + ", " + bad + ", " + good_record() + "]";
    };
    expect_file_error(file("{\"uri\": \"/bad\", \"init\": \"_make_Probe\"}"),
                      ": missing member 'dll'");
    expect_file_error(file(unnamed_record()), ": missing member 'uri'");
    expect_file_error(file("{\"uri\": \"/bad\", \"dll\": \"x\"}"), ": missing member 'init'");
    expect_file_error(file(record("/bad", ", \"params\": 5")), ": no string in member 'params'");
    expect_file_error(file(record("/bad", ", \"params\": [\"a\"]")),
                      ": no string in member 'params'");
    expect_file_error(file(record("/bad", ", \"parameters\": \"a\"")),
                      ": unknown member 'parameters'");
    expect_file_error(file("\"text\""), ": not an object");
}

TEST(Plugin_Configuration, wrong_member_is_logged_with_record_and_file)
{
    Configured_Server server("[" + good_record() + ", " + record("/bad", ", \"more\": 1") + "]");
    EXPECT_EQ(std::vector<std::string>{"Failed to load record 2 (uri='/bad') of configuration "
                                       "file " +
                                       server.file() + ": unknown member 'more'"},
              server.errors());
    const auto client = server.connect();
    ASSERT_NE(nullptr, client);
    EXPECT_EQ(404, client->exchange(get_request("/bad/hello")).status);
}

TEST(Plugin_Configuration, file_that_cannot_be_read_is_logged_and_the_server_runs)
{
    Temporary_Folder folder;
    const std::string missing = folder.path() + "/none.json";
    Host_Process::Command command;
    const std::string address = own_loopback_address();
    command.service = {
        "-f", missing,           "-a", folder.path(),
        "-p", address + ":8080", "-f", folder.write("http.json", plugin_configuration({GOOD}))};
    Host_Process host(command);
    const std::vector<std::string> expected = {
        "Failed to open configuration file " + missing + ", errno=2, No such file or directory",
        "Failed to read configuration file " + folder.path() + ", errno=21, Is a directory"};
    EXPECT_EQ(expected, lines_of(host, "ERROR"));
    const auto client = Wire_Client::tcp(address, 8080);
    ASSERT_NE(nullptr, client);
    EXPECT_EQ("Hello, World!", client->exchange(get_request("/good/hello")).body);
    EXPECT_EQ(0, host.stop(SIGTERM));
}

TEST(Plugin_Configuration, files_add_up)
{
    Temporary_Folder folder;
    Host_Process::Command command;
    const std::string socket = folder.path() + "/socket";
    command.service = {
        "-p",
        socket,
        "-f",
        folder.write("1.json", plugin_configuration({{"/1", "probe_plugin", "_make_Probe"}})),
        "-f",
        folder.write("2.json", plugin_configuration({{"/2", "probe_plugin", "_make_Probe"}}))};
    Host_Process host(command);
    const auto client = Wire_Client::unix_domain(socket);
    ASSERT_NE(nullptr, client);
    EXPECT_EQ(200, client->exchange(get_request("/1/hello")).status);
    EXPECT_EQ(200, client->exchange(get_request("/2/hello")).status);
    EXPECT_EQ(0, host.stop(SIGTERM));
}

TEST(Plugin_Registry, longest_prefix_that_ends_at_a_slash_gets_the_request)
{
    const struct {
        const char* path;
        const char* seen; ///< offset and parameters of the plug-in that got it
    } rows[] = {
        {"/api/hello", "off=4 params=api"},
        {"/api/x/hello", "off=4 params=api"},
        {"/api", "off=4 params=api"},
        {"/apix", "off=1 params=root"},
        {"/apix/hello", "off=1 params=root"},
        {"/ap", "off=1 params=root"},
        {"/", "off=1 params=root"},
        {"/api/v2/hello", "off=7 params=v2"},
        {"/api/v2", "off=7 params=v2"},
        {"/api/v20/hello", "off=4 params=api"},
        {"/slash/hello", "off=7 params=slash"},
        {"/slash/", "off=7 params=slash"},
        {"/slash", "off=1 params=root"},
        {"/%61pi/hello", "off=4 params=api"},
        {"/API/hello", "off=1 params=root"},
    };
    Probe_Server::Setup setup;
    setup.handlers = {{"/slash/", "probe_plugin", "_make_Probe", "slash"},
                      {"/api", "probe_plugin", "_make_Probe", "api"},
                      {"/", "probe_plugin", "_make_Probe", "root"},
                      {"/api/v2", "probe_plugin", "_make_Probe", "v2"}};
    Probe_Server server(setup);
    const auto client = server.connect();
    ASSERT_NE(nullptr, client);
    std::vector<std::string> expected;
    for (const auto& row : rows) {
        // Answered by the engine where the last segment means nothing to the plug-in.
        EXPECT_EQ(200, client->exchange(body_request("POST", row.path, "")).status) << row.path;
        expected.emplace_back(row.seen);
    }
    EXPECT_EQ(0, server.host().stop(SIGTERM));
    std::vector<std::string> seen;
    for (const std::string& line : lines_of(server.host(), "INFO")) {
        if (line.find("probe: handle_request ") == 0) {
            seen.push_back(line.substr(line.find("off=")));
        }
    }
    EXPECT_EQ(expected, seen);
}

TEST(Plugin_Registry, uri_without_a_plugin_is_not_found)
{
    Probe_Server server;
    const auto client = server.connect();
    ASSERT_NE(nullptr, client);
    EXPECT_EQ(404, client->exchange(get_request("/probes/hello")).status);
    EXPECT_EQ(0, server.host().stop(SIGTERM));
    EXPECT_EQ(1U, count_log_lines(server.host(), "DEBUG", "Not found HTTP uri '/probes/hello'."));
}
