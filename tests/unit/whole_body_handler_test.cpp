#include "httpd/whole_body_handler.h"

#include "tests/support/fake_http_io.h"
#include "tests/support/sanitized.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <sys/resource.h>
#include <vector>

namespace {

constexpr size_t LIMIT = 16;

/// Keeps the bodies that it is given and answers with their text, or as the test wants.
class Body_Keeper : public Whole_Body_Handler {
public:
    enum class Answer { BODY, NOTHING, FAILURE };

    explicit Body_Keeper(size_t limit = LIMIT) : Whole_Body_Handler(limit) {}

    int handle_whole_body(HTTP_IO& io, std::string_view body) override
    {
        bodies_.emplace_back(body);
        if (answer_ == Answer::FAILURE) {
            return -1;
        }
        if (answer_ == Answer::NOTHING) {
            io.response().status(status_);
            return 0;
        }
        io.response().content_length(body.size());
        return io.send(body.data(), body.size(), true);
    }

    Answer answer_ = Answer::BODY;
    int status_ = 200;
    std::vector<std::string> bodies_;
};

using Bodies = std::vector<std::string>;

/// A refusal that leaves a body unread must end the connection.
void expect_refused(const Fake_HTTP_IO& io, const Body_Keeper& handler, int result, int status)
{
    EXPECT_EQ(result, -1);
    EXPECT_EQ(io.status(), status);
    EXPECT_EQ(io.field("Connection"), "close");
    EXPECT_FALSE(io.has_field("Content-Length"));
    EXPECT_FALSE(io.has_field("Transfer-Encoding"));
    EXPECT_FALSE(io.kept());
    EXPECT_TRUE(io.complete());
    EXPECT_EQ(io.wrong_state_calls(), 0);
    EXPECT_EQ(handler.bodies_, Bodies{});
}

TEST(Whole_Body_Handler, collects_a_counted_body_however_it_arrives)
{
    const std::string body = "sixteen bytes ok";
    ASSERT_EQ(body.size(), LIMIT);
    for (size_t step = 1; step <= body.size(); ++step) {
        SCOPED_TRACE(step);
        Fake_HTTP_IO io;
        Body_Keeper handler;
        io.begin("POST", "/", {{"Content-Length", "16"}});
        EXPECT_EQ(io.run(handler, body, step), 0);
        EXPECT_EQ(handler.bodies_, Bodies{body});
        EXPECT_EQ(io.body(), body);
        EXPECT_EQ(io.status(), 200);
        EXPECT_TRUE(io.kept());
    }
}

TEST(Whole_Body_Handler, collects_a_counted_body_cut_anywhere)
{
    const std::string body = "sixteen bytes ok";
    for (size_t cut = 1; cut < body.size(); ++cut) {
        SCOPED_TRACE(cut);
        Fake_HTTP_IO io;
        Body_Keeper handler;
        io.begin("POST", "/", {{"Content-Length", "16"}});
        EXPECT_EQ(handler.handle_request(io), 0);
        EXPECT_EQ(handler.handle_body(io, body.data(), cut), 0);
        EXPECT_EQ(handler.bodies_, Bodies{});
        EXPECT_EQ(handler.handle_body(io, body.data() + cut, body.size() - cut), 0);
        EXPECT_EQ(handler.bodies_, Bodies{body});
    }
}

TEST(Whole_Body_Handler, hands_a_counted_body_on_where_it_lies_when_it_comes_in_one_piece)
{
    class Address_Keeper : public Whole_Body_Handler {
    public:
        Address_Keeper() : Whole_Body_Handler(LIMIT) {}

        int handle_whole_body(HTTP_IO& io, std::string_view body) override
        {
            address_ = body.data();
            return io.send_error(204);
        }

        const char* address_ = nullptr;
    };
    Fake_HTTP_IO io;
    Address_Keeper handler;
    const std::string body = "abc";
    io.begin("POST", "/", {{"Content-Length", "3"}});
    io.run(handler, body);
    EXPECT_EQ(handler.address_, body.data());
}

TEST(Whole_Body_Handler, collects_a_chunked_body_however_it_arrives)
{
    const std::string body = "sixteen bytes ok";
    for (size_t step = 1; step <= body.size(); ++step) {
        SCOPED_TRACE(step);
        Fake_HTTP_IO io;
        Body_Keeper handler;
        io.begin("POST", "/", {{"Transfer-Encoding", "chunked"}});
        EXPECT_EQ(io.run(handler, body, step), 0);
        EXPECT_EQ(handler.bodies_, Bodies{body});
        EXPECT_EQ(io.body(), body);
        EXPECT_TRUE(io.kept());
    }
}

TEST(Whole_Body_Handler, hands_an_empty_chunked_body_over_at_its_end)
{
    Fake_HTTP_IO io;
    Body_Keeper handler;
    io.begin("POST", "/", {{"Transfer-Encoding", "chunked"}});
    EXPECT_EQ(handler.handle_request(io), 0);
    EXPECT_EQ(handler.bodies_, Bodies{});
    EXPECT_EQ(handler.handle_body(io, nullptr, 0), 0);
    EXPECT_EQ(handler.bodies_, Bodies{""});
}

TEST(Whole_Body_Handler, keeps_bytes_of_every_value)
{
    std::string body;
    for (int value = 0; value < 256; ++value) {
        body += static_cast<char>(value);
    }
    Fake_HTTP_IO io;
    Body_Keeper handler(256);
    io.begin("PUT", "/", {{"Content-Length", "256"}});
    io.run(handler, body, 100);
    EXPECT_EQ(handler.bodies_, Bodies{body});
}

TEST(Whole_Body_Handler, collects_more_than_it_sets_aside_beforehand)
{
    const std::string body(300 * 1024, 'x');
    Fake_HTTP_IO io;
    Body_Keeper handler(1024 * 1024);
    io.begin("PUT", "/", {{"Content-Length", std::to_string(body.size())}});
    io.run(handler, body, 8192);
    EXPECT_EQ(handler.bodies_, Bodies{body});
}

TEST(Whole_Body_Handler, hands_a_request_without_a_body_over_at_once)
{
    for (const char* const method : {"GET", "DELETE", "POST"}) {
        SCOPED_TRACE(method);
        Fake_HTTP_IO io;
        Body_Keeper handler;
        io.begin(method, "/");
        EXPECT_EQ(handler.handle_request(io), 0);
        EXPECT_EQ(handler.bodies_, Bodies{""});
        EXPECT_EQ(io.status(), 200);
        EXPECT_TRUE(io.kept());
    }
}

TEST(Whole_Body_Handler, hands_a_request_with_a_body_of_length_0_over_at_once)
{
    Fake_HTTP_IO io;
    Body_Keeper handler;
    io.begin("POST", "/", {{"Content-Length", "0"}});
    EXPECT_EQ(io.run(handler), 0);
    EXPECT_EQ(handler.bodies_, Bodies{""});
    EXPECT_TRUE(io.kept());
}

TEST(Whole_Body_Handler, answers_a_get_with_the_status_when_the_plug_in_sends_nothing)
{
    Fake_HTTP_IO io;
    Body_Keeper handler;
    handler.answer_ = Body_Keeper::Answer::NOTHING;
    handler.status_ = 202;
    io.begin("GET", "/");
    EXPECT_EQ(io.run(handler), 0);
    EXPECT_EQ(io.status(), 202);
    EXPECT_EQ(io.sends().size(), 1U);
    EXPECT_TRUE(io.kept());
}

TEST(Whole_Body_Handler, leaves_the_answer_to_the_connection_where_that_gives_one)
{
    const struct {
        const char* name;
        const char* method;
        Fake_HTTP_IO::Fields fields;
    } rows[] = {
        {"HEAD", "HEAD", {}},
        {"length 0", "POST", {{"Content-Length", "0"}}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Fake_HTTP_IO io;
        Body_Keeper handler;
        handler.answer_ = Body_Keeper::Answer::NOTHING;
        io.begin(row.method, "/", row.fields);
        EXPECT_EQ(handler.handle_request(io), 0);
        EXPECT_EQ(handler.bodies_, Bodies{""});
        EXPECT_TRUE(io.sends().empty());
    }
}

TEST(Whole_Body_Handler, passes_a_failure_of_the_plug_in_on)
{
    Fake_HTTP_IO io;
    Body_Keeper handler;
    handler.answer_ = Body_Keeper::Answer::FAILURE;
    io.begin("GET", "/");
    EXPECT_EQ(handler.handle_request(io), -1);
    io.begin("POST", "/", {{"Content-Length", "2"}});
    EXPECT_EQ(handler.handle_request(io), 0);
    EXPECT_EQ(handler.handle_body(io, "a", 1), 0);
    EXPECT_EQ(handler.handle_body(io, "b", 1), -1);
    EXPECT_TRUE(io.sends().empty());
}

TEST(Whole_Body_Handler, passes_on_that_a_completed_response_is_of_unknown_length)
{
    class No_Length : public Whole_Body_Handler {
    public:
        No_Length() : Whole_Body_Handler(LIMIT) {}

        int handle_whole_body(HTTP_IO& io, std::string_view body) override
        {
            return io.send(body.data(), body.size(), true);
        }
    };
    Fake_HTTP_IO io;
    No_Length handler;
    io.begin("GET", "/");
    EXPECT_EQ(handler.handle_request(io), -1);
    io.begin("POST", "/", {{"Content-Length", "1"}});
    EXPECT_EQ(handler.handle_request(io), 0);
    EXPECT_EQ(handler.handle_body(io, "a", 1), -1);
}

TEST(Whole_Body_Handler, refuses_a_declared_length_beyond_the_limit_before_the_body)
{
    for (const char* const length : {"17", "4294967312", "18446744073709551615"}) {
        SCOPED_TRACE(length);
        Fake_HTTP_IO io;
        Body_Keeper handler;
        io.begin("POST", "/", {{"Content-Length", length}});
        const int result = handler.handle_request(io);
        expect_refused(io, handler, result, 413);
    }
}

TEST(Whole_Body_Handler, refuses_a_chunked_body_as_soon_as_it_is_beyond_the_limit)
{
    const std::string body(LIMIT + 1, 'x');
    for (size_t step = 1; step <= body.size(); ++step) {
        SCOPED_TRACE(step);
        Fake_HTTP_IO io;
        Body_Keeper handler;
        io.begin("POST", "/", {{"Transfer-Encoding", "chunked"}});
        const int result = io.run(handler, body, step);
        expect_refused(io, handler, result, 413);
    }
}

TEST(Whole_Body_Handler, a_limit_of_0_refuses_every_body)
{
    Fake_HTTP_IO io;
    Body_Keeper handler(0);
    io.begin("POST", "/", {{"Content-Length", "1"}});
    expect_refused(io, handler, handler.handle_request(io), 413);
    io.begin("POST", "/", {{"Transfer-Encoding", "chunked"}});
    expect_refused(io, handler, io.run(handler, "x"), 413);
    io.begin("GET", "/");
    EXPECT_EQ(io.run(handler), 0);
}

TEST(Whole_Body_Handler, refuses_a_body_whose_end_it_cannot_find)
{
    for (const char* const coding : {"gzip", "gzip, chunked", "Chunked", "identity", ""}) {
        SCOPED_TRACE(coding);
        Fake_HTTP_IO io;
        Body_Keeper handler;
        io.begin("POST", "/", {{"Transfer-Encoding", coding}});
        expect_refused(io, handler, handler.handle_request(io), 501);
    }
}

TEST(Whole_Body_Handler, refuses_a_head_request_with_a_body)
{
    const Fake_HTTP_IO::Fields rows[] = {{{"Content-Length", "3"}},
                                         {{"Transfer-Encoding", "chunked"}}};
    for (const Fake_HTTP_IO::Fields& fields : rows) {
        Fake_HTTP_IO io;
        Body_Keeper handler;
        io.begin("HEAD", "/", fields);
        expect_refused(io, handler, handler.handle_request(io), 400);
    }
}

TEST(Whole_Body_Handler, a_refusal_drops_the_framing_that_the_plug_in_or_others_have_set)
{
    Fake_HTTP_IO io;
    Body_Keeper handler;
    io.begin("POST", "/", {{"Content-Length", "17"}});
    io.response().content_length(5);
    io.response().chunked_transfer_encoding(true);
    expect_refused(io, handler, handler.handle_request(io), 413);
}

TEST(Whole_Body_Handler_DeathTest, refuses_with_500_when_there_is_no_memory_for_the_body)
{
#if defined(HTTPD_TEST_SANITIZED)
    GTEST_SKIP() << "a sanitizer needs more memory than is left here";
#endif
    const auto refused = [] {
        constexpr rlim_t ENOUGH_FOR_A_PIECE = 512 * 1024 * 1024;
        const rlimit limit = {ENOUGH_FOR_A_PIECE, ENOUGH_FOR_A_PIECE};
        ::setrlimit(RLIMIT_AS, &limit);
        const std::string piece(8 * 1024 * 1024, 'x');
        Fake_HTTP_IO io;
        Body_Keeper handler(~size_t{0});
        io.begin("POST", "/", {{"Transfer-Encoding", "chunked"}});
        int result = handler.handle_request(io);
        for (int i = 0; i < 100 && result == 0; ++i) {
            result = handler.handle_body(io, piece.data(), piece.size());
        }
        return result == -1 && io.status() == 500 && !io.kept() && handler.bodies_.empty();
    };
    EXPECT_EXIT(std::_Exit(refused() ? 0 : 1), testing::ExitedWithCode(0), "");
}

TEST(Whole_Body_Handler, a_refusal_that_cannot_be_sent_closes_all_the_same)
{
    Fake_HTTP_IO io;
    Body_Keeper handler;
    io.begin("POST", "/", {{"Content-Length", "17"}});
    io.fail_at(0);
    EXPECT_EQ(handler.handle_request(io), -1);
}

TEST(Whole_Body_Handler, runs_where_the_connection_is)
{
    Fake_HTTP_IO io;
    const Body_Keeper handler;
    EXPECT_EQ(handler.concurrency(io.request(), HTTP_Handler::HEADER), HTTP_Handler::INHERITED);
}

} // namespace
