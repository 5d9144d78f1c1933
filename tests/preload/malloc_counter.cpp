// Loaded in front of everything else (LD_PRELOAD): counts the heap allocations of a process.
// operator new and the aligned forms of the C library end here too.

#include <atomic>
#include <cerrno>
#include <cstddef>

namespace {

std::atomic<unsigned long> allocations{0};

} // namespace

// Seen from outside whatever the compiler's default is; else they would replace nothing.
#pragma GCC visibility push(default)

// The C library's own functions under the names that it keeps for this purpose.
extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* memory, std::size_t size);
void* __libc_memalign(std::size_t alignment, std::size_t size);

unsigned long httpd_test_malloc_count();
void* malloc(std::size_t size) noexcept;
void* calloc(std::size_t count, std::size_t size) noexcept;
void* realloc(void* memory, std::size_t size) noexcept;
void* aligned_alloc(std::size_t alignment, std::size_t size) noexcept;
void* memalign(std::size_t alignment, std::size_t size) noexcept;
int posix_memalign(void** memory, std::size_t alignment, std::size_t size) noexcept;
}

#pragma GCC visibility pop

unsigned long httpd_test_malloc_count()
{
    return allocations.load(std::memory_order_relaxed);
}

void* malloc(std::size_t size) noexcept
{
    allocations.fetch_add(1, std::memory_order_relaxed);
    return __libc_malloc(size);
}

void* calloc(std::size_t count, std::size_t size) noexcept
{
    allocations.fetch_add(1, std::memory_order_relaxed);
    return __libc_calloc(count, size);
}

void* realloc(void* memory, std::size_t size) noexcept
{
    allocations.fetch_add(1, std::memory_order_relaxed);
    return __libc_realloc(memory, size);
}

void* aligned_alloc(std::size_t alignment, std::size_t size) noexcept
{
    allocations.fetch_add(1, std::memory_order_relaxed);
    return __libc_memalign(alignment, size);
}

void* memalign(std::size_t alignment, std::size_t size) noexcept
{
    allocations.fetch_add(1, std::memory_order_relaxed);
    return __libc_memalign(alignment, size);
}

int posix_memalign(void** memory, std::size_t alignment, std::size_t size) noexcept
{
    allocations.fetch_add(1, std::memory_order_relaxed);
    void* const found = __libc_memalign(alignment, size);
    if (found == nullptr) {
        return ENOMEM;
    }
    *memory = found;
    return 0;
}
