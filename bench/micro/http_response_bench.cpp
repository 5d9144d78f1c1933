// What does it cost to build and serialise a response head, and to frame a chunk?
#include "support/http_chunk_iovec.h"
#include "support/http_message.h"

#include <benchmark/benchmark.h>

#include <string_view>

namespace {

void small_response(benchmark::State& state)
{
    HTTP_Response response;
    for (auto _ : state) {
        response.reset();
        response.content_type("text/plain");
        response.content_length(13);
        response.keep_alive(true);
        iovec head{};
        benchmark::DoNotOptimize(response.to_iovec(&head, 1));
        benchmark::DoNotOptimize(head);
    }
}
BENCHMARK(small_response);

void file_response(benchmark::State& state)
{
    HTTP_Response response;
    for (auto _ : state) {
        response.reset();
        response.headers().put(HTTP_HEAD_ACCEPT_RANGES, "bytes");
        response.headers().put(HTTP_HEAD_LAST_MODIFIED, "Sun, 06 Nov 1994 08:49:37 GMT");
        response.headers().put(HTTP_HEAD_ETAG, "\"65f1a2b3-1a2b3c\"");
        response.headers().put(HTTP_HEAD_CACHE_CONTROL, "max-age=3600");
        response.content_length(1715004);
        response.content_type("text/html");
        response.keep_alive(true);
        iovec head{};
        benchmark::DoNotOptimize(response.to_iovec(&head, 1));
        benchmark::DoNotOptimize(head);
    }
}
BENCHMARK(file_response);

void error_response(benchmark::State& state)
{
    HTTP_Response response;
    for (auto _ : state) {
        response.reset();
        response.status(404);
        response.chunked_transfer_encoding(false);
        response.content_length(0);
        response.keep_alive(false);
        iovec head{};
        benchmark::DoNotOptimize(response.to_iovec(&head, 1));
        benchmark::DoNotOptimize(head);
    }
}
BENCHMARK(error_response);

void chunk(benchmark::State& state)
{
    static char data[4096];
    for (auto _ : state) {
        iovec iov[3];
        HTTP_Chunk_iovec framing(iov);
        benchmark::DoNotOptimize(HTTP_Chunk_iovec::iovec_count(data, sizeof(data), false));
        benchmark::DoNotOptimize(framing.to_iovec(data, sizeof(data), false));
        benchmark::DoNotOptimize(iov);
    }
}
BENCHMARK(chunk);

} // namespace

BENCHMARK_MAIN();
