#include "httpd/http_options.h"

#include "httpd/http_access_logger.h"
#include "httpd/http_authenticator_creator_map.h"
#include "httpd/http_handler_creator_map.h"
#include "httpd/websocket_handler_creator_map.h"
#include "support/http_message.h"
#include "support/log_rotation.h"
#include "support/uri.h"
#include "tests/support/log_capture.h"

#include <ace/ACE.h>
#include <ace/INET_Addr.h>
#include <ace/MEM_Addr.h>
#include <ace/OS_NS_unistd.h>
#include <ace/UNIX_Addr.h>

#include <gtest/gtest.h>

#include <climits>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <initializer_list>
#include <string>
#include <type_traits>
#include <vector>

#include <sys/un.h>
#include <unistd.h>

namespace {

using Listen_Address = HTTP_Options::Listen_Address;
using Words = std::vector<std::string>;

constexpr long PAGE = 4096;

static_assert(!std::is_copy_constructible_v<Listen_Address>);
static_assert(std::is_nothrow_move_constructible_v<Listen_Address>);
static_assert(std::is_move_assignable_v<Listen_Address>);
static_assert(HTTP_Options::DEFAULT_PORT == 10000);
static_assert(HTTP_Options::DEFAULT_ACCEPTOR_TIMEOUT == 3);
static_assert(HTTP_Options::REACTIVE == 0 && HTTP_Options::THREAD == 1 &&
              HTTP_Options::PROCESS == 2 && HTTP_Options::THREAD_POOL == 3);
static_assert(Listen_Address::TYPE_HTTP == 0 && Listen_Address::TYPE_HTTPS == 1 &&
              Listen_Address::TYPE_HTTPM == 2 && Listen_Address::TYPE_HTTPU == 3);

int parse(HTTP_Options& options, Words words)
{
    std::vector<char*> argv;
    for (std::string& word : words) {
        argv.push_back(word.data());
    }
    argv.push_back(nullptr);
    return options.parse_args(static_cast<int>(words.size()), argv.data());
}

void close_shared_objects()
{
    HTTP_Access_Logger_Impl::close_instance();
    HTTP_Handler_Creator_Map::close_instance();
    HTTP_Authenticator_Creator_Map::close_instance();
    WebSocket_Handler_Creator_Map::close_instance();
}

/// Options of the test's own. What parsing makes for the process is gone after each test.
class HTTP_Options_Test : public testing::Test {
protected:
    HTTP_Options_Test() { close_shared_objects(); }
    ~HTTP_Options_Test() override { close_shared_objects(); }

    int parse(Words words) { return ::parse(options_, std::move(words)); }

    std::vector<std::string> all_texts() const
    {
        std::vector<std::string> result;
        for (const Log_Capture::Line& line : log_.lines()) {
            result.push_back(line.text);
        }
        return result;
    }

    const Log_Capture log_;
    HTTP_Options options_;
};

const ACE_INET_Addr& inet(const Listen_Address* address)
{
    return dynamic_cast<const ACE_INET_Addr&>(*address->sap);
}

std::string host_of(const Listen_Address* address)
{
    char text[INET6_ADDRSTRLEN] = {};
    return inet(address).get_host_addr(text, sizeof(text));
}

/// A directory that goes away with everything in it.
class Scratch {
public:
    Scratch() { EXPECT_NE(::mkdtemp(path_), nullptr); }
    ~Scratch() { std::filesystem::remove_all(path_); }

    std::string operator/(const char* name) const { return std::string(path_) + "/" + name; }

private:
    char path_[32] = "/tmp/http_options_XXXXXX";
};

std::string plug_in_record(const std::string& init)
{
    return R"({"uri": "/x", "dll": ")" HTTPD_TEST_LIBRARY_DIR
           R"(/libtest_conf_plugin.so", "init": ")" +
           init + R"("})";
}

} // namespace

TEST_F(HTTP_Options_Test, without_options_every_setting_has_its_default)
{
    ASSERT_EQ(options_.parse_args(0, nullptr), 0);
    EXPECT_EQ(options_.concurrency(), HTTP_Options::REACTIVE);
    EXPECT_EQ(options_.loops(), 1);
    EXPECT_EQ(options_.listen_address(0), nullptr);
    EXPECT_EQ(options_.listen_backlog(), 128);
    EXPECT_EQ(options_.idle_timeout(), nullptr);
    EXPECT_EQ(options_.accept_timeout(), 3);
    EXPECT_EQ(options_.ping_interval(), nullptr);
    EXPECT_EQ(options_.ping_timeout(), nullptr);
    EXPECT_EQ(options_.file_read_buffer_size(), 0U);
    EXPECT_EQ(options_.file_write_buffer_size(), 0U);
    EXPECT_EQ(options_.socket_receive_buffer_size(), 0);
    EXPECT_EQ(options_.socket_send_buffer_size(), 0);
    EXPECT_EQ(options_.socket_receive_timeout(), 0);
    EXPECT_EQ(options_.socket_send_timeout(), 0);
    EXPECT_EQ(options_.http_receive_buffer_size(), 0U);
    EXPECT_FALSE(options_.read_ahead());
    EXPECT_EQ(options_.read_discard_cache(), 0);
    EXPECT_EQ(options_.write_sync_close(), 0);
    EXPECT_EQ(options_.write_sync(), 0);
    EXPECT_EQ(options_.write_discard_cache(), 0);
    EXPECT_TRUE(options_.servers().empty());
    EXPECT_TRUE(options_.proxy_from().empty());
    EXPECT_TRUE(log_.lines().empty());
}

TEST_F(HTTP_Options_Test, an_option_reads_its_value_in_its_own_syntax)
{
    struct Row {
        Words words;
        std::function<long(const HTTP_Options&)> setting;
        long expected;
    };
    const auto backlog = [](const HTTP_Options& o) { return long{o.listen_backlog()}; };
    const auto accept = [](const HTTP_Options& o) { return long{o.accept_timeout()}; };
    const auto loops = [](const HTTP_Options& o) { return long{o.loops()}; };
    const auto concurrency = [](const HTTP_Options& o) { return long{o.concurrency()}; };
    const auto idle = [](const HTTP_Options& o) {
        return o.idle_timeout() != nullptr ? long{o.idle_timeout()->sec()} : -1;
    };
    const auto interval = [](const HTTP_Options& o) {
        return o.ping_interval() != nullptr ? long{o.ping_interval()->sec()} : -1;
    };
    const auto ping = [](const HTTP_Options& o) {
        return o.ping_timeout() != nullptr ? long{o.ping_timeout()->sec()} : -1;
    };
    const auto file_read = [](const HTTP_Options& o) { return long(o.file_read_buffer_size()); };
    const auto file_write = [](const HTTP_Options& o) { return long(o.file_write_buffer_size()); };
    const auto receive_size = [](const HTTP_Options& o) {
        return long{o.socket_receive_buffer_size()};
    };
    const auto send_size = [](const HTTP_Options& o) { return long{o.socket_send_buffer_size()}; };
    const auto receive = [](const HTTP_Options& o) { return long{o.socket_receive_timeout()}; };
    const auto send = [](const HTTP_Options& o) { return long{o.socket_send_timeout()}; };
    const auto http = [](const HTTP_Options& o) { return long(o.http_receive_buffer_size()); };
    const auto ahead = [](const HTTP_Options& o) { return long{o.read_ahead()}; };
    const auto read_cache = [](const HTTP_Options& o) { return long{o.read_discard_cache()}; };
    const auto sync_close = [](const HTTP_Options& o) { return long{o.write_sync_close()}; };
    const auto sync = [](const HTTP_Options& o) { return long{o.write_sync()}; };
    const auto write_cache = [](const HTTP_Options& o) { return long{o.write_discard_cache()}; };

    const Row rows[] = {
        {{"--listen-backlog", "5"}, backlog, 5},
        {{"--listen-backlog=5"}, backlog, 5},
        {{"--listen-b", "5"}, backlog, 5}, // an abbreviation that is not ambiguous
        {{"--listen-backlog=0"}, backlog, 0},
        {{"--listen-backlog=-1"}, backlog, -1},
        {{"--listen-backlog=4k"}, backlog, 4},
        {{"--listen-backlog=x"}, backlog, 0},

        {{"-i", "30"}, idle, 30},
        {{"-i30"}, idle, 30},
        {{"--idle", "30"}, idle, 30},
        {{"--idle=0"}, idle, 0},
        {{"--idle=1m"}, idle, 1},
        {{"--idle="}, idle, 0},
        {{"--idle=-5"}, idle, -1},
        {{"--idle=30", "--idle=-5"}, idle, -1},

        {{"--accept-timeout=7"}, accept, 7},
        {{"--accept-timeout=-1"}, accept, -1},
        {{"--accept-timeout=0"}, accept, 3},
        {{"--accept-timeout=x"}, accept, 3},

        {{"-c", "REACTIVE"}, concurrency, HTTP_Options::REACTIVE},
        {{"-c", "THREAD"}, concurrency, HTTP_Options::THREAD},
        {{"-cPROCESS"}, concurrency, HTTP_Options::PROCESS},
        {{"--concurrency=THREAD_POOL"}, concurrency, HTTP_Options::THREAD_POOL},
        {{"-c", "THREAD", "-c", "REACTIVE"}, concurrency, HTTP_Options::REACTIVE},
        {{"-c", "THREAD", "-c", "threads"}, concurrency, HTTP_Options::THREAD},
        {{"-c", "THREADS"}, concurrency, HTTP_Options::REACTIVE},
        {{"-c", "thread"}, concurrency, HTTP_Options::REACTIVE},

        {{"--ping-interval=20"}, interval, 20},
        {{"--ping-interval=-1"}, interval, -1},
        {{"--ping-timeout", "10"}, ping, 10},
        {{"--ping-timeout=-1"}, ping, -1},

        {{"--file-read-buffer-size=64k"}, file_read, 65536},
        {{"--file-read-buffer-size=junk"}, file_read, 0},
        {{"--file-write-buffer-size=1m"}, file_write, 1048576},
        {{"--socket-receive-buffer-size=8k"}, receive_size, 8192},
        {{"--socket-receive-buffer-size=9t"}, receive_size, INT_MAX},
        {{"--socket-send-buffer-size=4KiB"}, send_size, 4096},
        {{"--socket-receive-timeout=2k"}, receive, 2048},
        {{"--socket-send-timeout=9"}, send, 9},
        {{"--http-receive-buffer-size=16k"}, http, 16384},

        {{"--read-ahead"}, ahead, 1},
        {{"--read-ahead=0"}, ahead, 1},

        {{"--read-discard-cache"}, read_cache, -1},
        {{"--read-discard-cache=0"}, read_cache, 0},
        {{"--read-discard-cache="}, read_cache, 0},
        {{"--read-discard-cache=-2"}, read_cache, -2},
        {{"--read-discard-cache=-7"}, read_cache, -7},
        {{"--read-discard-cache=1"}, read_cache, PAGE},
        {{"--read-discard-cache", "4097"}, read_cache, -1}, // a word of its own is no value
        {{"--read-discard-cache=4097"}, read_cache, 2 * PAGE},

        {{"--write-sync-close"}, sync_close, 1},
        {{"--write-sync-close=2"}, sync_close, 2},
        {{"--write-sync-close=3"}, sync_close, 3},
        {{"--write-sync-close=0"}, sync_close, 0},

        {{"--write-sync"}, sync, -1},
        {{"--write-sync=1000"}, sync, PAGE},
        {{"--write-sync=8k"}, sync, 2 * PAGE},
        {{"--write-sync=-8192"}, sync, -8192},
        {{"--write-sync=-1000"}, sync, -1000},
        {{"--write-sync=9e"}, sync, LONG_MAX - PAGE + 1}, // rounding up would wrap
        {{"--write-sync=9223372036854771712"}, sync, LONG_MAX - PAGE + 1},
        {{"--write-sync=9223372036854771713"}, sync, LONG_MAX - PAGE + 1},
        {{"--write-sync=9223372036854771711"}, sync, LONG_MAX - PAGE + 1},
        {{"--write-sync=9223372036854767616"}, sync, LONG_MAX - 2 * PAGE + 1},
        {{"--write-sync=-9e"}, sync, LONG_MIN},

        {{"--write-discard-cache"}, write_cache, -1},
        {{"--write-discard-cache=-2"}, write_cache, -2},
        {{"--write-discard-cache=4096"}, write_cache, PAGE},
        {{"--write-discard-cache=10k"}, write_cache, 3 * PAGE},

        {{"-t", "4"}, loops, 4},
        {{"-t4"}, loops, 4},
        {{"-t", "0"}, loops, 1},
        {{"-t", "-5"}, loops, 1},
        {{"-t", "x"}, loops, 1},
        {{"-t", "auto"}, loops, ACE_OS::num_processors()},
        {{"-t", "AUTO"}, loops, 1},
        {{"-t", "autos"}, loops, 1},
    };
    ASSERT_EQ(::sysconf(_SC_PAGESIZE), PAGE);
    for (const Row& row : rows) {
        SCOPED_TRACE(testing::PrintToString(row.words));
        HTTP_Options options;
        EXPECT_EQ(::parse(options, row.words), 0);
        EXPECT_EQ(row.setting(options), row.expected);
        EXPECT_EQ(log_.texts(LM_WARNING), std::vector<std::string>{});
    }
}

TEST_F(HTTP_Options_Test, a_refused_duration_is_reported_and_the_setting_absent)
{
    ASSERT_EQ(parse({"--idle=99999999999", "--ping-interval=-1", "--ping-timeout=-2"}), 0);
    EXPECT_EQ(log_.texts(LM_ERROR), (std::vector<std::string>{
                                        "Invalid idle value 2147483647, mininum 0.\n",
                                        "Invalid ping-interval value -1, mininum 0.\n",
                                        "Invalid ping-timeout value -2, mininum 0.\n",
                                    }));
    EXPECT_EQ(options_.idle_timeout(), nullptr);
    EXPECT_EQ(options_.ping_interval(), nullptr);
    EXPECT_EQ(options_.ping_timeout(), nullptr);
}

TEST_F(HTTP_Options_Test, a_duration_keeps_its_address)
{
    ASSERT_EQ(parse({"--idle=5", "--ping-interval=6", "--ping-timeout=7"}), 0);
    EXPECT_EQ(options_.idle_timeout(), options_.idle_timeout());
    EXPECT_NE(options_.idle_timeout(), options_.ping_interval());
    EXPECT_NE(options_.ping_interval(), options_.ping_timeout());
}

TEST_F(HTTP_Options_Test, settings_in_force_are_logged_in_their_order)
{
    ASSERT_EQ(parse({"--write-discard-cache=5000", "--write-sync=8192", "--write-sync-close",
                     "--read-discard-cache=4096", "--read-ahead", "--http-receive-buffer-size=7",
                     "--socket-send-timeout=6", "--socket-receive-timeout=5",
                     "--socket-send-buffer-size=4", "--socket-receive-buffer-size=3",
                     "--file-write-buffer-size=2", "--file-read-buffer-size=1"}),
              0);
    EXPECT_EQ(log_.texts(LM_DEBUG), (std::vector<std::string>{
                                        "Reading file buffer size: 1\n",
                                        "Writing file buffer size: 2\n",
                                        "Socket receive buffer size: 3\n",
                                        "Socket send buffer size: 4\n",
                                        "Socket receive timeout: 5\n",
                                        "Socket send timeout: 6\n",
                                        "HTTP receive buffer size: 7\n",
                                        "Enabled read-ahead.\n",
                                        "Enabled discard read cache 4096.\n",
                                        "Enabled async write sync before closing.\n",
                                        "Enabled async write sync 8192.\n",
                                        "Enabled discard write cache 8192.\n",
                                    }));
    EXPECT_EQ(log_.lines().size(), 12U);
}

TEST_F(HTTP_Options_Test, a_policy_is_logged_in_its_own_words)
{
    const struct {
        const char* option;
        const char* line; ///< null: nothing is logged
    } rows[] = {
        {"--read-discard-cache=-2", "Enabled read direct.\n"},
        {"--read-discard-cache=-1", "Enabled discard read cache.\n"},
        {"--read-discard-cache", "Enabled discard read cache.\n"},
        {"--read-discard-cache=-3", nullptr},
        {"--read-discard-cache=0", nullptr},
        {"--write-sync-close=1", "Enabled async write sync before closing.\n"},
        {"--write-sync-close=2", "Enabled write sync before closing.\n"},
        {"--write-sync-close=3", nullptr},
        {"--write-sync-close=-1", nullptr},
        {"--write-sync", "Enabled write through.\n"},
        {"--write-sync=-1", "Enabled write through.\n"},
        {"--write-sync=1", "Enabled async write sync 4096.\n"},
        {"--write-sync=-8192", "Enabled write sync 8192.\n"},
        {"--write-sync=-2", "Enabled write sync 2.\n"},
        {"--write-sync=-9e", "Enabled write sync 9223372036854775807.\n"},
        {"--write-sync=0", nullptr},
        {"--write-discard-cache=-2", "Enabled write direct.\n"},
        {"--write-discard-cache", "Enabled discard write cache.\n"},
        {"--write-discard-cache=1", "Enabled discard write cache 4096.\n"},
        {"--write-discard-cache=-3", nullptr},
        {"--socket-receive-timeout=-1", nullptr},
        {"--socket-send-timeout=-1", nullptr},
        {"--socket-receive-buffer-size=-1", nullptr},
        {"--socket-send-buffer-size=-1", nullptr},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.option);
        const Log_Capture log;
        HTTP_Options options;
        EXPECT_EQ(::parse(options, {row.option}), 0);
        const std::vector<std::string> expected =
            row.line != nullptr ? std::vector<std::string>{row.line} : std::vector<std::string>{};
        EXPECT_EQ(log.texts(LM_DEBUG), expected);
        EXPECT_EQ(log.lines().size(), expected.size());
    }
}

TEST_F(HTTP_Options_Test, an_unknown_option_is_named_in_a_warning_and_the_others_apply)
{
    const struct {
        Words words;
        const char* name;
    } rows[] = {
        {{"-x"}, "x"},          {{"--nope"}, "nope"},
        {{"--nope=3"}, "nope"}, {{"--list"}, "list"}, // stands for two options
        {{"--ping=5"}, "ping"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(testing::PrintToString(row.words));
        const Log_Capture log;
        HTTP_Options options;
        Words words = {"-t", "3"};
        words.insert(words.end(), row.words.begin(), row.words.end());
        words.insert(words.end(), {"--listen-backlog", "9"});
        EXPECT_EQ(::parse(options, words), 0);
        EXPECT_EQ(options.loops(), 3);
        EXPECT_EQ(options.listen_backlog(), 9);
        EXPECT_EQ(log.texts(LM_WARNING),
                  std::vector<std::string>{std::string("Unknown HTTP option: ") + row.name + "\n"});
        EXPECT_EQ(log.lines().size(), 1U);
    }
}

TEST_F(HTTP_Options_Test, an_option_that_lacks_its_value_is_unknown)
{
    for (const char* word : {"t", "p", "i", "c", "f", "w", "a", "l", "m", "N", "s"}) {
        SCOPED_TRACE(word);
        const Log_Capture log;
        HTTP_Options options;
        EXPECT_EQ(::parse(options, {std::string("-") + word}), 0);
        EXPECT_EQ(log.texts(LM_WARNING),
                  std::vector<std::string>{std::string("Unknown HTTP option: ") + word + "\n"});
    }
    for (const char* word : {"idle", "listen-backlog", "listen-address", "accept-timeout"}) {
        SCOPED_TRACE(word);
        const Log_Capture log;
        HTTP_Options options;
        EXPECT_EQ(::parse(options, {std::string("--") + word}), 0);
        EXPECT_EQ(log.texts(LM_WARNING),
                  std::vector<std::string>{std::string("Unknown HTTP option: ") + word + "\n"});
    }
}

TEST_F(HTTP_Options_Test, words_that_are_no_options_are_passed_over)
{
    ASSERT_EQ(parse({"word", "-t", "2", "another", "--listen-backlog=3", "", "-", "-i4"}), 0);
    EXPECT_EQ(options_.loops(), 2);
    EXPECT_EQ(options_.listen_backlog(), 3);
    ASSERT_NE(options_.idle_timeout(), nullptr);
    EXPECT_EQ(options_.idle_timeout()->sec(), 4);
    EXPECT_TRUE(log_.lines().empty());
}

TEST_F(HTTP_Options_Test, parsing_adds_to_what_is_there)
{
    ASSERT_EQ(parse({"-p", "8080", "-s", "a", "-t", "4"}), 0);
    ASSERT_EQ(parse({"-p", "8081", "-s", "b"}), 0);
    EXPECT_EQ(options_.loops(), 4);
    EXPECT_EQ(options_.servers(), (HTTP_Options::Servers{"a", "b"}));
    ASSERT_NE(options_.listen_address(1), nullptr);
    EXPECT_EQ(inet(options_.listen_address(1)).get_port_number(), 8081);
}

TEST_F(HTTP_Options_Test, server_names_are_cut_at_commas)
{
    const struct {
        const char* text;
        HTTP_Options::Servers servers;
    } rows[] = {
        {"a", {"a"}},          {"b,a", {"a", "b"}}, {"a,a", {"a"}},    {"a,,b", {"a", "b"}},
        {"a,,,b", {"a", "b"}}, {",a", {"", "a"}},   {"a,", {"", "a"}}, {",,a,,", {"", "a"}},
        {",", {""}},           {",,,", {""}},       {"", {""}},        {" a , b ", {" a ", " b "}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.text);
        HTTP_Options options;
        EXPECT_EQ(::parse(options, {"-s", row.text}), 0);
        EXPECT_EQ(options.servers(), row.servers);
    }
}

TEST_F(HTTP_Options_Test, server_names_accumulate)
{
    ASSERT_EQ(parse({"-s", "a,b", "-sc"}), 0);
    EXPECT_EQ(options_.servers(), (HTTP_Options::Servers{"a", "b", "c"}));
}

TEST_F(HTTP_Options_Test, proxy_from_is_set_by_the_host_only)
{
    options_.proxy_from("192.0.2.1");
    ASSERT_EQ(parse({"--proxy-from=192.0.2.2"}), 0);
    EXPECT_EQ(options_.proxy_from(), "192.0.2.1");
    EXPECT_EQ(log_.count(LM_WARNING, "Unknown HTTP option: proxy-from"), 1U);
}

TEST_F(HTTP_Options_Test, a_listen_address_is_read_by_its_form)
{
    const struct {
        const char* text;
        Listen_Address::Type type;
        const char* host;
        unsigned short port;
        bool ipv6_only;
    } rows[] = {
        {"8080", Listen_Address::TYPE_HTTP, "0.0.0.0", 8080, false},
        {"8443s", Listen_Address::TYPE_HTTPS, "0.0.0.0", 8443, false},
        {"127.0.0.1:8080", Listen_Address::TYPE_HTTP, "127.0.0.1", 8080, false},
        {"127.0.0.1:8443s", Listen_Address::TYPE_HTTPS, "127.0.0.1", 8443, false},
        {"[::1]:80", Listen_Address::TYPE_HTTP, "::1", 80, false},
        {"[::]:80s/ipv6only", Listen_Address::TYPE_HTTPS, "::", 80, true},
        {"8081/ipv6only", Listen_Address::TYPE_HTTP, "0.0.0.0", 8081, true},
        {"8081/ipv6only-and-more", Listen_Address::TYPE_HTTP, "0.0.0.0", 8081, true},
        {"8081/ipv6onl", Listen_Address::TYPE_HTTP, "0.0.0.0", 8081, false},
        {"8081/other", Listen_Address::TYPE_HTTP, "0.0.0.0", 8081, false},
        {"8081/other/ipv6only", Listen_Address::TYPE_HTTP, "0.0.0.0", 8081, false},
        {"8081/", Listen_Address::TYPE_HTTP, "0.0.0.0", 8081, false},
        {"8081s/", Listen_Address::TYPE_HTTPS, "0.0.0.0", 8081, false},
        // The last character is the marker, also of a host name; the rest is no address.
        {"localhos", Listen_Address::TYPE_HTTPS, "::", 0, false},
        // Nothing but a marker is no address either.
        {"s", Listen_Address::TYPE_HTTPS, "::", 0, false},
        {"127.0.0.1", Listen_Address::TYPE_HTTP, "::", 0, false},
        {"65536", Listen_Address::TYPE_HTTP, "::", 0, false},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.text);
        if (row.ipv6_only && !ACE::ipv6_enabled()) {
            continue; // dropped there; see below
        }
        HTTP_Options options;
        ASSERT_TRUE(options.parse_listen_address(row.text));
        const Listen_Address* const address = options.listen_address(0);
        ASSERT_NE(address, nullptr);
        EXPECT_EQ(options.listen_address(1), nullptr);
        EXPECT_EQ(address->type, row.type);
        EXPECT_EQ(host_of(address), row.host);
        EXPECT_EQ(inet(address).get_port_number(), row.port);
        EXPECT_EQ(address->ipv6_only, row.ipv6_only);
        EXPECT_EQ(address->is_ssl(), row.type == Listen_Address::TYPE_HTTPS);
        EXPECT_TRUE(address->is_inet_or_inet6());
    }
    EXPECT_TRUE(log_.lines().empty());
}

TEST_F(HTTP_Options_Test, a_shared_memory_address_is_a_port)
{
    ASSERT_TRUE(options_.parse_listen_address("5000m,5001m/x"));
    for (int i = 0; i < 2; ++i) {
        const Listen_Address* const address = options_.listen_address(i);
        ASSERT_NE(address, nullptr);
        EXPECT_EQ(address->type, Listen_Address::TYPE_HTTPM);
        EXPECT_EQ(dynamic_cast<const ACE_MEM_Addr&>(*address->sap).get_port_number(), 5000 + i);
        EXPECT_FALSE(address->ipv6_only);
        EXPECT_FALSE(address->is_ssl());
    }
}

TEST_F(HTTP_Options_Test, a_path_is_a_unix_domain_address_as_a_whole)
{
    for (const char* path :
         {"/run/x.sock", "@name", "@", "/", "/a/ipv6only", "/streams", "/item"}) {
        SCOPED_TRACE(path);
        HTTP_Options options;
        ASSERT_TRUE(options.parse_listen_address(path));
        const Listen_Address* const address = options.listen_address(0);
        ASSERT_NE(address, nullptr);
        EXPECT_EQ(address->type, Listen_Address::TYPE_HTTPU);
        EXPECT_STREQ(dynamic_cast<const ACE_UNIX_Addr&>(*address->sap).get_path_name(), path);
        EXPECT_FALSE(address->ipv6_only);
        EXPECT_FALSE(address->is_ssl());
        EXPECT_FALSE(address->is_inet_or_inet6());
    }
}

TEST_F(HTTP_Options_Test, a_path_that_is_too_long_fills_its_address)
{
    const std::string too_long = "/" + std::string(107, 'a');
    ASSERT_TRUE(options_.parse_listen_address(too_long.c_str()));
    const auto& address = dynamic_cast<const ACE_UNIX_Addr&>(*options_.listen_address(0)->sap);
    EXPECT_EQ(address.get_path_name(), too_long.substr(0, sizeof(sockaddr_un::sun_path) - 1));
}

TEST_F(HTTP_Options_Test, a_list_of_addresses_is_cut_at_commas_and_keeps_its_order)
{
    ASSERT_EQ(parse({"-p", ",8080,,/run/x.sock,5000m,", "-p8443s", "--listen-address=8081",
                     "--listen-address", "8082"}),
              0);
    const Listen_Address::Type expected[] = {Listen_Address::TYPE_HTTP,  Listen_Address::TYPE_HTTPU,
                                             Listen_Address::TYPE_HTTPM, Listen_Address::TYPE_HTTPS,
                                             Listen_Address::TYPE_HTTP,  Listen_Address::TYPE_HTTP};
    for (int i = 0; i < 6; ++i) {
        ASSERT_NE(options_.listen_address(i), nullptr);
        EXPECT_EQ(options_.listen_address(i)->type, expected[i]);
    }
    EXPECT_EQ(inet(options_.listen_address(4)).get_port_number(), 8081);
    EXPECT_EQ(inet(options_.listen_address(5)).get_port_number(), 8082);
    EXPECT_EQ(options_.listen_address(6), nullptr);
    EXPECT_EQ(options_.listen_address(-1), nullptr);
    EXPECT_EQ(options_.listen_address(INT_MIN), nullptr);
    EXPECT_EQ(options_.listen_address(INT_MAX), nullptr);
}

TEST_F(HTTP_Options_Test, an_empty_list_of_addresses_adds_nothing)
{
    EXPECT_TRUE(options_.parse_listen_address(""));
    EXPECT_TRUE(options_.parse_listen_address(",,"));
    EXPECT_TRUE(options_.parse_listen_address(nullptr));
    EXPECT_EQ(options_.listen_address(0), nullptr);
}

TEST_F(HTTP_Options_Test, ipv6_only_needs_a_system_with_ipv6)
{
    ASSERT_EQ(parse({"-p", "8443s/ipv6only"}), 0);
    EXPECT_EQ(options_.listen_address(0) != nullptr, static_cast<bool>(ACE::ipv6_enabled()));
    EXPECT_TRUE(log_.lines().empty());
}

TEST_F(HTTP_Options_Test, an_address_without_an_object_is_no_inet_address)
{
    const Listen_Address address;
    EXPECT_FALSE(address.is_inet_or_inet6());
    EXPECT_FALSE(address.is_ssl());
}

TEST_F(HTTP_Options_Test, the_local_address_is_the_one_that_suits_a_local_client_best)
{
    const struct {
        const char* addresses;
        const char* host; ///< null: there is none
        unsigned short port;
        bool ssl;
    } rows[] = {
        {"8080", "127.0.0.1", 8080, false},
        {"8443s", "127.0.0.1", 8443, true},
        {"[::]:8080", "::1", 8080, false},
        {"[::1]:8080", "::1", 8080, false},
        {"127.0.0.1:8080", "127.0.0.1", 8080, false},
        {"127.0.0.9:8080", "127.0.0.1", 8080, false},
        {"192.0.2.7:8080", "192.0.2.7", 8080, false},
        {"[2001:db8::7]:8080", "2001:db8::7", 8080, false},
        // plain before TLS, TLS before the others
        {"8443s,192.0.2.7:8080", "192.0.2.7", 8080, false},
        {"5000m,/run/x.sock,8443s", "127.0.0.1", 8443, true},
        // IPv4 before IPv6
        {"[::1]:8081,192.0.2.7:8080", "192.0.2.7", 8080, false},
        {"192.0.2.7:8080,[::1]:8081", "192.0.2.7", 8080, false},
        // loopback, then wildcard, then the others
        {"8081,192.0.2.7:8082,127.0.0.1:8080", "127.0.0.1", 8080, false},
        {"127.0.0.1:8080,8081", "127.0.0.1", 8080, false},
        {"127.0.0.1:8080,192.0.2.7:8081", "127.0.0.1", 8080, false},
        {"192.0.2.7:8081,8080", "127.0.0.1", 8080, false},
        {"8080,192.0.2.7:8081", "127.0.0.1", 8080, false},
        {"[2001:db8::7]:8081,[::]:8080", "::1", 8080, false},
        // of equals the first
        {"8080,8081", "127.0.0.1", 8080, false},
        {"127.0.0.1:8080,127.0.0.1:8081", "127.0.0.1", 8080, false},
        {"192.0.2.7:8080,192.0.2.8:8081", "192.0.2.7", 8080, false},
        // no address for a client over TCP
        {"", nullptr, 0, false},
        {"5000m", nullptr, 0, false},
        {"/run/x.sock", nullptr, 0, false},
        {"/run/x.sock,5000m,5001m,@x", nullptr, 0, false},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.addresses);
        HTTP_Options options;
        ASSERT_TRUE(options.parse_listen_address(row.addresses));
        std::string host = "untouched";
        unsigned short port = 1;
        bool ssl = !row.ssl;
        URI uri;
        const bool found = options.get_local_listen_address(host, port, ssl);
        EXPECT_EQ(found, row.host != nullptr);
        EXPECT_EQ(options.get_local_listen_address(uri), found);
        if (found && row.host != nullptr) {
            EXPECT_EQ(host, row.host);
            EXPECT_EQ(port, row.port);
            EXPECT_EQ(ssl, row.ssl);
            EXPECT_EQ(uri.host(false), row.host);
            EXPECT_EQ(uri.port(), row.port);
            EXPECT_EQ(uri.ssl(), row.ssl);
        } else {
            EXPECT_EQ(host, "untouched");
            EXPECT_EQ(uri.host(false), "");
        }
    }
}

TEST_F(HTTP_Options_Test, a_configuration_file_is_loaded_when_its_option_is_met)
{
    const Scratch scratch;
    const std::string file = scratch / "null.json";
    std::ofstream(file) << plug_in_record("_make_Conf_Test_Null");
    ASSERT_EQ(parse({"-w", file, "--first", "-f", file, "--second", "-a" + file}), 0);
    const std::vector<std::string> lines = all_texts();
    ASSERT_EQ(lines.size(), 5U);
    EXPECT_NE(lines[0].find("Failed to create WebSocket handler for method '/x'"),
              std::string::npos);
    EXPECT_EQ(lines[1], "Unknown HTTP option: first\n");
    EXPECT_NE(lines[2].find("Failed to create HTTP handler for method '/x'"), std::string::npos);
    EXPECT_EQ(lines[3], "Unknown HTTP option: second\n");
    EXPECT_NE(lines[4].find("Failed to create HTTP authenticator handler for method '/x'"),
              std::string::npos);
}

TEST_F(HTTP_Options_Test, a_loaded_plug_in_can_be_found)
{
    const Scratch scratch;
    const std::string file = scratch / "plug-in.json";
    std::ofstream(file) << plug_in_record("_make_Conf_Test");
    ASSERT_EQ(parse({"-f", file}), 0);
    size_t offset = 0;
    EXPECT_NE(HTTP_Handler_Creator_Map::instance()->find("/x/y", '/', offset), nullptr);
    EXPECT_EQ(offset, 2U);
    EXPECT_EQ(WebSocket_Handler_Creator_Map::instance()->find("/x/y", '/', offset), nullptr);
}

TEST_F(HTTP_Options_Test, a_configuration_file_that_cannot_be_loaded_is_reported_and_passed_over)
{
    const Scratch scratch;
    ASSERT_EQ(parse({"-f", scratch / "none.json", "-t", "2"}), 0);
    EXPECT_EQ(options_.loops(), 2);
    EXPECT_EQ(log_.count(LM_ERROR, "none.json"), 1U);
}

TEST_F(HTTP_Options_Test, without_a_path_the_access_log_stays_closed)
{
    ASSERT_EQ(parse({"-m", "10", "-N", "3", "-z"}), 0);
    EXPECT_FALSE(HTTP_Access_Logger_Impl::instance()->is_open());
    ASSERT_EQ(parse({"-l", ""}), 0);
    EXPECT_FALSE(HTTP_Access_Logger_Impl::instance()->is_open());
    EXPECT_TRUE(log_.lines().empty());
}

TEST_F(HTTP_Options_Test, an_access_log_that_cannot_be_opened_is_reported_only)
{
    ASSERT_EQ(parse({"-l", "/none/such/access.log", "-t", "2"}), 0);
    EXPECT_FALSE(HTTP_Access_Logger_Impl::instance()->is_open());
    EXPECT_EQ(log_.count(LM_ERROR, "Failed to open http access log '/none/such/access.log'"), 1U);
}

namespace {

/// How the access log's options reach the logger: by what becomes of 10 lines.
struct Log_Outcome {
    unsigned int copies;
    bool compressed;
};

Log_Outcome outcome_of(const Words& words)
{
    const Scratch scratch;
    const std::string path = scratch / "access.log";
    HTTP_Options options;
    Words all = words;
    all.insert(all.end(), {"-l", path});
    EXPECT_EQ(::parse(options, all), 0);
    HTTP_Access_Logger_Impl* const logger = HTTP_Access_Logger_Impl::instance();
    EXPECT_TRUE(logger->is_open());
    HTTP_Request request;
    EXPECT_EQ(request.request_line("GET", "/" + std::string(500, 'a')), 0);
    const HTTP_Response response;
    for (int i = 0; i < 10; ++i) {
        EXPECT_EQ(logger->log(ACE_Time_Value(1), ACE_Time_Value(1), ACE_INET_Addr(), request,
                              response, 0, 0),
                  0);
    }
    HTTP_Access_Logger_Impl::close_instance();
    finish_log_compression();
    Log_Outcome outcome{0, false};
    for (const auto& entry : std::filesystem::directory_iterator(scratch / "")) {
        outcome.copies += entry.path() != path ? 1U : 0U;
        outcome.compressed = outcome.compressed || entry.path().extension() == ".gz";
    }
    return outcome;
}

} // namespace

TEST_F(HTTP_Options_Test, the_access_log_is_limited_as_its_options_say)
{
    const struct {
        Words words;
        unsigned int copies; ///< of the five times that 10 lines of some 560 bytes pass 1 KiB
        bool compressed;
    } rows[] = {
        {{}, 0, false},
        {{"-m", "1"}, 5, false},
        {{"-m", "1", "-N", "0"}, 5, false},
        {{"-m", "1", "-N", "1"}, 0, false},
        {{"-m", "1", "-N", "4"}, 3, false},
        {{"-m1", "-N2", "-z"}, 1, true},
        {{"-m", "2"}, 2, false},
        {{"-m", "0"}, 0, false},
        {{"-m", "4194304"}, 0, false}, // 4 GiB wraps to no limit
        {{"-m", "4194305"}, 5, false}, // and another KiB to that one
        {{"-m", "-1"}, 0, false},
        {{"-m", "x"}, 0, false},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(testing::PrintToString(row.words));
        const Log_Outcome outcome = outcome_of(row.words);
        EXPECT_EQ(outcome.copies, row.copies);
        EXPECT_EQ(outcome.compressed, row.compressed);
    }
}

TEST_F(HTTP_Options_Test, the_instance_is_fresh_after_it_was_closed)
{
    HTTP_Options::close_instance();
    HTTP_Options* const options = HTTP_Options::instance();
    ASSERT_NE(options, nullptr);
    EXPECT_EQ(HTTP_Options::instance(), options);
    ASSERT_EQ(::parse(*options, {"-t", "4"}), 0);
    HTTP_Options::close_instance();
    EXPECT_EQ(HTTP_Options::instance()->loops(), 1);
    HTTP_Options::close_instance();
    HTTP_Options::close_instance();
}
