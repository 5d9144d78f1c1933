// The heap of the fault injector; left out where a sanitizer has the heap in its own hands.

#include "tests/preload/fault_injector.h"

#include <cerrno>

namespace {

bool allocation_fails()
{
    return fault_strikes(Fault_Call::ALLOCATE, -1, nullptr) != nullptr;
}

void* no_memory()
{
    errno = ENOMEM;
    return nullptr;
}

} // namespace

// Seen from outside whatever the compiler's default is; else they would replace nothing.
#pragma GCC visibility push(default)

// The C library's own functions under the names that it keeps for this purpose.
extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* memory, std::size_t size);
void* __libc_memalign(std::size_t alignment, std::size_t size);

void* malloc(std::size_t size) noexcept;
void* calloc(std::size_t count, std::size_t size) noexcept;
void* realloc(void* memory, std::size_t size) noexcept;
void* aligned_alloc(std::size_t alignment, std::size_t size) noexcept;
void* memalign(std::size_t alignment, std::size_t size) noexcept;
int posix_memalign(void** memory, std::size_t alignment, std::size_t size) noexcept;
}

#pragma GCC visibility pop

void* malloc(std::size_t size) noexcept
{
    return allocation_fails() ? no_memory() : __libc_malloc(size);
}

void* calloc(std::size_t count, std::size_t size) noexcept
{
    return allocation_fails() ? no_memory() : __libc_calloc(count, size);
}

void* realloc(void* memory, std::size_t size) noexcept
{
    return allocation_fails() ? no_memory() : __libc_realloc(memory, size);
}

void* aligned_alloc(std::size_t alignment, std::size_t size) noexcept
{
    return allocation_fails() ? no_memory() : __libc_memalign(alignment, size);
}

void* memalign(std::size_t alignment, std::size_t size) noexcept
{
    return allocation_fails() ? no_memory() : __libc_memalign(alignment, size);
}

int posix_memalign(void** memory, std::size_t alignment, std::size_t size) noexcept
{
    void* const found = allocation_fails() ? nullptr : __libc_memalign(alignment, size);
    if (found == nullptr) {
        return ENOMEM;
    }
    *memory = found;
    return 0;
}
