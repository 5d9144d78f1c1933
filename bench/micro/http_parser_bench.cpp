// What does it cost to read a request header, and to ask it what the engine asks?
#include "support/http_message.h"
#include "support/http_parser.h"

#include <ace/Message_Block.h>
#include <benchmark/benchmark.h>

#include <string_view>

namespace {

constexpr std::string_view SMALL = "GET /plaintext HTTP/1.1\r\n"
                                   "Host: 127.0.0.1:8080\r\n"
                                   "\r\n";

constexpr std::string_view BROWSER =
    "GET /static/articles/2024/overview.html?lang=en&page=2 HTTP/1.1\r\n"
    "Host: www.example.com\r\n"
    "Connection: keep-alive\r\n"
    "Cache-Control: max-age=0\r\n"
    "Upgrade-Insecure-Requests: 1\r\n"
    "User-Agent: Mozilla/5.0 (X11; Linux x86_64) AppleWebKit/537.36 (KHTML, like Gecko) "
    "Chrome/124.0.0.0 Safari/537.36\r\n"
    "Accept: text/html,application/xhtml+xml,application/xml;q=0.9,image/webp,*/*;q=0.8\r\n"
    "Referer: https://www.example.com/static/articles/\r\n"
    "Accept-Encoding: gzip, deflate, br\r\n"
    "Accept-Language: en-GB,en;q=0.9\r\n"
    "Cookie: session=0123456789abcdef0123456789abcdef; theme=dark\r\n"
    "\r\n";

constexpr std::string_view UNKNOWN_NAMES = "GET /api/v1/items?id=42 HTTP/1.1\r\n"
                                           "Host: api.example.com\r\n"
                                           "X-Tenant: 17\r\n"
                                           "X-Trace-Parent: 00-4bf92f3577b34da6a3ce929d0e0e4736\r\n"
                                           "Sec-Fetch-Site: same-origin\r\n"
                                           "Sec-Fetch-Mode: navigate\r\n"
                                           "Priority: u=0, i\r\n"
                                           "\r\n";

/// `piece` bytes arrive per read.
void parse(benchmark::State& state, std::string_view header, size_t piece)
{
    ACE_Message_Block block(8192);
    HTTP_Request request;
    HTTP_Request_Parser parser;
    for (auto _ : state) {
        block.reset();
        parser.reset();
        request.reset();
        HTTP_Parser_State result = HTTP_PARSER_STATE_LINE_EXPECTED;
        for (size_t at = 0; at < header.size(); at += piece) {
            const std::string_view next = header.substr(at, piece);
            block.copy(next.data(), next.size());
            result = parser.parse(block, request);
        }
        if (result != HTTP_PARSER_STATE_HEADERS_DONE) {
            state.SkipWithError("the header was not accepted");
            break;
        }
        benchmark::DoNotOptimize(request.uri(true));
        benchmark::DoNotOptimize(request.keep_alive());
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(header.size()) * state.iterations());
}

BENCHMARK_CAPTURE(parse, small, SMALL, SMALL.size());
BENCHMARK_CAPTURE(parse, browser, BROWSER, BROWSER.size());
BENCHMARK_CAPTURE(parse, unknown_names, UNKNOWN_NAMES, UNKNOWN_NAMES.size());
BENCHMARK_CAPTURE(parse, browser_in_pieces_of_16, BROWSER, size_t{16});
BENCHMARK_CAPTURE(parse, browser_byte_by_byte, BROWSER, size_t{1});

} // namespace

BENCHMARK_MAIN();
