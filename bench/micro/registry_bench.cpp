// What do a request's way through the registry and its handler object cost? Lookups by the number
// of keys, the lock under several threads, and a factory's recycled memory against the heap.
#include "httpd/http_handler.h"
#include "httpd/http_handler_creator_map.h"
#include "httpd/simple_creator_t.h"

#include <ace/Null_Mutex.h>
#include <ace/Thread_Mutex.h>
#include <benchmark/benchmark.h>

#include <array>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <new>
#include <string>
#include <string_view>

namespace {

thread_local std::uint64_t allocations = 0;

} // namespace

// Not inlined: the compiler would else see malloc and operator delete meet, and warn.
__attribute__((noinline)) void* operator new(size_t size)
{
    ++allocations;
    void* const memory = std::malloc(size);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return memory;
}

__attribute__((noinline)) void operator delete(void* memory) noexcept
{
    std::free(memory);
}

__attribute__((noinline)) void operator delete(void* memory, size_t) noexcept
{
    std::free(memory);
}

namespace {

/// A handler of the size that a plug-in with some state has.
template <size_t SIZE>
class Handler : public HTTP_Handler {
public:
    CONCURRENCY concurrency(const HTTP_Request&, HANDLE_METHOD) const override { return INHERITED; }
    int handle_request(HTTP_IO&) override { return 0; }
    int handle_body(HTTP_IO&, const void*, size_t) override { return 0; }

private:
    std::array<char, SIZE> state_;
};

template <size_t SIZE>
class Heap_Creator : public Object_Creator_T<HTTP_Handler> {
public:
    HTTP_Handler* create() override { return new (std::nothrow) Handler<SIZE>; }
    void destroy(HTTP_Handler* object) override { delete object; }
};

template <size_t SIZE>
using Recycling_Creator = Simple_Creator_T<HTTP_Handler, Handler<SIZE>>;

template <typename Mutex>
class Registry_T
    : public DLL_Object_Manager_T<Object_Creator_T<HTTP_Handler>, void (*)(void*), Mutex> {
public:
    void add(const std::string& uri) { this->insert(uri, "", new Heap_Creator<64>, nullptr); }

    /// "/", and keys that all begin alike.
    explicit Registry_T(std::int64_t keys)
    {
        add("/");
        for (std::int64_t i = 1; i < keys; ++i) {
            add("/api/v1/resource" + std::to_string(i));
        }
    }
};

/// @param uri  what is looked for among state.range(0) keys
template <typename Mutex>
void find(benchmark::State& state, std::string_view uri)
{
    const Registry_T<Mutex> registry(state.range(0));
    const std::uint64_t before = allocations;
    for (auto _ : state) {
        size_t off = 0;
        benchmark::DoNotOptimize(uri);
        benchmark::DoNotOptimize(registry.find(uri, '/', off));
    }
    state.counters["allocations"] = static_cast<double>(allocations - before);
}

void find_exact(benchmark::State& state)
{
    find<ACE_Thread_Mutex>(state, "/api/v1/resource1");
}
BENCHMARK(find_exact)->Arg(2)->Arg(10)->Arg(1000);

void find_below(benchmark::State& state)
{
    find<ACE_Thread_Mutex>(state, "/api/v1/resource1/items/42");
}
BENCHMARK(find_below)->Arg(2)->Arg(10)->Arg(1000);

void find_below_without_lock(benchmark::State& state)
{
    find<ACE_Null_Mutex>(state, "/api/v1/resource1/items/42");
}
BENCHMARK(find_below_without_lock)->Arg(2)->Arg(10)->Arg(1000);

/// The only match is the first key, behind all that begin like the URI.
void find_root(benchmark::State& state)
{
    find<ACE_Thread_Mutex>(state, "/api/v1/resourcezzz/items/42");
}
BENCHMARK(find_root)->Arg(2)->Arg(10)->Arg(1000)->Arg(100000);

/// Each slash of the URI is a place where a search may go on.
void find_root_for_many_slashes(benchmark::State& state)
{
    find<ACE_Thread_Mutex>(state, std::string(8000, '/'));
}
BENCHMARK(find_root_for_many_slashes)->Arg(1000);

void find_in_several_threads(benchmark::State& state)
{
    static const Registry_T<ACE_Thread_Mutex> registry(10);
    for (auto _ : state) {
        size_t off = 0;
        benchmark::DoNotOptimize(registry.find("/api/v1/resource1/items/42", '/', off));
    }
}
BENCHMARK(find_in_several_threads)->ThreadRange(1, 4)->UseRealTime();

/// One request's object: made, then given back before the next.
template <typename Creator>
void make_and_give_back(benchmark::State& state)
{
    static Creator creator;
    Object_Creator_T<HTTP_Handler>* factory = &creator;
    benchmark::DoNotOptimize(factory);
    for (auto _ : state) {
        HTTP_Handler* const object = factory->create();
        benchmark::DoNotOptimize(object);
        factory->destroy(object);
    }
}
BENCHMARK(make_and_give_back<Heap_Creator<64>>);
BENCHMARK(make_and_give_back<Recycling_Creator<64>>);
BENCHMARK(make_and_give_back<Heap_Creator<1024>>);
BENCHMARK(make_and_give_back<Recycling_Creator<1024>>);
BENCHMARK(make_and_give_back<Heap_Creator<8192>>);
BENCHMARK(make_and_give_back<Recycling_Creator<8192>>);
BENCHMARK(make_and_give_back<Heap_Creator<200000>>);
BENCHMARK(make_and_give_back<Recycling_Creator<200000>>);
BENCHMARK(make_and_give_back<Heap_Creator<8192>>)->Threads(2)->UseRealTime();
BENCHMARK(make_and_give_back<Recycling_Creator<8192>>)->Threads(2)->UseRealTime();

} // namespace

BENCHMARK_MAIN();
