// Responses whose body is a file.

#include "tests/support/listener_server.h"
#include "tests/support/log_lines.h"
#include "tests/support/probe_server.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <fstream>

namespace {

constexpr size_t BLOCK = 4096;
constexpr bool HEAD_ONLY = true;

Probe_Server::Setup with_options(const std::vector<std::string>& options)
{
    Probe_Server::Setup setup;
    setup.options = options;
    setup.handlers.push_back({"/response", "response_plugin", "_make_Response"});
    return setup;
}

/// Content in which every position tells itself apart from its neighbours.
std::string content_of(size_t size)
{
    std::string text(size, '\0');
    for (size_t i = 0; i < size; ++i) {
        text[i] = static_cast<char>((i * 31 + i / 251) & 0xFF);
    }
    return text;
}

void expect_kept(Wire_Client& client)
{
    const Wire_Response next = client.exchange(get_request("/probe/hello"));
    EXPECT_EQ("HTTP/1.1 200 OK", next.status_line);
    EXPECT_EQ("Hello, World!", next.body);
}

/// The plug-in asks for the file; the connection ends without a byte and one error line is logged.
void expect_refused(const std::string& path, const std::string& line)
{
    Probe_Server server;
    const auto client = server.connect();
    ASSERT_NE(nullptr, client);
    ASSERT_TRUE(client->send(get_request("/probe/file?" + path)));
    EXPECT_TRUE(client->is_closed_by_peer());
    EXPECT_EQ(0, server.host().stop(SIGTERM));
    EXPECT_EQ(std::vector<std::string>{line}, lines_of(server.host(), "ERROR"));
}

} // namespace

TEST(HTTP_Send_File, sends_files_of_every_number_of_blocks)
{
    Probe_Server server(with_options({"--file-read-buffer-size", "4k"}));
    const auto client = server.connect();
    ASSERT_NE(nullptr, client);
    for (const size_t size : {size_t{0}, size_t{1}, BLOCK - 1, BLOCK, BLOCK + 1, 3 * BLOCK,
                              3 * BLOCK + 1, 100 * BLOCK + 17}) {
        SCOPED_TRACE(size);
        const std::string path = server.folder().write("file.html", content_of(size));
        const Wire_Response counted = client->exchange(get_request("/probe/file?" + path));
        EXPECT_EQ("HTTP/1.1 200 OK", counted.status_line);
        EXPECT_EQ(std::to_string(size), counted.field("content-length"));
        EXPECT_EQ("text/html", counted.field("content-type"));
        EXPECT_EQ("Keep-Alive", counted.field("connection"));
        EXPECT_TRUE(counted.body == content_of(size));

        const Wire_Response chunked = client->exchange(get_request("/probe/chunked-file?" + path));
        EXPECT_EQ("chunked", chunked.field("transfer-encoding"));
        EXPECT_FALSE(chunked.has("content-length"));
        EXPECT_EQ("text/html", chunked.field("content-type"));
        EXPECT_TRUE(chunked.complete);
        EXPECT_TRUE(chunked.body == content_of(size));
    }
    expect_kept(*client);
    EXPECT_EQ(0, server.host().stop(SIGTERM));
    EXPECT_TRUE(lines_of(server.host(), "ERROR").empty());
}

TEST(HTTP_Send_File, chunks_are_the_blocks_of_the_reader)
{
    Probe_Server server(with_options({"--file-read-buffer-size", "4k"}));
    const std::string path = server.folder().write("file", std::string(BLOCK + 1, 'x'));
    const auto client = server.connect();
    ASSERT_NE(nullptr, client);
    client->exchange(get_request("/probe/chunked-file?" + path, {"Connection: close"}), HEAD_ONLY);
    EXPECT_EQ("1000\r\n" + std::string(BLOCK, 'x') + "\r\n1\r\nx\r\n0\r\n\r\n",
              client->read_to_end());
}

TEST(HTTP_Send_File, to_a_client_that_wants_the_close_ends_with_it)
{
    Probe_Server server;
    const auto client = server.connect();
    ASSERT_NE(nullptr, client);
    const std::string path = server.folder().write("file.txt", "text");
    const Wire_Response response =
        client->exchange(get_request("/probe/file?" + path, {"Connection: close"}));
    EXPECT_EQ("4", response.field("content-length"));
    EXPECT_EQ("close", response.field("connection"));
    EXPECT_EQ("text", response.body);
    EXPECT_TRUE(client->is_closed_by_peer());
    EXPECT_EQ(0, server.host().stop(SIGTERM));
    EXPECT_TRUE(lines_of(server.host(), "ERROR").empty());
}

TEST(HTTP_Send_File, head_of_one_block_is_the_header_alone)
{
    Probe_Server server;
    const auto client = server.connect();
    ASSERT_NE(nullptr, client);
    const std::string path = server.folder().write("file.txt", "text");
    const Wire_Response response =
        client->exchange("HEAD /probe/file?" + path + " HTTP/1.1\r\nHost: test\r\n\r\n", HEAD_ONLY);
    EXPECT_EQ("4", response.field("content-length"));
    EXPECT_EQ("text/plain", response.field("content-type"));
    expect_kept(*client);
}

TEST(HTTP_Send_File, large_file_from_a_thread_arrives_whole)
{
    Probe_Server server;
    const auto client = server.connect();
    ASSERT_NE(nullptr, client);
    const std::string content = content_of(8U * 1024 * 1024 + 1);
    const std::string path = server.folder().write("large.bin", content);
    const Wire_Response response = client->exchange(get_request("/probe/thread/file?" + path));
    EXPECT_TRUE(response.complete);
    EXPECT_TRUE(response.body == content);
    expect_kept(*client);
}

TEST(HTTP_Send_File, cache_options_do_not_change_the_content)
{
    const char* const options[] = {"--read-ahead", "--read-discard-cache",
                                   "--read-discard-cache=-2", "--read-discard-cache=8k"};
    for (const char* const option : options) {
        SCOPED_TRACE(option);
        Probe_Server server(with_options({"--file-read-buffer-size", "4k", option}));
        const auto client = server.connect();
        ASSERT_NE(nullptr, client);
        const std::string content = content_of(20 * BLOCK + 5);
        const std::string path = server.folder().write("file.bin", content);
        EXPECT_TRUE(client->exchange(get_request("/probe/file?" + path)).body == content);
        expect_kept(*client);
    }
}

TEST(HTTP_Send_File, media_type_is_that_of_the_text_behind_the_last_dot_of_the_whole_path)
{
    const struct {
        const char* name;
        const char* type;
    } rows[] = {
        {"page.html", "text/html"},
        {"PAGE.HTML", "text/html"},
        {"archive.tar.css", "text/css"},
        {"html", "application/octet-stream"},
        {"page.unknown", "application/octet-stream"},
        {"page.", "application/octet-stream"},
        {"a.html/readme", "application/octet-stream"},
        {"a.b/readme", "application/octet-stream"},
        {"a.b/page.css", "text/css"},
    };
    Probe_Server server;
    const auto client = server.connect();
    ASSERT_NE(nullptr, client);
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const std::string path = server.folder().write(row.name, "x");
        const Wire_Response response = client->exchange(get_request("/probe/file?" + path));
        EXPECT_EQ("HTTP/1.1 200 OK", response.status_line);
        EXPECT_EQ(row.type, response.field("content-type"));
        EXPECT_EQ(1U, response.fields.count("content-type"));
    }
}

TEST(HTTP_Send_File, media_type_replaces_the_one_of_the_plugin)
{
    Probe_Server server(with_options({}));
    const auto client = server.connect();
    ASSERT_NE(nullptr, client);
    const std::string path = server.folder().write("page.html", "x");
    const Wire_Response response = client->exchange(get_request("/response/typed-file?" + path));
    EXPECT_EQ(1U, response.fields.count("content-type"));
    EXPECT_EQ("text/html", response.field("content-type"));
}

TEST(HTTP_Send_File, missing_file_sends_nothing_and_is_logged)
{
    Temporary_Folder folder;
    const std::string path = folder.path() + "/none.html";
    expect_refused(path,
                   "Failed to open file " + path + " to read, errno=2, No such file or directory");
}

TEST(HTTP_Send_File, directory_is_refused)
{
    Temporary_Folder folder;
    expect_refused(folder.path(),
                   "Failed to open file " + folder.path() + " to read, errno=22, Invalid argument");
}

TEST(HTTP_Send_File, fifo_is_refused_without_waiting_for_a_writer)
{
    Temporary_Folder folder;
    const std::string path = folder.path() + "/fifo";
    ASSERT_EQ(0, ::mkfifo(path.c_str(), 0600));
    expect_refused(path, "Failed to open file " + path + " to read, errno=22, Invalid argument");
}

TEST(HTTP_Send_File, failing_read_is_logged)
{
    // An attribute of the system that is there, has a size and cannot be read.
    const std::string path = "/sys/class/net/lo/speed";
    const int handle = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    char byte;
    const bool fails = handle != -1 && ::read(handle, &byte, 1) == -1 && errno == EINVAL;
    if (handle != -1) {
        ::close(handle);
    }
    if (!fails) {
        GTEST_SKIP() << path << " does not fail here";
    }
    expect_refused(path, "Failed to read data from file " + path + ", errno=22, Invalid argument");
}

/// Streams that take files from the system, and one that is written to.
class HTTP_Send_File_Over : public testing::TestWithParam<Listener_Kind> {
protected:
    static constexpr size_t LARGE = 16U * 1024 * 1024; ///< more than the socket buffers hold

    void start(const std::vector<std::string>& options = {})
    {
        path_ = folder_.write("large.bin", content_of(LARGE));
        server_ = std::make_unique<Listener_Server>(GetParam(), with_options(options));
        client_ = server_->connect();
        ASSERT_NE(nullptr, client_);
        peer_ = GetParam() == Listener_Kind::UNIX ? "[::]:0" : client_name(*client_);
        ASSERT_TRUE(client_->send(get_request("/probe/thread/file?" + path_)));
        ASSERT_EQ("HTTP/1.1 200 OK\r\n", client_->read_exactly(17));
    }

    Temporary_Folder folder_;
    std::string path_;
    std::string peer_; ///< as log lines name it
    std::unique_ptr<Listener_Server> server_;
    std::unique_ptr<Wire_Client> client_;
};

INSTANTIATE_TEST_SUITE_P(Every, HTTP_Send_File_Over,
                         testing::Values(Listener_Kind::TCP, Listener_Kind::UNIX,
                                         Listener_Kind::TLS));

TEST_P(HTTP_Send_File_Over, file_that_shrinks_while_it_is_sent_ends_short)
{
    this->start();
    std::filesystem::resize_file(path_, 1024);
    const std::string rest = client_->read_to_end();
    EXPECT_TRUE(client_->at_end());
    EXPECT_LT(rest.size(), LARGE);
    EXPECT_EQ(0, server_->host().stop(SIGTERM));
    // The request, whose response is not complete, is taken for one whose body is still to come.
    EXPECT_EQ((std::vector<std::string>{"HTTP request is lack of Content-Length."}),
              lines_of(server_->host(), "ERROR"));
}

TEST_P(HTTP_Send_File_Over, client_that_never_reads_is_given_up)
{
    this->start({"--socket-send-timeout=1"});
    EXPECT_TRUE(server_->host().wait_for_log(" to HTTP client " + peer_ + ": Timer expired"));
    const std::string rest = client_->read_to_end();
    EXPECT_LT(rest.size(), LARGE);
    EXPECT_EQ(0, server_->host().stop(SIGTERM));
    EXPECT_EQ(1U, lines_of(server_->host(), "ERROR").size()) << server_->host().log_text();
}

TEST_P(HTTP_Send_File_Over, access_log_counts_the_blocks_that_were_taken)
{
    const std::string log = folder_.path() + "/access.log";
    this->start({"-l", log});
    client_->read_exactly(LARGE / 2);
    client_.reset();
    EXPECT_TRUE(server_->host().wait_for_log("Failed to send body to HTTP client " + peer_));
    EXPECT_EQ(0, server_->host().stop(SIGTERM));
    EXPECT_EQ(1U, lines_of(server_->host(), "ERROR").size()) << server_->host().log_text();
    std::ifstream file(log);
    std::string line;
    ASSERT_TRUE(std::getline(file, line));
    const long sent = std::stol(line.substr(line.rfind(' ') + 1));
    EXPECT_GE(sent, static_cast<long>(LARGE / 4)) << line;
    EXPECT_LT(sent, static_cast<long>(LARGE)) << line;
    EXPECT_EQ(sent % (256 * 1024), 0) << line;
}
