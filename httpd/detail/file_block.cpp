#include "httpd/detail/file_block.h"

#include <cerrno>
#include <cstdlib>
#include <memory>

namespace {

struct Free_Delete {
    void operator()(char* memory) const { std::free(memory); }
};

} // namespace

char* file_block()
{
    constexpr size_t PAGE_SIZE = 4096;
    thread_local std::unique_ptr<char, Free_Delete> buffer;
    if (buffer == nullptr) {
        buffer.reset(static_cast<char*>(std::aligned_alloc(PAGE_SIZE, FILE_BLOCK_SIZE)));
        if (buffer == nullptr) {
            errno = ENOMEM;
        }
    }
    return buffer.get();
}
