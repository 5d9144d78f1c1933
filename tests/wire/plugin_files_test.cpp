#include "tests/support/listener_server.h"
#include "tests/support/log_lines.h"
#include "tests/support/probe_server.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <filesystem>

namespace {

namespace fs = std::filesystem;

constexpr bool HEAD_ONLY = true;
constexpr const char* SECRET = "SECRET-OUTSIDE";
constexpr const char* PAGE = "0123456789abcdef";

/// More than the socket buffers of both sides hold: while nobody reads, it is still being sent.
constexpr size_t LARGE = 16 * 1024 * 1024;

/// Bytes that tell where they stand.
std::string numbered_bytes(size_t length, const std::string& mark)
{
    std::string text;
    for (size_t i = 0; text.size() < length; ++i) {
        text += mark + std::to_string(i) + "\n";
    }
    text.resize(length);
    return text;
}

/// The plug-in serves the folder "root", beside which lies a secret.
class Files_Plug_In : public testing::Test {
protected:
    void SetUp() override
    {
        folder_.write("secret.txt", SECRET);
        folder_.write("rooted/secret.txt", SECRET); // a folder whose name begins like the root's
        folder_.write("root/page.html", PAGE);
        folder_.write("root/script.js", "plain script");
        folder_.write("root/script.js.gz", "(compressed)");
        folder_.write("root/index.html", "root index");
        folder_.write("root/dir/index.html", "dir index");
        folder_.write("root/empty.txt", "");
        folder_.write("root/c++.txt", "plus");
        folder_.write("root/a b.txt", "blank");
        folder_.write("root/.htpasswd", "hidden");
        this->start("--root " + this->root() + " --cache-control max-age=60");
    }

    void TearDown() override
    {
        client_.reset();
        if (server_ != nullptr) {
            EXPECT_EQ(0, server_->host().stop(SIGTERM));
        }
    }

    void start(const std::string& params)
    {
        Probe_Server::Setup setup;
        setup.handlers = {{"/files", "httpd_files", "_make_Files", params},
                          {"/probe", "probe_plugin", "_make_Probe"}};
        setup.options = {"-t", "1"};
        server_ = std::make_unique<Probe_Server>(setup);
        client_ = server_->connect();
        ASSERT_NE(nullptr, client_);
    }

    std::string root() const { return folder_.path() + "/root"; }

    Wire_Response get(const std::string& target, const std::vector<std::string>& fields = {})
    {
        return client_->exchange(get_request(target, fields));
    }

    void expect_service()
    {
        const auto other = server_->connect();
        ASSERT_NE(nullptr, other);
        EXPECT_EQ(PAGE, other->exchange(get_request("/files/page.html")).body);
    }

    Temporary_Folder folder_;
    std::unique_ptr<Probe_Server> server_;
    std::unique_ptr<Wire_Client> client_;
};

} // namespace

TEST_F(Files_Plug_In, serves_a_file_with_its_fields)
{
    for (int i = 0; i < 3; ++i) { // the first requests learn where the path goes on
        const Wire_Response response = this->get("/files/page.html?query=is&no=matter");
        EXPECT_EQ("HTTP/1.1 200 OK", response.status_line);
        EXPECT_EQ(PAGE, response.body);
        EXPECT_EQ("text/html", response.field("content-type"));
        EXPECT_EQ("16", response.field("content-length"));
        EXPECT_EQ("max-age=60", response.field("cache-control"));
        EXPECT_EQ("bytes", response.field("accept-ranges"));
        EXPECT_TRUE(response.has("etag"));
        EXPECT_TRUE(response.has("last-modified"));
        EXPECT_EQ("Keep-Alive", response.field("connection"));
    }
    EXPECT_EQ("", this->get("/files/empty.txt").body);
    EXPECT_EQ("blank", this->get("/files/a%20b.txt").body);
    EXPECT_EQ(404, this->get("/files/missing.html").status);
}

TEST_F(Files_Plug_In, head_has_the_fields_of_the_get)
{
    for (const char* target : {"/files/page.html", "/files/script.js", "/files/missing"}) {
        const Wire_Response get = this->get(target);
        const Wire_Response head = client_->exchange(
            std::string("HEAD ") + target + " HTTP/1.1\r\nHost: test\r\n\r\n", HEAD_ONLY);
        EXPECT_EQ(get.status, head.status) << target;
        for (const char* name :
             {"content-length", "content-type", "etag", "last-modified", "vary", "accept-ranges"}) {
            EXPECT_EQ(get.field(name), head.field(name)) << target << " " << name;
        }
    }
    EXPECT_EQ(PAGE, this->get("/files/page.html").body); // no body has come in between
}

TEST_F(Files_Plug_In, conditional_requests_are_answered_without_the_file)
{
    const Wire_Response first = this->get("/files/page.html");
    const std::string tag = first.field("etag");
    const std::string date = first.field("last-modified");
    for (const std::string& condition :
         {"If-None-Match: " + tag, "If-Modified-Since: " + date, "If-None-Match: \"x\", " + tag,
          std::string("If-None-Match: *")}) {
        const Wire_Response response = this->get("/files/page.html", {condition});
        EXPECT_EQ(304, response.status) << condition;
        EXPECT_EQ(tag, response.field("etag")) << condition;
    }
    EXPECT_EQ(PAGE, this->get("/files/page.html", {"If-None-Match: \"other\""}).body);
    EXPECT_EQ(412, this->get("/files/page.html", {"If-Match: \"other\""}).status);
    EXPECT_EQ(PAGE, this->get("/files/page.html", {"If-Match: " + tag}).body);
    EXPECT_EQ(412,
              this->get("/files/page.html", {"If-Unmodified-Since: Mon, 01 Jan 2001 00:00:00 GMT"})
                  .status);
    EXPECT_EQ(PAGE, this->get("/files/page.html").body);
}

TEST_F(Files_Plug_In, one_range_is_a_part_of_the_file)
{
    const struct {
        const char* range;
        int status;
        const char* body;
        const char* content_range;
    } rows[] = {
        {"bytes=0-3", 206, "0123", "bytes 0-3/16"},
        {"bytes=10-", 206, "abcdef", "bytes 10-15/16"},
        {"bytes=-4", 206, "cdef", "bytes 12-15/16"},
        {"bytes=15-99999999999999999999", 206, "f", "bytes 15-15/16"},
        {"bytes=0-0", 206, "0", "bytes 0-0/16"},
        {"bytes=16-", 416, "", "bytes */16"},
        {"bytes=-0", 416, "", "bytes */16"},
        {"bytes=0-1,3-4", 200, PAGE, ""},
        {"lines=0-1", 200, PAGE, ""},
    };
    for (const auto& row : rows) {
        const Wire_Response response =
            this->get("/files/page.html", {std::string("Range: ") + row.range});
        EXPECT_EQ(row.status, response.status) << row.range;
        EXPECT_EQ(row.body, response.body) << row.range;
        EXPECT_EQ(row.content_range, response.field("content-range")) << row.range;
    }
    const std::string tag = this->get("/files/page.html").field("etag");
    EXPECT_EQ("01", this->get("/files/page.html", {"Range: bytes=0-1", "If-Range: " + tag}).body);
    EXPECT_EQ(PAGE, this->get("/files/page.html", {"Range: bytes=0-1", "If-Range: \"x\""}).body);
}

TEST_F(Files_Plug_In, compressed_sibling_goes_to_those_who_accept_it)
{
    const Wire_Response plain = this->get("/files/script.js");
    EXPECT_EQ("plain script", plain.body);
    EXPECT_FALSE(plain.has("content-encoding"));
    EXPECT_EQ("Accept-Encoding", plain.field("vary"));
    const Wire_Response compressed = this->get("/files/script.js", {"Accept-Encoding: br, gzip"});
    EXPECT_EQ("(compressed)", compressed.body);
    EXPECT_EQ("gzip", compressed.field("content-encoding"));
    EXPECT_EQ("Accept-Encoding", compressed.field("vary"));
    EXPECT_EQ(plain.field("content-type"), compressed.field("content-type"));
    EXPECT_NE(plain.field("etag"), compressed.field("etag"));
    EXPECT_EQ("plain script", this->get("/files/script.js", {"Accept-Encoding: gzip;q=0"}).body);
}

TEST_F(Files_Plug_In, other_spellings_are_redirected)
{
    const struct {
        const char* target;
        const char* location;
    } rows[] = {
        {"/files/dir", "/files/dir/"},
        {"/files/dir?a=b", "/files/dir/?a=b"},
        {"/files", "/files/"},
        {"/files/c%2B%2B.txt", "/files/c++.txt"},
        {"/files/nothing%2bhere", "/files/nothing+here"},
    };
    for (const auto& row : rows) {
        const Wire_Response response = this->get(row.target);
        EXPECT_EQ(301, response.status) << row.target;
        EXPECT_EQ(row.location, response.field("location")) << row.target;
    }
    EXPECT_EQ("dir index", this->get("/files/dir/").body);
    EXPECT_EQ("root index", this->get("/files/").body);
    EXPECT_EQ("plus", this->get("/files/c++.txt").body);
}

TEST_F(Files_Plug_In, other_methods_are_not_allowed)
{
    for (const char* method : {"POST", "PUT", "DELETE", "PATCH", "OPTIONS", "TRACE", "MKCOL"}) {
        const Wire_Response response = client_->exchange(
            std::string(method) + " /files/page.html HTTP/1.1\r\nHost: test\r\n\r\n");
        EXPECT_EQ("HTTP/1.1 405 Method Not Allowed", response.status_line) << method;
        EXPECT_EQ("GET, HEAD", response.field("allow")) << method;
    }
    EXPECT_EQ(PAGE, this->get("/files/page.html").body);
}

TEST_F(Files_Plug_In, nothing_outside_the_root_is_served)
{
    fs::create_symlink(folder_.path() + "/secret.txt", this->root() + "/absolute.txt");
    fs::create_symlink("../secret.txt", this->root() + "/relative.txt");
    fs::create_symlink(folder_.path(), this->root() + "/folder");
    fs::create_symlink("..", this->root() + "/parent");
    fs::create_symlink("dir/../../secret.txt", this->root() + "/winding.txt");
    fs::create_symlink("absolute.txt", this->root() + "/twice.txt");
    fs::create_symlink("/proc/self/root" + folder_.path() + "/secret.txt",
                       this->root() + "/magic.txt");
    ASSERT_EQ(0, ::mkfifo((this->root() + "/pipe").c_str(), 0600));
    const std::string outside = folder_.path() + "/secret.txt";
    std::string encoded; // the whole path, its slashes encoded
    for (const char c : outside) {
        encoded += c == '/' ? "%2f" : std::string(1, c);
    }
    std::vector<std::string> targets = {
        "/files/absolute.txt",
        "/files/relative.txt",
        "/files/folder/secret.txt",
        "/files/parent/secret.txt",
        "/files/winding.txt",
        "/files/twice.txt",
        "/files/magic.txt",
        "/files/pipe",
        "/files/folder",
        "/files/folder/",
        "/files/parent/",
        "/files/parent",
        // Names that are never served, although inside.
        "/files/.htpasswd",
        "/files/%2ehtpasswd",
        "/files/dir/%2e/index.html",
        // Paths that begin elsewhere.
        "/files/" + outside,
        "/files" + outside,
        outside,
        "/files//" + outside,
        "/files/" + encoded,
        "/files" + encoded,
        "file://" + outside,
        "http://test/files/../secret.txt",
        "http://test/files/%2e%2e/secret.txt",
        "../secret.txt",
        "files/page.html",
        "*",
        "test:80",
        "//secret.txt",
        "/filesecret.txt",
        "/files../secret.txt",
        "/files/..",
        "/files/.",
        "/files/../",
        "/files/~root/",
        "/files/../rooted/secret.txt",
        "/rooted/secret.txt",
        "/files/page.html/../../secret.txt",
        "/files/page.html/",
        "/files/page.html/x",
    };
    const char* const ups[] = {
        "../",
        "..%2f",
        "..%2F",
        "%2e%2e/",
        "%2E%2E/",
        "%2e./",
        ".%2e/",
        "%2e%2e%2f",
        "%2e%2e%2F",
        "%252e%252e/",
        "%252e%252e%252f",
        "..%252f",
        "..\\",
        "..%5c",
        "..%5C",
        "%2e%2e%5c",
        "%2e%2e\\",
        "..%00/",
        "..%01/",
        "..%20/",
        "..;/",
        "..;a=b/",
        "..%3b/",
        "....//",
        ".../",
        "..././",
        "./.././",
        ".//../",
        "%c0%ae%c0%ae/",
        "%c0%ae%c0%ae%c0%af",
        "..%c0%af",
        "..%e0%80%af",
        "%e0%80%ae%e0%80%ae/",
        "%u002e%u002e/",
        "%uff0e%uff0e/",
        "..%u2215",
        "%%32%65%%32%65/",
        "..%ef%bc%8f",
        "..%0d%0a/",
        "..%09/",
        "..//",
        "%2f../",
        "/..",
        "..%2f%2e%2e/",
        "..?/",
        "..#/",
        "..%23/",
        "..%3f/",
        "%ff%fe../",
        "..%80/",
    };
    for (const char* up : ups) {
        for (const char* prefix : {"/files/", "/files/dir/", "/files/missing/", "/files"}) {
            targets.push_back(std::string(prefix) + up + "secret.txt");
            targets.push_back(std::string(prefix) + up + up + "secret.txt");
            targets.push_back(std::string(prefix) + up + "root/" + up + "secret.txt");
        }
    }
    for (const char* suffix : {"%00", "%00.html", "%0a", "%20", "::$DATA", "%5c", "\\", "%7f"}) {
        targets.push_back("/files/relative.txt" + std::string(suffix));
        targets.push_back("/files/../secret.txt" + std::string(suffix));
    }
    for (const std::string& target : targets) {
        std::string next = target;
        for (int hop = 0; hop < 3 && !next.empty(); ++hop) { // where a redirect leads, too
            const auto client = server_->connect();
            ASSERT_NE(nullptr, client);
            ASSERT_TRUE(client->send(get_request(next, {"Connection: close"})));
            const Wire_Response response = client->read_response();
            const std::string all = response.raw_head + response.body + client->read_to_end();
            EXPECT_TRUE(client->at_end()) << next;
            EXPECT_EQ(std::string::npos, all.find(SECRET)) << next;
            EXPECT_EQ(std::string::npos, all.find("hidden")) << next;
            EXPECT_TRUE(response.status == 0 || response.status == 400 || response.status == 404 ||
                        response.status == 301)
                << next << ": " << response.status_line;
            next = response.status == 301 ? response.field("location") : "";
        }
    }
    EXPECT_EQ(PAGE, this->get("/files/page.html").body);
}

TEST_F(Files_Plug_In, raw_control_characters_in_a_path_end_the_connection)
{
    for (const char byte : {'\0', '\x01', '\t', '\x7f', '\x80'}) {
        const auto client = server_->connect();
        ASSERT_NE(nullptr, client);
        ASSERT_TRUE(client->send(get_request("/files/page.html" + std::string(1, byte))));
        EXPECT_TRUE(client->is_closed_by_peer()) << static_cast<int>(byte);
    }
    EXPECT_EQ(PAGE, this->get("/files/page.html").body);
}

TEST_F(Files_Plug_In, links_that_stay_inside_are_followed)
{
    fs::create_symlink("page.html", this->root() + "/inside.html");
    fs::create_symlink("../page.html", this->root() + "/dir/up.html");
    EXPECT_EQ(PAGE, this->get("/files/inside.html").body);
    EXPECT_EQ(PAGE, this->get("/files/dir/up.html").body);
}

TEST_F(Files_Plug_In, slow_reader_of_a_large_file_holds_nobody_up)
{
    const std::string large = numbered_bytes(LARGE, "L");
    folder_.write("root/large.bin", large);
    const auto slow = server_->connect();
    ASSERT_NE(nullptr, slow);
    ASSERT_TRUE(slow->send(get_request("/files/large.bin")));
    const std::string begin = slow->read_exactly(100); // it is being sent
    ASSERT_EQ(100U, begin.size());
    for (int i = 0; i < 20; ++i) {
        this->expect_service();
    }
    const std::string head_and_body = begin + slow->read_exactly(large.size());
    const size_t body = head_and_body.find("\r\n\r\n") + 4;
    const std::string rest = slow->read_exactly(body - 100);
    EXPECT_TRUE(large == head_and_body.substr(body) + rest);
    EXPECT_EQ(PAGE, slow->exchange(get_request("/files/page.html")).body);
}

TEST_F(Files_Plug_In, file_replaced_while_it_is_sent_goes_out_as_it_was)
{
    const std::string old_text = numbered_bytes(LARGE, "old");
    const std::string new_text = numbered_bytes(LARGE, "new");
    folder_.write("root/large.bin", old_text);
    folder_.write("new.bin", new_text);
    const auto slow = server_->connect();
    ASSERT_NE(nullptr, slow);
    ASSERT_TRUE(slow->send(get_request("/files/large.bin")));
    const std::string begin = slow->read_exactly(1);
    fs::rename(folder_.path() + "/new.bin", this->root() + "/large.bin");
    std::string all = begin + slow->read_exactly(old_text.size());
    const size_t body = all.find("\r\n\r\n") + 4;
    all += slow->read_exactly(body - 1);
    EXPECT_TRUE(old_text == all.substr(body));
    EXPECT_TRUE(new_text == slow->exchange(get_request("/files/large.bin")).body);
}

TEST_F(Files_Plug_In, file_that_shrinks_while_it_is_sent_ends_short)
{
    folder_.write("root/large.bin", numbered_bytes(LARGE, "L"));
    const auto slow = server_->connect();
    ASSERT_NE(nullptr, slow);
    ASSERT_TRUE(slow->send(get_request("/files/large.bin")));
    const std::string begin = slow->read_exactly(1);
    fs::resize_file(this->root() + "/large.bin", 1024);
    const std::string rest = slow->read_to_end();
    EXPECT_TRUE(slow->at_end());
    EXPECT_LT(begin.size() + rest.size(), LARGE);
    EXPECT_TRUE(server_->host().wait_for_log(
        " ERROR The file of '/files/large.bin' became shorter while it was sent"));
    this->expect_service();
}

TEST_F(Files_Plug_In, files_of_every_size_arrive_whole)
{
    for (const size_t size : {1U, 4095U, 4096U, 4097U, 8192U, 8193U, 100'000U, 262'144U, 262'145U,
                              1'048'576U, 1'048'577U, 3'000'000U}) {
        SCOPED_TRACE(size);
        const std::string content = numbered_bytes(size, "s");
        const std::string name = std::to_string(size) + ".bin";
        folder_.write("root/" + name, content);
        for (int i = 0; i < 2; ++i) { // opened, and perhaps from the cache
            const Wire_Response whole = this->get("/files/" + name);
            EXPECT_EQ(std::to_string(size), whole.field("content-length"));
            EXPECT_TRUE(content == whole.body);
            EXPECT_TRUE(
                content.substr(size / 3) ==
                this->get("/files/" + name, {"Range: bytes=" + std::to_string(size / 3) + "-"})
                    .body);
        }
        const auto other = server_->connect();
        ASSERT_NE(nullptr, other);
        const Wire_Response last =
            other->exchange(get_request("/files/" + name, {"Connection: close"}));
        EXPECT_TRUE(content == last.body);
        EXPECT_TRUE(other->is_closed_by_peer());
    }
    const auto old = server_->connect();
    ASSERT_NE(nullptr, old);
    ASSERT_TRUE(old->send("GET /files/100000.bin HTTP/1.0\r\n\r\n"));
    const std::string answer = old->read_to_end();
    EXPECT_TRUE(numbered_bytes(100'000, "s") == answer.substr(answer.find("\r\n\r\n") + 4));
}

TEST_F(Files_Plug_In, pipelined_requests_for_files_are_answered_in_order)
{
    const std::string content = numbered_bytes(50'000, "p");
    folder_.write("root/middle.bin", content);
    const std::string head = "HEAD /files/middle.bin HTTP/1.1\r\nHost: test\r\n\r\n";
    ASSERT_TRUE(client_->send(get_request("/files/middle.bin") + head +
                              get_request("/files/page.html") +
                              get_request("/files/middle.bin", {"Range: bytes=1-9999"})));
    EXPECT_TRUE(content == client_->read_response().body);
    EXPECT_EQ("50000", client_->read_response(HEAD_ONLY).field("content-length"));
    EXPECT_EQ(PAGE, client_->read_response().body);
    EXPECT_TRUE(content.substr(1, 9999) == client_->read_response().body);
}

TEST_F(Files_Plug_In, file_that_grows_while_it_is_sent_ends_where_it_was_announced)
{
    const std::string large = numbered_bytes(LARGE, "L");
    folder_.write("root/large.bin", large);
    const auto slow = server_->connect();
    ASSERT_NE(nullptr, slow);
    ASSERT_TRUE(slow->send(get_request("/files/large.bin")));
    const std::string begin = slow->read_exactly(1);
    fs::resize_file(this->root() + "/large.bin", LARGE + 100'000);
    ASSERT_TRUE(slow->send(get_request("/files/page.html")));
    std::string all = begin + slow->read_exactly(large.size());
    const size_t body = all.find("\r\n\r\n") + 4;
    all += slow->read_exactly(body - 1);
    EXPECT_TRUE(large == all.substr(body));
    EXPECT_EQ(PAGE, slow->read_response().body);
}

TEST_F(Files_Plug_In, file_that_was_changed_or_removed_is_so_before_long)
{
    folder_.write("root/small.txt", "old");
    EXPECT_EQ("old", this->get("/files/small.txt").body);
    const auto becomes = [this](int status, const std::string& body, const std::string& before) {
        const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (std::chrono::steady_clock::now() < limit) {
            const Wire_Response response = this->get("/files/small.txt");
            if (response.status == status && response.body == body) {
                return true;
            }
            EXPECT_EQ(before, response.body);
        }
        return false;
    };
    fs::rename(folder_.write("new.txt", "new text"), this->root() + "/small.txt");
    EXPECT_TRUE(becomes(200, "new text", "old"));
    fs::remove(this->root() + "/small.txt");
    EXPECT_TRUE(becomes(404, "", "new text"));
}

TEST_F(Files_Plug_In, client_that_goes_while_a_file_is_sent_is_one_error_line)
{
    folder_.write("root/large.bin", numbered_bytes(LARGE, "L"));
    auto slow = server_->connect();
    ASSERT_NE(nullptr, slow);
    ASSERT_TRUE(slow->send(get_request("/files/large.bin")));
    ASSERT_EQ("HTTP/1.1 200 OK\r\n", slow->read_exactly(17));
    const std::string name = client_name(*slow);
    const linger at_once = {1, 0};
    ::setsockopt(slow->handle(), SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
    slow.reset();
    EXPECT_TRUE(server_->host().wait_for_log(" to HTTP client " + name + ": "));
    this->expect_service();
    EXPECT_EQ(1U, lines_of(server_->host(), "ERROR").size()) << server_->host().log_text();
}

TEST_F(Files_Plug_In, unusable_root_is_one_error_line_and_the_others_are_served)
{
    client_.reset();
    EXPECT_EQ(0, server_->host().stop(SIGTERM));
    this->start("--root " + folder_.path() + "/missing");
    EXPECT_EQ(404, this->get("/files/page.html").status);
    const auto other = server_->connect();
    ASSERT_NE(nullptr, other);
    EXPECT_EQ("Hello, World!", other->exchange(get_request("/probe/hello")).body);
}

class Files_Listener : public testing::TestWithParam<Listener_Kind> {};

INSTANTIATE_TEST_SUITE_P(Every, Files_Listener,
                         testing::Values(Listener_Kind::TCP, Listener_Kind::TLS,
                                         Listener_Kind::UNIX, Listener_Kind::MEM));

TEST_P(Files_Listener, serves_files)
{
    const Temporary_Folder folder;
    const std::string content = numbered_bytes(300'000, "f");
    folder.write("file.bin", content);
    Probe_Server::Setup setup;
    for (const std::string size : {"0", "1m"}) { // in a thread, and in the event loop
        setup.handlers.push_back({"/files" + size, "httpd_files", "_make_Files",
                                  "--root " + folder.path() + " --thread-size " + size});
    }
    Listener_Server server(GetParam(), setup);
    for (const std::string target : {"/files1m/file.bin", "/files0/file.bin"}) {
        SCOPED_TRACE(target);
        const auto client = server.connect();
        ASSERT_NE(nullptr, client);
        for (int i = 0; i < 3; ++i) {
            EXPECT_TRUE(content == client->exchange(get_request(target)).body);
            EXPECT_EQ("Hello, World!", client->exchange(get_request("/probe/hello")).body);
        }
        EXPECT_TRUE(content.substr(7, 200'000) ==
                    client->exchange(get_request(target, {"Range: bytes=7-200006"})).body);
    }
    EXPECT_EQ(0, server.host().stop(SIGTERM));
    EXPECT_TRUE(lines_of(server.host(), "ERROR").empty()) << server.host().log_text();
}
