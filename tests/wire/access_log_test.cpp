// The access log as a running server writes it.

#include "tests/support/log_lines.h"
#include "tests/support/probe_server.h"

#include <gtest/gtest.h>

#include <zlib.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <thread>

namespace {

constexpr bool HEAD_ONLY = true;

std::vector<std::string> split(const std::string& text)
{
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

std::string content_of(const std::filesystem::path& path)
{
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

/// "broken" when it is not a whole gzip file.
std::string content_of_gzip(const std::string& path)
{
    const gzFile file = ::gzopen(path.c_str(), "rb");
    if (file == nullptr) {
        return "broken";
    }
    std::string text;
    char block[4096];
    int count;
    while ((count = ::gzread(file, block, sizeof block)) > 0) {
        text.append(block, static_cast<size_t>(count));
    }
    const bool is_gzip = ::gzdirect(file) == 0;
    return ::gzclose(file) == Z_OK && count == 0 && is_gzip ? text : "broken";
}

/// A line without what differs from run to run: the time and the duration.
std::string fixed_part(const std::string& line)
{
    static const std::regex form("\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d\\.\\d{6}@([^@]*)@"
                                 "\\d+\\.\\d{6}@(.*)");
    std::smatch parts;
    return std::regex_match(line, parts, form) ? parts[1].str() + " " + parts[2].str()
                                               : "unexpected form: " + line;
}

std::vector<std::string> fixed_parts(const std::string& log)
{
    std::vector<std::string> parts;
    for (const std::string& line : split(log)) {
        parts.push_back(fixed_part(line));
    }
    return parts;
}

/// A server whose access log is in a folder that is still there when the server has ended.
class Access_Log : public testing::Test {
protected:
    Probe_Server::Setup setup(const std::vector<std::string>& options = {}) const
    {
        Probe_Server::Setup result;
        result.options = {"-l", path()};
        result.options.insert(result.options.end(), options.begin(), options.end());
        result.handlers.push_back({"/response", "response_plugin", "_make_Response"});
        return result;
    }

    std::string path() const { return folder_.path() + "/access.log"; }

    std::string text() const { return content_of(path()); }

    /// The names in the folder, in order.
    std::vector<std::string> names() const
    {
        std::vector<std::string> result;
        for (const auto& entry : std::filesystem::directory_iterator(folder_.path())) {
            result.push_back(entry.path().filename().string());
        }
        std::sort(result.begin(), result.end());
        return result;
    }

    /// Sends one request that gets a response.
    static void serve(Wire_Client& client, const std::string& target, size_t times = 1)
    {
        for (size_t i = 0; i < times; ++i) {
            ASSERT_EQ(200, client.exchange(get_request(target)).status);
        }
    }

    Temporary_Folder folder_;
};

} // namespace

TEST_F(Access_Log, has_a_line_for_each_answered_request)
{
    Probe_Server server(setup());
    const auto client = server.connect();
    ASSERT_NE(nullptr, client);
    client->exchange(get_request("/probe/hello?query=1"));
    client->exchange(get_request("/probe/%61bc/hello"));
    client->exchange("HEAD /probe/hello HTTP/1.1\r\nHost: test\r\n\r\n", HEAD_ONLY);
    client->exchange(body_request("POST", "/probe/collect", "seven..", {}));
    client->exchange(body_request("PATCH", "/probe/collect", "seven..", {}));
    client->exchange(chunked_request("PUT", "/probe/collect", {"one", "three"}));
    client->exchange(get_request("/probe/chunked"));
    client->exchange(get_request("/probe/teapot"));
    client->exchange("GET /probe/hello HTTP/1.0\r\n\r\n");
    EXPECT_EQ(0, server.host().stop(SIGTERM));
    const std::vector<std::string> expected = {"127.0.0.1 GET /probe/hello HTTP/1.1 200 0 13",
                                               "127.0.0.1 GET /probe/abc/hello HTTP/1.1 200 0 13",
                                               "127.0.0.1 HEAD /probe/hello HTTP/1.1 200 0 0",
                                               "127.0.0.1 POST /probe/collect HTTP/1.1 200 7 7",
                                               "127.0.0.1 - /probe/collect HTTP/1.1 200 7 7",
                                               "127.0.0.1 PUT /probe/collect HTTP/1.1 200 8 8",
                                               "127.0.0.1 GET /probe/chunked HTTP/1.1 200 0 13",
                                               "127.0.0.1 GET /probe/teapot HTTP/1.1 418 0 3",
                                               "127.0.0.1 GET /probe/hello HTTP/1.0 200 0 13"};
    EXPECT_EQ(expected, fixed_parts(text()));
}

TEST_F(Access_Log, has_a_line_for_each_refusal)
{
    Probe_Server::Setup guarded = setup();
    guarded.authenticators = {{"/probe/guarded", "probe_plugin", "_make_Probe_Auth"}};
    Probe_Server server(guarded);
    for (const std::string& request :
         {get_request("/none"), get_request("/probe/guarded/hello", {"X-Pass: 401"}),
          get_request("/probe/silent"), get_request("/probe/reactive/hello"),
          get_request("/probe/hello", {"Upgrade: other"})}) {
        const auto client = server.connect();
        ASSERT_NE(nullptr, client);
        client->exchange(request);
        EXPECT_TRUE(client->is_closed_by_peer());
    }
    EXPECT_EQ(0, server.host().stop(SIGTERM));
    const std::vector<std::string> expected = {
        "127.0.0.1 GET /none HTTP/1.1 404 0 0",
        "127.0.0.1 GET /probe/guarded/hello HTTP/1.1 401 0 0",
        "127.0.0.1 GET /probe/silent HTTP/1.1 411 0 0",
        "127.0.0.1 GET /probe/reactive/hello HTTP/1.1 500 0 0",
        "127.0.0.1 GET /probe/hello HTTP/1.1 501 0 0"};
    EXPECT_EQ(expected, fixed_parts(text()));
}

TEST_F(Access_Log, has_a_line_for_each_of_pipelined_requests)
{
    Probe_Server server(setup());
    const auto client = server.connect();
    ASSERT_NE(nullptr, client);
    ASSERT_TRUE(client->send(get_request("/probe/hello") +
                             body_request("POST", "/probe/collect", "abc") +
                             get_request("/probe/chunked")));
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(200, client->read_response().status);
    }
    EXPECT_EQ(0, server.host().stop(SIGTERM));
    const std::vector<std::string> expected = {"127.0.0.1 GET /probe/hello HTTP/1.1 200 0 13",
                                               "127.0.0.1 POST /probe/collect HTTP/1.1 200 3 3",
                                               "127.0.0.1 GET /probe/chunked HTTP/1.1 200 0 13"};
    EXPECT_EQ(expected, fixed_parts(text()));
}

TEST_F(Access_Log, has_a_line_for_a_request_served_in_a_thread)
{
    Probe_Server server(setup());
    const auto client = server.connect();
    ASSERT_NE(nullptr, client);
    serve(*client, "/probe/thread", 2);
    EXPECT_EQ(0, server.host().stop(SIGTERM));
    const std::vector<std::string> expected(2, "127.0.0.1 GET /probe/thread HTTP/1.1 200 0 13");
    EXPECT_EQ(expected, fixed_parts(text()));
}

TEST_F(Access_Log, counts_what_was_sent_of_a_response_that_was_broken_off)
{
    Probe_Server server(setup());
    const auto client = server.connect();
    ASSERT_NE(nullptr, client);
    const Wire_Response response = client->exchange(get_request("/probe/half"));
    EXPECT_EQ("Hello", response.body);
    EXPECT_FALSE(response.complete);
    EXPECT_EQ(0, server.host().stop(SIGTERM));
    EXPECT_EQ(std::vector<std::string>{"127.0.0.1 GET /probe/half HTTP/1.1 200 0 5"},
              fixed_parts(text()));
}

TEST_F(Access_Log, has_nothing_for_a_request_without_a_response)
{
    Probe_Server server(setup());
    // A parse error; a plug-in that gives up; a client that leaves in the middle of its request.
    for (const char* const request : {"GARBAGE\r\n\r\n", "GET /probe/fail HTTP/1.1\r\n\r\n"}) {
        const auto client = server.connect();
        ASSERT_NE(nullptr, client);
        ASSERT_TRUE(client->send(request));
        EXPECT_TRUE(client->is_closed_by_peer());
    }
    {
        const auto client = server.connect();
        ASSERT_NE(nullptr, client);
        ASSERT_TRUE(client->send("POST /probe/collect HTTP/1.1\r\nContent-Length: 9\r\n\r\nabc"));
        EXPECT_TRUE(server.host().wait_for_log("probe: handle_body 3"));
    }
    EXPECT_TRUE(server.host().wait_for_log("probe: handle_close collect"));
    const auto client = server.connect();
    ASSERT_NE(nullptr, client);
    serve(*client, "/probe/hello");
    EXPECT_EQ(0, server.host().stop(SIGTERM));
    EXPECT_EQ(std::vector<std::string>{"127.0.0.1 GET /probe/hello HTTP/1.1 200 0 13"},
              fixed_parts(text()));
}

TEST_F(Access_Log, duration_is_the_time_from_the_first_byte_to_the_end)
{
    using Seconds = std::chrono::duration<double>;
    Probe_Server server(setup());
    const auto client = server.connect();
    ASSERT_NE(nullptr, client);
    const auto begin = std::chrono::steady_clock::now();
    ASSERT_TRUE(client->send("POST /probe/collect HTTP/1.1\r\nContent-Length: 2\r\n\r\na"));
    ASSERT_TRUE(server.host().wait_for_log("probe: handle_body 1"));
    const auto begun = std::chrono::steady_clock::now();
    EXPECT_TRUE(client->is_silent(std::chrono::milliseconds(30)));
    const Seconds least = std::chrono::steady_clock::now() - begun;
    ASSERT_TRUE(client->send("b"));
    EXPECT_EQ("ab", client->read_response().body);
    EXPECT_EQ(0, server.host().stop(SIGTERM));
    const Seconds most = std::chrono::steady_clock::now() - begin;

    const std::string line = text();
    const size_t at = line.find('@', line.find('@') + 1);
    ASSERT_NE(std::string::npos, at) << line;
    const double duration = std::stod(line.substr(at + 1));
    EXPECT_GE(duration, least.count());
    EXPECT_LE(duration, most.count());
}

TEST_F(Access_Log, shows_the_peer_of_each_kind_of_listener)
{
    const unsigned short port = free_local_port();
    const std::string socket = folder_.path() + "/socket";
    Probe_Server server(setup({"-p", "[::1]:" + std::to_string(port), "-p", socket}));
    const auto ipv6 = Wire_Client::tcp("::1", port);
    ASSERT_NE(nullptr, ipv6);
    serve(*ipv6, "/probe/hello");
    const auto local = Wire_Client::unix_domain(socket);
    ASSERT_NE(nullptr, local);
    serve(*local, "/probe/hello");
    EXPECT_EQ(0, server.host().stop(SIGTERM));
    std::vector<std::string> lines = fixed_parts(text());
    std::sort(lines.begin(), lines.end());
    ASSERT_EQ(2U, lines.size());
    EXPECT_TRUE(lines[0] == "0.0.0.0 GET /probe/hello HTTP/1.1 200 0 13" ||
                lines[0] == ":: GET /probe/hello HTTP/1.1 200 0 13")
        << lines[0];
    EXPECT_EQ("::1 GET /probe/hello HTTP/1.1 200 0 13", lines[1]);
}

TEST_F(Access_Log, shows_an_ipv4_peer_of_a_dual_stack_listener_as_such)
{
    const unsigned short port = free_local_port();
    Probe_Server server(setup({"-p", "[::]:" + std::to_string(port)}));
    const auto client = Wire_Client::tcp("127.0.0.1", port);
    ASSERT_NE(nullptr, client);
    serve(*client, "/probe/hello");
    EXPECT_EQ(0, server.host().stop(SIGTERM));
    EXPECT_EQ(std::vector<std::string>{"127.0.0.1 GET /probe/hello HTTP/1.1 200 0 13"},
              fixed_parts(text()));
}

TEST_F(Access_Log, is_appended_to_by_the_next_server)
{
    for (int i = 0; i < 2; ++i) {
        Probe_Server server(setup());
        const auto client = server.connect();
        ASSERT_NE(nullptr, client);
        serve(*client, "/probe/hello");
    }
    EXPECT_EQ(2U, split(text()).size());
    EXPECT_EQ(std::filesystem::perms::owner_read | std::filesystem::perms::owner_write,
              std::filesystem::status(path()).permissions());
}

TEST_F(Access_Log, grows_without_a_limit)
{
    Probe_Server server(setup());
    const auto client = server.connect();
    ASSERT_NE(nullptr, client);
    serve(*client, "/probe/hello", 100);
    EXPECT_EQ(0, server.host().stop(SIGTERM));
    EXPECT_EQ(std::vector<std::string>{"access.log"}, names());
    EXPECT_EQ(100U, split(text()).size());
}

TEST_F(Access_Log, keeps_the_newest_copies)
{
    Probe_Server server(setup({"-m", "1", "-N", "3"}));
    const auto client = server.connect();
    ASSERT_NE(nullptr, client);
    constexpr size_t REQUESTS = 100;
    serve(*client, "/probe/hello", REQUESTS);
    EXPECT_EQ(0, server.host().stop(SIGTERM));

    // Two copies beside the live file; a file is rotated by the line that takes it above 1 KiB.
    const size_t length = text().empty() ? 0 : text().find('\n') + 1;
    const std::vector<std::string> files = names();
    ASSERT_EQ(3U, files.size());
    EXPECT_EQ("access.log", files[0]);
    size_t kept = split(text()).size();
    std::vector<int> numbers;
    for (size_t i = 1; i < files.size(); ++i) {
        numbers.push_back(std::stoi(files[i].substr(std::string("access.log.").size())));
        const std::string copy = content_of(folder_.path() + "/" + files[i]);
        EXPECT_GT(copy.size(), 1024U);
        EXPECT_LE(copy.size(), 1024U + 100U);
        EXPECT_EQ('\n', copy.back());
        kept += split(copy).size();
    }
    const size_t per_file = split(content_of(folder_.path() + "/" + files[1])).size();
    EXPECT_EQ(2 * per_file + REQUESTS % per_file, kept) << "line of " << length << " bytes";
    EXPECT_EQ(static_cast<int>(REQUESTS / per_file), std::max(numbers[0], numbers[1]));
    EXPECT_EQ(1, std::abs(numbers[0] - numbers[1]));
}

TEST_F(Access_Log, goes_on_counting_the_copies_of_the_last_run)
{
    for (int i = 0; i < 2; ++i) {
        Probe_Server server(setup({"-m", "1"}));
        const auto client = server.connect();
        ASSERT_NE(nullptr, client);
        while (names().size() < static_cast<size_t>(i) + 2) {
            serve(*client, "/probe/hello");
        }
        EXPECT_EQ(0, server.host().stop(SIGTERM));
    }
    const std::vector<std::string> expected = {"access.log", "access.log.1", "access.log.2"};
    EXPECT_EQ(expected, names());
}

TEST_F(Access_Log, loses_no_line_in_compressed_copies_under_parallel_clients)
{
    constexpr size_t CLIENTS = 8;
    constexpr size_t REQUESTS = 50;
    {
        Probe_Server server(setup({"-t", "4", "-m", "1", "-z"}));
        std::vector<std::thread> threads;
        for (size_t i = 0; i < CLIENTS; ++i) {
            threads.emplace_back([&server, i] {
                const auto client = server.connect();
                ASSERT_NE(nullptr, client);
                // Half of them in worker threads.
                serve(*client, i % 2 == 0 ? "/probe/hello" : "/probe/thread", REQUESTS);
            });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
        EXPECT_EQ(0, server.host().stop(SIGTERM));
    }
    std::vector<std::string> lines = fixed_parts(text());
    size_t copies = 0;
    for (const std::string& name : names()) {
        if (name != "access.log") {
            EXPECT_TRUE(name.ends_with(".gz")) << name;
            const auto more = fixed_parts(content_of_gzip(folder_.path() + "/" + name));
            lines.insert(lines.end(), more.begin(), more.end());
            ++copies;
        }
    }
    EXPECT_GT(copies, 10U);
    EXPECT_EQ(CLIENTS * REQUESTS / 2, std::count(lines.begin(), lines.end(),
                                                 "127.0.0.1 GET /probe/hello HTTP/1.1 200 0 13"));
    EXPECT_EQ(CLIENTS * REQUESTS / 2, std::count(lines.begin(), lines.end(),
                                                 "127.0.0.1 GET /probe/thread HTTP/1.1 200 0 13"));
    EXPECT_EQ(CLIENTS * REQUESTS, lines.size());
}

TEST_F(Access_Log, keeps_as_many_compressed_copies_as_configured)
{
    Probe_Server server(setup({"-m", "1", "-N", "3", "-z"}));
    const auto client = server.connect();
    ASSERT_NE(nullptr, client);
    serve(*client, "/probe/hello", 100);
    EXPECT_EQ(0, server.host().stop(SIGTERM));
    const std::vector<std::string> files = names();
    ASSERT_EQ(3U, files.size());
    for (size_t i = 1; i < files.size(); ++i) {
        EXPECT_TRUE(files[i].ends_with(".gz")) << files[i];
        EXPECT_GT(content_of_gzip(folder_.path() + "/" + files[i]).size(), 1024U);
    }
}

TEST_F(Access_Log, without_copies_is_emptied_at_the_limit)
{
    Probe_Server server(setup({"-m", "1", "-N", "1"}));
    const auto client = server.connect();
    ASSERT_NE(nullptr, client);
    serve(*client, "/probe/hello", 50);
    serve(*client, "/probe/chunked");
    EXPECT_EQ(0, server.host().stop(SIGTERM));
    EXPECT_EQ(std::vector<std::string>{"access.log"}, names());
    EXPECT_LE(text().size(), 1024U);
    for (const std::string& line : fixed_parts(text())) {
        EXPECT_TRUE(line.ends_with(" HTTP/1.1 200 0 13")) << line;
    }
}

TEST_F(Access_Log, that_cannot_be_opened_is_one_error_and_the_server_runs)
{
    Probe_Server::Setup broken;
    const std::string path = folder_.path() + "/none/access.log";
    broken.options = {"-l", path};
    Probe_Server server(broken);
    const auto client = server.connect();
    ASSERT_NE(nullptr, client);
    serve(*client, "/probe/hello", 3);
    EXPECT_EQ(0, server.host().stop(SIGTERM));
    EXPECT_EQ(std::vector<std::string>{"Failed to open http access log '" + path +
                                       "' for writing, errno=2, No such file or directory"},
              lines_of(server.host(), "ERROR"));
}

TEST_F(Access_Log, that_cannot_be_written_is_logged_and_the_server_runs)
{
    Probe_Server::Setup full;
    full.options = {"-l", "/dev/full"};
    Probe_Server server(full);
    const auto client = server.connect();
    ASSERT_NE(nullptr, client);
    serve(*client, "/probe/hello", 2);
    EXPECT_EQ(0, server.host().stop(SIGTERM));
    const std::vector<std::string> expected(
        2, "Failed to write http access log, errno=28, No space left on device");
    EXPECT_EQ(expected, lines_of(server.host(), "ERROR"));
}
