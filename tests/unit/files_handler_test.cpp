#include "httpd/detail/file_block.h"
#include "plugins/files/files_creator.h"
#include "support/http_date.h"
#include "support/mime_type.h"
#include "tests/support/fake_http_io.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/fsuid.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <dirent.h>
#include <filesystem>
#include <memory>
#include <optional>

namespace {

namespace fs = std::filesystem;
constexpr std::time_t MODIFIED = 1'000'000'000; // Sun, 09 Sep 2001 01:46:40 GMT
constexpr const char* MODIFIED_TEXT = "Sun, 09 Sep 2001 01:46:40 GMT";
constexpr const char* EARLIER_TEXT = "Sun, 09 Sep 2001 01:46:39 GMT";
constexpr const char* LATER_TEXT = "Sun, 09 Sep 2001 01:46:41 GMT";

std::int64_t now_ms = 1'000'000; ///< the clock of the cache

int open_descriptors()
{
    DIR* const directory = ::opendir("/proc/self/fd");
    int count = 0;
    while (::readdir(directory) != nullptr) {
        ++count;
    }
    ::closedir(directory);
    return count;
}

class Files_Handler_Answer : public testing::Test {
protected:
    void SetUp() override
    {
        descriptors_ = open_descriptors();
        write("page.html", "0123456789");
        write("index.html", "root index");
        write("dir/index.html", "dir index");
        write("dir/style.CSS", "css");
        write("empty/file.txt", "");
        write("noext", "noext");
        write("both.js", "plain script");
        write("both.js.gz", "(compressed)!");
        write(".hidden", "hidden");
        write(".well-known/acme", "token");
        scratch_.write("secret", "secret");
        fs::create_symlink("../secret", scratch_.path("root/outside"));
    }

    void TearDown() override
    {
        creator_.reset();
        EXPECT_EQ(open_descriptors(), descriptors_);
    }

    void write(const std::string& name, std::string_view content) const
    {
        fs::create_directories(fs::path(scratch_.path("root/" + name)).parent_path());
        scratch_.write("root/" + name, content);
        touch(name, MODIFIED);
    }

    void touch(const std::string& name, std::time_t modified) const
    {
        const timespec times[] = {{modified, 0}, {modified, 0}};
        ASSERT_EQ(::utimensat(AT_FDCWD, scratch_.path("root/" + name).c_str(), times, 0), 0);
    }

    /// The record's factory, made with further parameters.
    void configure(std::vector<std::string> more = {})
    {
        std::vector<std::string> arguments{"--root", scratch_.path("root")};
        arguments.insert(arguments.end(), more.begin(), more.end());
        std::vector<char*> argv;
        for (std::string& argument : arguments) {
            argv.push_back(argument.data());
        }
        creator_.emplace([] { return now_ms; });
        ASSERT_EQ(creator_->init(static_cast<int>(argv.size()), argv.data()), 0);
    }

    /// Serves a request below the URI of `offset` bytes and checks what holds for every answer.
    int serve(std::string_view method, std::string_view target, Fake_HTTP_IO::Fields fields = {},
              int minor_version = 1, size_t offset = 1, std::string_view body = {})
    {
        if (!creator_) {
            configure();
        }
        io_.begin(method, target, fields, minor_version);
        io_.uri_off(offset);
        HTTP_Handler* const handler = creator_->create();
        const int result = io_.run(*handler, body);
        const int waiting = open_descriptors();
        creator_->destroy(handler);
        EXPECT_EQ(open_descriptors(), waiting) << "while the handler waits for the next request";
        EXPECT_EQ(io_.wrong_state_calls(), 0);
        EXPECT_TRUE(io_.complete());
        return result;
    }

    int get(std::string_view target, Fake_HTTP_IO::Fields fields = {})
    {
        return serve("GET", target, fields);
    }

    /// What the cache holds is looked up again from now on.
    static void let_a_second_pass() { now_ms += File_Cache::FRESH_MS; }

    Temp_Dir scratch_;
    std::optional<Files_Creator> creator_;
    Fake_HTTP_IO io_;
    int descriptors_ = 0;
};

TEST_F(Files_Handler_Answer, is_the_file_with_its_fields)
{
    EXPECT_EQ(get("/page.html"), 0);
    EXPECT_EQ(io_.status(), 200);
    EXPECT_EQ(io_.body(), "0123456789");
    EXPECT_EQ(io_.field("Content-Type"), "text/html");
    EXPECT_EQ(io_.field("Content-Length"), "10");
    EXPECT_EQ(io_.field("Last-Modified"), MODIFIED_TEXT);
    EXPECT_EQ(io_.field("Accept-Ranges"), "bytes");
    EXPECT_EQ(io_.field("ETag").front(), '"');
    EXPECT_FALSE(io_.has_field("Vary"));
    EXPECT_FALSE(io_.has_field("Cache-Control"));
    EXPECT_FALSE(io_.has_field("Content-Encoding"));
    EXPECT_TRUE(io_.kept());
}

TEST_F(Files_Handler_Answer, leaves_with_its_header_in_one_write)
{
    get("/page.html");
    EXPECT_EQ(io_.sends().size(), 1U);
    write("block", std::string(FILE_BLOCK_SIZE, 'x'));
    get("/block");
    EXPECT_EQ(io_.sends().size(), 1U);
    get("/empty/file.txt");
    EXPECT_EQ(io_.sends().size(), 1U);
    EXPECT_EQ(io_.field("Content-Length"), "0");
    EXPECT_TRUE(io_.kept());
}

TEST_F(Files_Handler_Answer, takes_its_type_from_the_last_name_alone)
{
    get("/dir/style.CSS");
    EXPECT_EQ(io_.field("Content-Type"), "text/css");
    get("/noext");
    EXPECT_EQ(io_.field("Content-Type"), "application/octet-stream");
    write("a.html/readme", "text");
    get("/a.html/readme");
    EXPECT_EQ(io_.field("Content-Type"), "application/octet-stream");
    write("html", "a name, not an extension");
    get("/html");
    EXPECT_EQ(io_.field("Content-Type"), "application/octet-stream");
}

TEST_F(Files_Handler_Answer, is_the_index_file_in_a_directory)
{
    get("/");
    EXPECT_EQ(io_.body(), "root index");
    EXPECT_EQ(io_.field("Content-Type"), "text/html");
    get("/dir/");
    EXPECT_EQ(io_.body(), "dir index");
    get("/empty/");
    EXPECT_EQ(io_.status(), 404);
    configure({"--index", "page.html"});
    get("/");
    EXPECT_EQ(io_.body(), "0123456789");
}

TEST_F(Files_Handler_Answer, sends_a_directory_without_slash_to_its_slash)
{
    struct Row {
        const char* target;
        size_t offset;
        const char* location;
    };
    const Row rows[] = {
        {"/dir", 1, "/dir/"},
        {"/dir?a=b&c=%20", 1, "/dir/?a=b&c=%20"},
        {"/dir?", 1, "/dir/?"},
        {"/di%72", 1, "/dir/"},
        {"/static", 7, "/static/"},
        {"/static/dir?x", 7, "/static/dir/?x"},
        {"/static/dir", 8, "/static/dir/"},
        {"http://example.test/dir?x", 1, "/dir/?x"},
        {"//evil.test", 11, "/evil.test/"},
        {"///evil.test", 12, "/evil.test/"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.target);
        EXPECT_EQ(serve("GET", row.target, {}, 1, row.offset), 0);
        EXPECT_EQ(io_.status(), 301);
        EXPECT_EQ(io_.field("Location"), row.location);
        EXPECT_EQ(io_.field("Content-Length"), "0");
        EXPECT_TRUE(io_.kept());
    }
}

TEST_F(Files_Handler_Answer, sends_every_other_spelling_of_a_name_to_the_one)
{
    write("c++/a b.txt", "found");
    write("caf\xC3\xA9.txt", "found");
    write("[1].txt", "found");
    struct Row {
        const char* target;
        size_t offset;
        const char* location;
    };
    const Row rows[] = {
        {"/c%2B%2B/a%20b.txt", 1, "/c++/a%20b.txt"},
        {"/c%2b+/a%20b.txt?q=%2b", 1, "/c++/a%20b.txt?q=%2b"},
        {"/caf%c3%a9.txt", 1, "/caf%C3%A9.txt"},
        {"/caf%C3%a9.txt", 1, "/caf%C3%A9.txt"},
        {"/[1].txt", 1, "/%5B1%5D.txt"},
        {"/static/c%2B%2B/", 7, "/static/c++/"},
        {"/static/c%2B%2B", 8, "/static/c++"},
        {"/x%40y/missing", 1, "/x@y/missing"}, // also where there is nothing
        {"//x%40y", 2, "/x@y"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.target);
        EXPECT_EQ(serve("GET", row.target, {}, 1, row.offset), 0);
        EXPECT_EQ(io_.status(), 301);
        EXPECT_EQ(io_.field("Location"), row.location);
    }
    for (const char* const target : {"/c++/a%20b.txt", "/caf%C3%A9.txt", "/%5B1%5D.txt"}) {
        EXPECT_EQ(get(target), 0);
        EXPECT_EQ(io_.body(), "found") << target;
    }
}

TEST_F(Files_Handler_Answer, never_sends_a_client_to_another_host)
{
    fs::create_directories(scratch_.path("root/evil.test"));
    for (const char* const target : {"//evil.test", "//evil.test/", "/%2Fevil.test", "/\\evil.test",
                                     "/%5Cevil.test", "//evil.test/%2e%2e"}) {
        EXPECT_EQ(get(target), 0) << target;
        EXPECT_EQ(io_.status(), 404) << target;
        EXPECT_FALSE(io_.has_field("Location")) << target;
    }
}

TEST_F(Files_Handler_Answer, is_404_for_what_is_not_served)
{
    ASSERT_EQ(::mkfifo(scratch_.path("root/fifo").c_str(), 0600), 0);
    fs::create_directories(scratch_.path("root/odd/index.html"));
    for (const char* const target :
         {"/missing", "/page.html/", "/page.html/x", "/outside", "/.hidden", "/fifo", "/odd/",
          "/..", "/%2e%2e/secret", "/..%2fsecret", "/dir%2findex.html", "/page.html%20", "//",
          "/dir//index.html", "*", "/page.htm"}) {
        EXPECT_EQ(get(target), 0) << target;
        EXPECT_EQ(io_.status(), 404) << target;
        EXPECT_EQ(io_.body(), "") << target;
        EXPECT_TRUE(io_.kept()) << target;
    }
}

TEST_F(Files_Handler_Answer, is_404_for_a_file_that_may_not_be_read)
{
    constexpr uid_t NOBODY = 65534;
    configure();
    ASSERT_EQ(::chmod(scratch_.path("root/page.html").c_str(), 0), 0);
    // A superuser reads everything, so this thread looks at files as another user.
    const int user = ::setfsuid(::geteuid() == 0 ? NOBODY : ::geteuid());
    get("/page.html");
    ::setfsuid(static_cast<uid_t>(user));
    EXPECT_EQ(io_.status(), 404);
}

TEST_F(Files_Handler_Answer, is_503_when_there_are_no_descriptors)
{
    configure();
    get("/page.html");
    io_.begin("GET", "/noext");
    HTTP_Handler* const handler = creator_->create();
    rlimit limit{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &limit), 0);
    const Log_Capture log;
    const rlimit none{0, limit.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
    const int result = io_.run(*handler);
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &limit), 0);
    creator_->destroy(handler);
    EXPECT_EQ(result, 0);
    EXPECT_EQ(io_.status(), 503);
    EXPECT_EQ(log.count(LM_ERROR, "Failed to open the file of '/noext', errno=24"), 1U);
}

TEST_F(Files_Handler_Answer, serves_well_known_names)
{
    get("/.well-known/acme");
    EXPECT_EQ(io_.body(), "token");
}

TEST_F(Files_Handler_Answer, finds_files_below_every_kind_of_uri)
{
    const std::pair<const char*, size_t> rows[] = {
        {"/page.html", 1},
        {"/static/page.html", 7},
        {"/static/page.html", 8},
        {"/a/b/c/page.html", 6},
    };
    for (const auto& [target, offset] : rows) {
        configure();
        serve("GET", target, {}, 1, offset);
        EXPECT_EQ(io_.body(), "0123456789") << target << " from " << offset;
        serve("GET", target, {}, 1, offset);
        EXPECT_EQ(io_.body(), "0123456789") << target << " from " << offset << " again";
    }
}

TEST_F(Files_Handler_Answer, follows_the_connection_when_its_uri_is_another_than_thought)
{
    get("/page.html");
    serve("GET", "/static/dir/", {}, 1, 7);
    EXPECT_EQ(io_.body(), "dir index");
}

TEST_F(Files_Handler_Answer, to_head_is_the_header_of_get)
{
    get("/both.js", {{"Accept-Encoding", "gzip"}});
    std::vector<std::string> of_get;
    const char* const names[] = {
        "Content-Type",  "Content-Length",  "ETag", "Vary", "Last-Modified",
        "Accept-Ranges", "Content-Encoding"};
    for (const char* const name : names) {
        of_get.push_back(io_.field(name));
    }
    EXPECT_EQ(serve("HEAD", "/both.js", {{"Accept-Encoding", "gzip"}}), 0);
    for (size_t i = 0; i < of_get.size(); ++i) {
        EXPECT_EQ(io_.field(names[i]), of_get[i]) << names[i];
        EXPECT_TRUE(io_.has_field(names[i])) << names[i];
    }
    EXPECT_EQ(io_.status(), 200);
    EXPECT_EQ(io_.body(), "");
    EXPECT_TRUE(io_.kept());

    EXPECT_EQ(serve("HEAD", "/missing"), 0);
    EXPECT_EQ(io_.status(), 404);
    EXPECT_EQ(serve("HEAD", "/dir"), 0);
    EXPECT_EQ(io_.status(), 301);
    EXPECT_EQ(io_.field("Location"), "/dir/");
}

TEST_F(Files_Handler_Answer, to_head_has_no_range)
{
    serve("HEAD", "/page.html", {{"Range", "bytes=0-1"}});
    EXPECT_EQ(io_.status(), 200);
    EXPECT_EQ(io_.field("Content-Length"), "10");
    EXPECT_FALSE(io_.has_field("Content-Range"));
}

TEST_F(Files_Handler_Answer, to_other_methods_names_those_allowed)
{
    for (const char* const method : {"POST", "PUT", "DELETE", "OPTIONS", "TRACE", "PATCH"}) {
        EXPECT_EQ(serve(method, "/page.html", {{"Content-Length", "0"}}), 0) << method;
        EXPECT_EQ(io_.status(), 405) << method;
        EXPECT_EQ(io_.field("Allow"), "GET, HEAD") << method;
        EXPECT_TRUE(io_.kept()) << method;
    }
}

TEST_F(Files_Handler_Answer, closes_where_a_body_is_left_unread)
{
    const std::string_view smuggled = "GET /dir/ HTTP/1.1\r\n\r\n";
    const std::string length = std::to_string(smuggled.size());
    const char* const targets[] = {"/page.html", "/missing", "/dir", "/empty/file.txt"};
    for (const char* const method : {"GET", "HEAD", "POST", "PUT"}) {
        for (const char* const target : targets) {
            SCOPED_TRACE(testing::Message() << method << ' ' << target);
            EXPECT_EQ(serve(method, target, {{"Content-Length", length}}, 1, 1, smuggled), -1);
            EXPECT_EQ(io_.field("Connection"), "close");
            EXPECT_FALSE(io_.has_field("Content-Length"));
            for (const char* const coding : {"chunked", "gzip, chunked"}) {
                EXPECT_EQ(serve(method, target, {{"Transfer-Encoding", coding}}, 1, 1, smuggled),
                          -1);
                EXPECT_EQ(io_.field("Connection"), "close");
                EXPECT_FALSE(io_.has_field("Content-Length"));
                EXPECT_FALSE(io_.has_field("Transfer-Encoding"));
            }
        }
    }
    serve("GET", "/page.html", {{"Content-Length", length}}, 1, 1, smuggled);
    EXPECT_EQ(io_.body(), "0123456789");
    const std::string tag = io_.field("ETag");
    EXPECT_EQ(serve("GET", "/page.html", {{"Content-Length", length}, {"If-None-Match", tag}}, 1, 1,
                    smuggled),
              -1);
    EXPECT_EQ(io_.status(), 304);
    EXPECT_EQ(serve("GET", "/page.html", {{"Content-Length", length}, {"Range", "bytes=50-"}}, 1, 1,
                    smuggled),
              -1);
    EXPECT_EQ(io_.status(), 416);
}

TEST_F(Files_Handler_Answer, closes_for_a_client_that_does_not_keep_the_connection)
{
    EXPECT_EQ(serve("GET", "/page.html", {}, 0), -1);
    EXPECT_EQ(io_.body(), "0123456789");
    EXPECT_EQ(io_.field("Content-Length"), "10");
    EXPECT_EQ(get("/page.html", {{"Connection", "close"}}), -1);
    EXPECT_EQ(serve("GET", "/page.html", {{"Connection", "Keep-Alive"}}, 0), 0);
    EXPECT_EQ(serve("GET", "/page.html", {{"If-None-Match", "*"}}, 0), -1);
    EXPECT_EQ(io_.status(), 304);
}

TEST_F(Files_Handler_Answer, is_304_for_a_version_that_the_client_has)
{
    get("/page.html");
    const std::string tag = io_.field("ETag");
    const std::string list = "\"x\", W/" + tag;
    struct Row {
        const char* name;
        std::string value;
        int status;
    };
    const Row rows[] = {
        {"If-None-Match", tag, 304},
        {"If-None-Match", "W/" + tag, 304},
        {"If-None-Match", list, 304},
        {"If-None-Match", "*", 304},
        {"If-None-Match", "\"other\"", 200},
        {"If-None-Match", "nonsense", 200},
        {"If-Modified-Since", MODIFIED_TEXT, 304},
        {"If-Modified-Since", LATER_TEXT, 304},
        {"If-Modified-Since", "Sunday, 09-Sep-01 01:46:40 GMT", 304},
        {"If-Modified-Since", EARLIER_TEXT, 200},
        {"If-Modified-Since", "yesterday", 200},
        {"If-Match", tag, 200},
        {"If-Match", "*", 200},
        {"If-Match", "W/" + tag, 412},
        {"If-Match", "\"other\"", 412},
        {"If-Unmodified-Since", MODIFIED_TEXT, 200},
        {"If-Unmodified-Since", EARLIER_TEXT, 412},
        {"If-Unmodified-Since", "yesterday", 200},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(testing::Message() << row.name << ": " << row.value);
        EXPECT_EQ(get("/page.html", {{row.name, row.value}}), 0);
        EXPECT_EQ(io_.status(), row.status);
        EXPECT_EQ(io_.body(), row.status == 200 ? "0123456789" : "");
        EXPECT_TRUE(io_.kept());
        EXPECT_EQ(serve("HEAD", "/page.html", {{row.name, row.value}}), 0);
        EXPECT_EQ(io_.status(), row.status);
        EXPECT_TRUE(io_.kept());
    }
}

TEST_F(Files_Handler_Answer, of_304_has_the_fields_of_the_file_but_no_other_length)
{
    configure({"--cache-control", "max-age=60"});
    EXPECT_EQ(get("/both.js", {{"If-None-Match", "*"}}), 0);
    EXPECT_EQ(io_.status(), 304);
    EXPECT_EQ(io_.field("Content-Length"), "12");
    EXPECT_EQ(io_.field("Connection"), "Keep-Alive");
    EXPECT_EQ(io_.field("Cache-Control"), "max-age=60");
    EXPECT_EQ(io_.field("Vary"), "Accept-Encoding");
    EXPECT_EQ(io_.field("Last-Modified"), MODIFIED_TEXT);
    EXPECT_TRUE(io_.has_field("ETag"));
    EXPECT_FALSE(io_.has_field("Content-Type"));
    EXPECT_EQ(io_.body(), "");
    EXPECT_TRUE(io_.kept());
    EXPECT_EQ(get("/empty/file.txt", {{"If-None-Match", "*"}}), 0);
    EXPECT_EQ(io_.status(), 304);
    EXPECT_TRUE(io_.kept());
}

TEST_F(Files_Handler_Answer, heeds_conditions_in_their_order)
{
    get("/page.html", {{"If-None-Match", "\"x\""}, {"If-Modified-Since", LATER_TEXT}});
    EXPECT_EQ(io_.status(), 200);
    get("/page.html", {{"If-None-Match", "*"}, {"If-Modified-Since", EARLIER_TEXT}});
    EXPECT_EQ(io_.status(), 304);
    get("/page.html", {{"If-Match", "\"x\""}, {"If-None-Match", "*"}});
    EXPECT_EQ(io_.status(), 412);
    get("/page.html", {{"If-Match", "*"}, {"If-Unmodified-Since", EARLIER_TEXT}});
    EXPECT_EQ(io_.status(), 200);
    get("/page.html", {{"If-None-Match", "*"}, {"Range", "bytes=0-1"}});
    EXPECT_EQ(io_.status(), 304);
}

TEST_F(Files_Handler_Answer, is_the_range_asked_for)
{
    struct Row {
        const char* range;
        int status;
        const char* body;
        const char* content_range;
    };
    const Row rows[] = {
        {"bytes=0-0", 206, "0", "bytes 0-0/10"},
        {"bytes=2-4", 206, "234", "bytes 2-4/10"},
        {"bytes=7-", 206, "789", "bytes 7-9/10"},
        {"bytes=-2", 206, "89", "bytes 8-9/10"},
        {"bytes=0-99", 206, "0123456789", "bytes 0-9/10"},
        {"bytes=10-", 416, "", "bytes */10"},
        {"bytes=-0", 416, "", "bytes */10"},
        {"bytes=0-1,4-5", 200, "0123456789", ""},
        {"bytes=4-2", 200, "0123456789", ""},
        {"lines=1-2", 200, "0123456789", ""},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.range);
        EXPECT_EQ(get("/page.html", {{"Range", row.range}}), 0);
        EXPECT_EQ(io_.status(), row.status);
        EXPECT_EQ(io_.body(), row.body);
        EXPECT_EQ(io_.field("Content-Range"), row.content_range);
        EXPECT_EQ(io_.field("Content-Length"), std::to_string(io_.body().size()));
        EXPECT_TRUE(io_.kept());
    }
}

TEST_F(Files_Handler_Answer, is_a_range_only_of_the_version_that_if_range_names)
{
    get("/page.html");
    const std::string tag = io_.field("ETag");
    const std::pair<std::string, int> rows[] = {
        {tag, 206},          {"W/" + tag, 200}, {"\"x\"", 200}, {MODIFIED_TEXT, 206},
        {EARLIER_TEXT, 200}, {LATER_TEXT, 200}, {"x", 200},     {"*", 200},
    };
    for (const auto& [validator, status] : rows) {
        get("/page.html", {{"Range", "bytes=1-2"}, {"If-Range", validator}});
        EXPECT_EQ(io_.status(), status) << validator;
        EXPECT_EQ(io_.body(), status == 206 ? "12" : "0123456789") << validator;
    }
}

TEST_F(Files_Handler_Answer, is_the_compressed_form_for_a_client_that_accepts_it)
{
    get("/both.js");
    const std::string plain_tag = io_.field("ETag");
    EXPECT_EQ(io_.body(), "plain script");
    EXPECT_EQ(io_.field("Vary"), "Accept-Encoding");
    EXPECT_FALSE(io_.has_field("Content-Encoding"));

    EXPECT_EQ(get("/both.js", {{"Accept-Encoding", "br, gzip"}}), 0);
    EXPECT_EQ(io_.body(), "(compressed)!");
    EXPECT_EQ(io_.field("Content-Encoding"), "gzip");
    EXPECT_EQ(io_.field("Content-Length"), "13");
    EXPECT_EQ(io_.field("Vary"), "Accept-Encoding");
    EXPECT_EQ(io_.field("Content-Type"), mime_type("js"));
    EXPECT_NE(io_.field("ETag"), plain_tag);

    get("/both.js", {{"Accept-Encoding", "gzip;q=0"}});
    EXPECT_EQ(io_.body(), "plain script");
    get("/both.js", {{"Accept-Encoding", "gzip"}, {"If-None-Match", plain_tag}});
    EXPECT_EQ(io_.status(), 200);
    get("/both.js", {{"Accept-Encoding", "gzip"}, {"Range", "bytes=1-4"}});
    EXPECT_EQ(io_.status(), 206);
    EXPECT_EQ(io_.body(), "comp");
    EXPECT_EQ(io_.field("Content-Encoding"), "gzip");
}

TEST_F(Files_Handler_Answer, takes_no_compressed_form_from_elsewhere)
{
    fs::create_symlink("../../secret", scratch_.path("root/dir/style.CSS.gz"));
    fs::create_directories(scratch_.path("root/noext.gz"));
    get("/dir/style.CSS", {{"Accept-Encoding", "gzip"}});
    EXPECT_EQ(io_.body(), "css");
    EXPECT_FALSE(io_.has_field("Vary"));
    get("/noext", {{"Accept-Encoding", "gzip"}});
    EXPECT_EQ(io_.body(), "noext");
    EXPECT_FALSE(io_.has_field("Vary"));
    scratch_.write("root/only.js.gz", "x");
    get("/only.js", {{"Accept-Encoding", "gzip"}});
    EXPECT_EQ(io_.status(), 404);
}

TEST_F(Files_Handler_Answer, carries_the_cache_control_of_the_record)
{
    configure({"--cache-control", "public, max-age=3600"});
    get("/page.html");
    EXPECT_EQ(io_.field("Cache-Control"), "public, max-age=3600");
    get("/page.html", {{"Range", "bytes=0-1"}});
    EXPECT_EQ(io_.field("Cache-Control"), "public, max-age=3600");
    get("/missing");
    EXPECT_FALSE(io_.has_field("Cache-Control"));
}

TEST_F(Files_Handler_Answer, never_tells_a_modification_in_the_future)
{
    touch("page.html", std::time(nullptr) + 86400);
    get("/page.html");
    std::time_t told = 0;
    ASSERT_TRUE(http_date_parse(io_.field("Last-Modified").c_str(), told));
    EXPECT_LE(told, std::time(nullptr));
}

TEST_F(Files_Handler_Answer, sends_a_large_file_in_blocks)
{
    std::string content;
    for (int i = 0; content.size() < 3 * FILE_BLOCK_SIZE + 17; ++i) {
        content += std::to_string(i);
    }
    content.resize(3 * FILE_BLOCK_SIZE + 17);
    write("large", content);
    EXPECT_EQ(get("/large"), 0);
    EXPECT_TRUE(io_.body() == content);
    EXPECT_EQ(io_.sends().size(), 4U);
    EXPECT_EQ(get("/large", {{"Range", "bytes=5-"}, {"Connection", "close"}}), -1);
    EXPECT_TRUE(io_.body() == content.substr(5));
    EXPECT_EQ(get("/large", {{"Content-Length", "1"}}), -1);
    EXPECT_TRUE(io_.body() == content);
}

class Files_Handler_Failure : public Files_Handler_Answer {};

TEST_F(Files_Handler_Failure, of_any_send_ends_the_request)
{
    configure();
    write("large", std::string(3 * FILE_BLOCK_SIZE, 'x'));
    for (int n = 0; n < 3; ++n) {
        io_.begin("GET", "/large");
        io_.uri_off(1);
        io_.fail_at(n);
        HTTP_Handler* const handler = creator_->create();
        EXPECT_EQ(io_.run(*handler), -1);
        EXPECT_EQ(io_.sends().size(), static_cast<size_t>(n) + 1);
        creator_->destroy(handler);
    }
    io_.fail_at(0);
    io_.begin("GET", "/page.html", {{"If-None-Match", "*"}});
    HTTP_Handler* const handler = creator_->create();
    EXPECT_EQ(io_.run(*handler), -1);
    EXPECT_EQ(io_.sends().size(), 1U);
    creator_->destroy(handler);
    io_.fail_at(-1);
}

TEST_F(Files_Handler_Failure, of_a_file_that_shrinks_ends_the_request)
{
    configure();
    write("large", std::string(20'000, 'x'));
    get("/page.html");
    Log_Capture log;
    io_.begin("GET", "/large");
    HTTP_Handler* const handler = creator_->create();
    handler->concurrency(io_.request(), HTTP_Handler::HEADER);
    fs::resize_file(scratch_.path("root/large"), 4);
    EXPECT_EQ(handler->handle_request(io_), -1);
    EXPECT_EQ(log.count(LM_ERROR, "The file of '/large' became shorter"), 1U);
    EXPECT_EQ(io_.body(), "");
    creator_->destroy(handler);
}

TEST_F(Files_Handler_Answer, has_no_more_bytes_than_announced_when_the_file_grows)
{
    configure();
    get("/page.html");
    io_.begin("GET", "/page.html");
    HTTP_Handler* const handler = creator_->create();
    handler->concurrency(io_.request(), HTTP_Handler::HEADER);
    scratch_.write("root/page.html", "0123456789 and more");
    EXPECT_EQ(handler->handle_request(io_), 0);
    EXPECT_EQ(io_.body(), "0123456789");
    creator_->destroy(handler);

    write("large", std::string(20'000, 'x'));
    io_.begin("GET", "/large");
    HTTP_Handler* const other = creator_->create();
    other->concurrency(io_.request(), HTTP_Handler::HEADER);
    scratch_.write("root/large", std::string(30'000, 'x'));
    EXPECT_EQ(other->handle_request(io_), 0);
    EXPECT_EQ(io_.body(), std::string(20'000, 'x'));
    creator_->destroy(other);
}

/// Small files are kept with their content, larger ones open, the largest not at all.
class Files_Handler_Cache : public Files_Handler_Answer,
                            public testing::WithParamInterface<size_t> {
protected:
    std::string old_text() const { return std::string(GetParam(), 'o'); }
    std::string new_text() const { return std::string(GetParam() + 1, 'n'); }
    /// Its content is held; of a file that is held open, also its end and its successor are seen.
    bool is_kept() const { return GetParam() <= File_Cache::MAX_CONTENT; }

    void SetUp() override
    {
        Files_Handler_Answer::SetUp();
        write("file", old_text());
        get("/file");
        EXPECT_TRUE(io_.body() == old_text());
    }

    /// The file as it is asked for now.
    bool is(const std::string& text)
    {
        get("/file");
        return io_.status() == 200 && io_.body() == text &&
               io_.field("Content-Length") == std::to_string(text.size());
    }
};

INSTANTIATE_TEST_SUITE_P(Sizes, Files_Handler_Cache,
                         testing::Values(size_t{0}, size_t{10}, size_t{File_Cache::MAX_CONTENT},
                                         size_t{File_Cache::MAX_CONTENT + 1},
                                         size_t{File_Cache::MAX_SIZE},
                                         size_t{File_Cache::MAX_SIZE + 1}));

TEST_P(Files_Handler_Cache, serves_a_file_that_was_replaced_within_a_second)
{
    write("new", new_text());
    fs::rename(scratch_.path("root/new"), scratch_.path("root/file"));
    EXPECT_TRUE(is(is_kept() ? old_text() : new_text()));
    let_a_second_pass();
    EXPECT_TRUE(is(new_text()));
}

TEST_P(Files_Handler_Cache, ends_a_file_that_was_removed_within_a_second)
{
    fs::remove(scratch_.path("root/file"));
    get("/file");
    EXPECT_EQ(io_.status(), is_kept() ? 200 : 404);
    let_a_second_pass();
    get("/file");
    EXPECT_EQ(io_.status(), 404);
}

TEST_P(Files_Handler_Cache, ends_a_file_whose_directory_was_renamed_within_a_second)
{
    write("old/file", old_text());
    get("/old/file");
    fs::rename(scratch_.path("root/old"), scratch_.path("root/new"));
    get("/old/file");
    EXPECT_EQ(io_.status(), GetParam() <= File_Cache::MAX_SIZE ? 200 : 404);
    let_a_second_pass();
    get("/old/file");
    EXPECT_EQ(io_.status(), 404);
}

TEST_P(Files_Handler_Cache, serves_a_file_that_was_written_anew_whole)
{
    get("/file");
    const std::string old_tag = io_.field("ETag");
    scratch_.write("root/file", new_text());
    get("/file");
    EXPECT_TRUE(io_.body() == (is_kept() ? old_text() : new_text()));
    EXPECT_EQ(io_.field("ETag") == old_tag, is_kept()); // they belong together
    let_a_second_pass();
    EXPECT_TRUE(is(new_text()));
    EXPECT_NE(io_.field("ETag"), old_tag);
}

TEST_P(Files_Handler_Cache, notices_a_write_that_keeps_size_and_modification_time)
{
    if (GetParam() == 0) {
        GTEST_SKIP() << "there is nothing to write";
    }
    write("file", std::string(GetParam(), 'n')); // sets the time back
    let_a_second_pass();
    EXPECT_TRUE(is(std::string(GetParam(), 'n')));
}

TEST_P(Files_Handler_Cache, notices_a_compressed_form_that_appears_and_goes)
{
    write("file.gz", "(compressed)");
    let_a_second_pass();
    get("/file", {{"Accept-Encoding", "gzip"}});
    EXPECT_EQ(io_.body(), "(compressed)");
    get("/file");
    EXPECT_TRUE(io_.body() == old_text());
    EXPECT_EQ(io_.field("Vary"), "Accept-Encoding");
    fs::remove(scratch_.path("root/file.gz"));
    let_a_second_pass();
    get("/file", {{"Accept-Encoding", "gzip"}});
    EXPECT_TRUE(io_.body() == old_text());
    EXPECT_FALSE(io_.has_field("Vary"));
}

TEST_P(Files_Handler_Cache, answers_conditions_by_the_version_that_it_serves)
{
    get("/file");
    const std::string tag = io_.field("ETag");
    get("/file", {{"If-None-Match", tag}});
    EXPECT_EQ(io_.status(), 304);
    write("new", new_text());
    fs::rename(scratch_.path("root/new"), scratch_.path("root/file"));
    get("/file", {{"If-None-Match", tag}});
    EXPECT_EQ(io_.status(), is_kept() ? 304 : 200);
    let_a_second_pass();
    get("/file", {{"If-None-Match", tag}});
    EXPECT_EQ(io_.status(), 200);
    EXPECT_TRUE(io_.body() == new_text());
}

TEST_P(Files_Handler_Cache, answers_head_and_ranges_alike)
{
    for (int i = 0; i < 2; ++i) {
        SCOPED_TRACE(i);
        serve("HEAD", "/file");
        EXPECT_EQ(io_.field("Content-Length"), std::to_string(GetParam()));
        EXPECT_EQ(io_.body(), "");
        get("/file", {{"Range", "bytes=-3"}});
        EXPECT_EQ(io_.body(), GetParam() == 0 ? "" : "ooo");
        get("/file", {{"Range", "bytes=4-"}});
        EXPECT_EQ(io_.status(), GetParam() == 0 ? 416 : 206);
    }
}

TEST_P(Files_Handler_Cache, keeps_no_name_that_has_come_to_lead_out_of_the_root)
{
    fs::remove(scratch_.path("root/file"));
    fs::create_symlink("../secret", scratch_.path("root/file"));
    let_a_second_pass();
    get("/file");
    EXPECT_EQ(io_.status(), 404);
}

TEST_F(Files_Handler_Answer, is_by_the_path_as_it_was_asked_for)
{
    // The same names under the cache's eyes, which must not answer for each other.
    configure();
    write("c++.txt", "plus");
    for (int i = 0; i < 2; ++i) {
        SCOPED_TRACE(i);
        serve("GET", "/static/", {}, 1, 7);
        EXPECT_EQ(io_.body(), "root index");
        serve("GET", "/static", {}, 1, 7);
        EXPECT_EQ(io_.status(), 301);
        serve("GET", "/static/dir/", {}, 1, 7);
        EXPECT_EQ(io_.body(), "dir index");
        serve("GET", "/static/dir", {}, 1, 7);
        EXPECT_EQ(io_.status(), 301);
        serve("GET", "/static/c++.txt", {}, 1, 7);
        EXPECT_EQ(io_.body(), "plus");
        serve("GET", "/static/c%2B%2B.txt", {}, 1, 7);
        EXPECT_EQ(io_.status(), 301);
        serve("GET", "/static/page.html", {}, 1, 7);
        EXPECT_EQ(io_.status(), 200);
        serve("GET", "/staticpage.html", {}, 1, 7);
        EXPECT_EQ(io_.status(), 404);
        serve("GET", "/static/page.html/", {}, 1, 7);
        EXPECT_EQ(io_.status(), 404);
    }
}

TEST_F(Files_Handler_Answer, gets_the_descriptors_of_the_cache_when_there_are_no_others)
{
    configure();
    write("large", std::string(20'000, 'x'));
    get("/large");
    rlimit limit{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &limit), 0);
    int next = ::dup(0); // the next descriptor to be opened
    ::close(next);
    const rlimit all_taken{static_cast<rlim_t>(next), limit.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &all_taken), 0);
    io_.begin("GET", "/noext");
    io_.uri_off(1);
    HTTP_Handler* const handler = creator_->create();
    const int result = io_.run(*handler);
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &limit), 0);
    creator_->destroy(handler);
    EXPECT_EQ(result, 0);
    EXPECT_EQ(io_.status(), 200);
    EXPECT_EQ(io_.body(), "noext");
}

TEST_F(Files_Handler_Answer, is_the_file_that_was_checked_even_when_its_name_is_taken_over)
{
    configure();
    get("/page.html");
    io_.begin("GET", "/page.html");
    HTTP_Handler* const handler = creator_->create();
    handler->concurrency(io_.request(), HTTP_Handler::HEADER);
    fs::remove(scratch_.path("root/page.html"));
    fs::create_symlink("../secret", scratch_.path("root/page.html"));
    EXPECT_EQ(handler->handle_request(io_), 0);
    EXPECT_EQ(io_.body(), "0123456789");
    creator_->destroy(handler);
}

TEST_F(Files_Handler_Answer, runs_in_a_thread_only_when_it_is_large)
{
    configure({"--thread-size", "10"});
    write("dir/large.txt", "0123456789+");
    const auto asked = [this](std::string_view method, std::string_view target,
                              Fake_HTTP_IO::Fields fields = {}) {
        io_.begin(method, target, fields);
        HTTP_Handler* const handler = creator_->create();
        const HTTP_Handler::CONCURRENCY result =
            handler->concurrency(io_.request(), HTTP_Handler::HEADER);
        creator_->destroy(handler);
        return result;
    };
    for (const bool known : {false, true}) { // where the path goes on below the URI
        SCOPED_TRACE(known);
        EXPECT_EQ(asked("GET", "/dir/large.txt"), HTTP_Handler::THREAD);
        EXPECT_EQ(asked("GET", "/page.html"), HTTP_Handler::INHERITED);
        EXPECT_EQ(asked("GET", "/missing"), HTTP_Handler::INHERITED);
        EXPECT_EQ(asked("HEAD", "/dir/large.txt"), HTTP_Handler::INHERITED);
        EXPECT_EQ(asked("POST", "/dir/large.txt"), HTTP_Handler::INHERITED);
        get("/page.html");
    }
    EXPECT_EQ(asked("GET", "/dir/large.txt", {{"Range", "bytes=0-9"}}), HTTP_Handler::INHERITED);
    EXPECT_EQ(asked("GET", "/dir/large.txt", {{"If-None-Match", "*"}}), HTTP_Handler::INHERITED);
}

TEST_F(Files_Handler_Answer, finds_a_large_file_before_its_own_uri_is_known)
{
    write("dir/large.txt", std::string(File_Options::DEFAULT_THREAD_SIZE + 1, 'x'));
    const std::pair<const char*, HTTP_Handler::CONCURRENCY> rows[] = {
        {"/static/dir/large.txt", HTTP_Handler::THREAD},
        {"/a/b/dir/large.txt", HTTP_Handler::THREAD},
        {"/static/dir/", HTTP_Handler::INHERITED},
        {"/1/2/3/4/5/6/7/8/9", HTTP_Handler::THREAD},
    };
    for (const auto& [target, concurrency] : rows) {
        configure();
        io_.begin("GET", target);
        HTTP_Handler* const handler = creator_->create();
        EXPECT_EQ(handler->concurrency(io_.request(), HTTP_Handler::HEADER), concurrency) << target;
        creator_->destroy(handler);
    }
}

TEST(Files_Creator, refuses_a_root_that_is_no_directory)
{
    const Temp_Dir scratch;
    scratch.write("file", "");
    for (const char* const name : {"file", "missing"}) {
        const Log_Capture log;
        std::string option = "--root";
        std::string path = scratch.path(name);
        char* argv[] = {option.data(), path.data()};
        Files_Creator creator;
        EXPECT_EQ(creator.init(2, argv), -1);
        EXPECT_EQ(log.lines().size(), 1U);
        EXPECT_EQ(log.count(LM_ERROR, "'--root': cannot open directory " + path), 1U);
    }
}

} // namespace
