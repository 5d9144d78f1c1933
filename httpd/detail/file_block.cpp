#include "httpd/detail/file_block.h"

#include "support/thread_end.h"

#include <cerrno>
#include <cstdlib>

namespace {

constinit thread_local char* buffer = nullptr;

void free_buffer()
{
    std::free(buffer);
    buffer = nullptr;
}

} // namespace

char* file_block()
{
    constexpr size_t PAGE_SIZE = 4096;
    if (buffer == nullptr) {
        buffer = static_cast<char*>(std::aligned_alloc(PAGE_SIZE, FILE_BLOCK_SIZE));
        if (buffer != nullptr && !call_at_thread_end<&free_buffer>()) {
            free_buffer();
        }
        if (buffer == nullptr) {
            errno = ENOMEM;
        }
    }
    return buffer;
}
