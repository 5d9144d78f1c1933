#include "plugins/echo/echo_handler.h"
#include "tests/support/fake_http_io.h"

#include <gtest/gtest.h>

namespace {

/// Serves one request with a handler of its own.
int serve(Fake_HTTP_IO& io, std::string_view body = {}, size_t step = 8192)
{
    Echo_Handler handler;
    const int result = io.run(handler, body, step);
    EXPECT_EQ(io.wrong_state_calls(), 0);
    return result;
}

HTTP_Handler::CONCURRENCY concurrency(std::string_view method, Fake_HTTP_IO::Fields fields)
{
    Fake_HTTP_IO io;
    io.begin(method, "/", fields);
    return Echo_Handler().concurrency(io.request(), HTTP_Handler::HEADER);
}

TEST(Echo_Handler, answers_a_request_without_body_at_once)
{
    Fake_HTTP_IO io;
    io.begin("GET", "/echo/%61?x=%20&y", {{"Host", "a.test"}, {"X-Own", "1, 2"}});
    EXPECT_EQ(serve(io), 0);
    const std::string text = "Method: GET\nURI: /echo/a\nQuery: x=%20&y\nHost: a.test\n"
                             "X-Own: 1, 2\n\n";
    EXPECT_EQ(io.status(), 200);
    EXPECT_EQ(io.body(), text);
    EXPECT_EQ(io.field("Content-Length"), std::to_string(text.size()));
    EXPECT_EQ(io.field("Content-Type"), "text/plain");
    EXPECT_EQ(io.field("X-Content-Type-Options"), "nosniff");
    EXPECT_EQ(io.field("Cache-Control"), "no-store");
    EXPECT_EQ(io.sends().size(), 1U);
    EXPECT_TRUE(io.kept());
}

TEST(Echo_Handler, tells_no_query_where_there_is_none)
{
    Fake_HTTP_IO io;
    io.begin("DELETE", "/");
    serve(io);
    EXPECT_EQ(io.body(), "Method: DELETE\nURI: /\n\n");
    io.begin("PATCH", "/?");
    serve(io);
    EXPECT_EQ(io.body(), "Method: PATCH\nURI: /\nQuery: \n\n");
}

TEST(Echo_Handler, answers_head_with_the_header_of_get)
{
    Fake_HTTP_IO io;
    io.begin("GET", "/x");
    serve(io);
    const size_t length = io.body().size();
    io.begin("HEAD", "/x");
    EXPECT_EQ(serve(io), 0);
    EXPECT_EQ(io.body(), "");
    EXPECT_EQ(io.field("Content-Length"), std::to_string(length + 1)); // "HEAD" is longer
    EXPECT_TRUE(io.kept());
}

TEST(Echo_Handler, closes_for_http_1_0)
{
    Fake_HTTP_IO io;
    io.begin("GET", "/", {}, 0);
    EXPECT_EQ(serve(io), -1);
    EXPECT_EQ(io.body(), "Method: GET\nURI: /\n\n");
}

TEST(Echo_Handler, sends_a_counted_body_back_however_it_arrives)
{
    const std::string body = "GET /x HTTP/1.1\r\n\r\n";
    const std::string text =
        "Method: POST\nURI: /\nContent-Length: " + std::to_string(body.size()) + "\n\n";
    for (size_t step = 1; step <= body.size(); ++step) {
        SCOPED_TRACE(step);
        Fake_HTTP_IO io;
        io.begin("POST", "/", {{"Content-Length", std::to_string(body.size())}});
        EXPECT_EQ(serve(io, body, step), 0);
        EXPECT_EQ(io.body(), text + body);
        EXPECT_EQ(io.field("Transfer-Encoding"), "chunked");
        EXPECT_FALSE(io.has_field("Content-Length"));
        EXPECT_EQ(io.sends().size(), (body.size() + step - 1) / step);
        EXPECT_TRUE(io.kept());
    }
}

TEST(Echo_Handler, sends_a_chunked_body_back_and_ends_with_it)
{
    for (const std::string_view body : {std::string_view(), std::string_view("hello, world")}) {
        Fake_HTTP_IO io;
        io.begin("PUT", "/", {{"Transfer-Encoding", "chunked"}});
        EXPECT_EQ(serve(io, body, 5), 0);
        EXPECT_EQ(io.body(),
                  "Method: PUT\nURI: /\nTransfer-Encoding: chunked\n\n" + std::string(body));
        EXPECT_TRUE(io.kept());
    }
}

TEST(Echo_Handler, ends_a_body_with_the_connection_for_http_1_0)
{
    Fake_HTTP_IO io;
    io.begin("POST", "/", {{"Content-Length", "6"}, {"Connection", "Keep-Alive"}}, 0);
    EXPECT_EQ(serve(io, "abcdef", 4), -1);
    EXPECT_EQ(io.body(),
              "Method: POST\nURI: /\nContent-Length: 6\nConnection: Keep-Alive\n\nabcdef");
    EXPECT_FALSE(io.has_field("Transfer-Encoding"));
    EXPECT_EQ(io.field("Connection"), "close");
    EXPECT_TRUE(io.complete());
}

TEST(Echo_Handler, closes_when_the_client_asks_for_it)
{
    Fake_HTTP_IO io;
    io.begin("POST", "/", {{"Content-Length", "2"}, {"Connection", "close"}});
    EXPECT_EQ(serve(io, "ab", 1), -1);
    EXPECT_TRUE(io.complete());
}

TEST(Echo_Handler, sends_nothing_before_the_body_arrives)
{
    Fake_HTTP_IO io;
    io.begin("POST", "/", {{"Content-Length", "2"}, {"Expect", "100-continue"}});
    Echo_Handler handler;
    EXPECT_EQ(handler.handle_request(io), 0);
    EXPECT_EQ(io.response_state(), HTTP_SOCK_STATE_CONNECTED);
}

TEST(Echo_Handler, closes_where_a_body_is_left_unread)
{
    const std::string_view smuggled = "GET / HTTP/1.1\r\n\r\n";
    const std::string length = std::to_string(smuggled.size());
    Fake_HTTP_IO io;
    io.begin("HEAD", "/", {{"Content-Length", length}});
    EXPECT_EQ(serve(io, smuggled), -1);
    EXPECT_EQ(io.field("Connection"), "close");
    io.begin("HEAD", "/", {{"Transfer-Encoding", "chunked"}});
    EXPECT_EQ(serve(io, smuggled), -1);
    EXPECT_EQ(io.field("Connection"), "close");
    io.begin("POST", "/", {{"Transfer-Encoding", "gzip, chunked"}});
    EXPECT_EQ(serve(io, smuggled), -1);
    EXPECT_EQ(io.status(), 411);
}

TEST(Echo_Handler, passes_on_the_failure_of_any_send)
{
    for (int n = 0; n < 3; ++n) {
        Fake_HTTP_IO io;
        io.begin("POST", "/", {{"Content-Length", "6"}});
        io.fail_at(n);
        EXPECT_EQ(serve(io, "abcdef", 2), -1);
        EXPECT_EQ(io.sends().size(), static_cast<size_t>(n) + 1);
    }
}

TEST(Echo_Handler, takes_a_thread_for_a_body_that_may_not_fit_the_sockets)
{
    EXPECT_EQ(concurrency("GET", {}), HTTP_Handler::INHERITED);
    EXPECT_EQ(concurrency("POST", {{"Content-Length", "65536"}}), HTTP_Handler::INHERITED);
    EXPECT_EQ(concurrency("POST", {{"Content-Length", "65537"}}), HTTP_Handler::THREAD);
    EXPECT_EQ(concurrency("POST", {{"Transfer-Encoding", "chunked"}}), HTTP_Handler::THREAD);
    EXPECT_EQ(concurrency("HEAD", {{"Content-Length", "65537"}}), HTTP_Handler::INHERITED);
}

} // namespace
