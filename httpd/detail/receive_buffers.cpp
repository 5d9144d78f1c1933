#include "httpd/detail/receive_buffers.h"

#include "support/thread_free_list_t.h"

#include <ace/Malloc_Allocator.h>
#include <ace/Message_Block.h>

#include <cerrno>
#include <cstdlib>
#include <new>

namespace {

/**
 * Memory on a cache line's border: what malloc returns for a large block lies 16 bytes behind the
 * beginning of a page, where the kernel copies at a fraction of its speed.
 */
class Aligned_Allocator : public ACE_New_Allocator {
public:
    void* malloc(size_t size) override
    {
        constexpr size_t CACHE_LINE = 64;
        const size_t rounded = (size + CACHE_LINE - 1) & ~(CACHE_LINE - 1);
        if (rounded < size) {
            errno = ENOMEM;
            return nullptr;
        }
        return std::aligned_alloc(CACHE_LINE, rounded);
    }

    void free(void* memory) override { std::free(memory); }
};

/// Never destroyed: a buffer may outlive static objects.
ACE_Allocator* aligned_allocator()
{
    static auto* const allocator = new Aligned_Allocator;
    return allocator;
}

ACE_Message_Block* allocate(size_t size)
{
    ACE_Message_Block* buffer = nullptr;
    try {
        buffer = new (std::nothrow) ACE_Message_Block(size, ACE_Message_Block::MB_DATA, nullptr,
                                                      nullptr, aligned_allocator());
    } catch (const std::bad_alloc&) {
        buffer = nullptr;
    }
    if (buffer != nullptr && buffer->data_block() == nullptr) { // no memory for the bytes
        buffer->release();
        buffer = nullptr;
    }
    if (buffer == nullptr) {
        errno = ENOMEM;
    }
    return buffer;
}

struct Buffer_Traits {
    using Piece = ACE_Message_Block;
    static constexpr size_t MOST = Receive_Buffers::KEPT_BUFFERS;
    static constexpr size_t MOST_BYTES = Receive_Buffers::KEPT_BYTES;

    static ACE_Message_Block* next(const ACE_Message_Block& buffer) { return buffer.next(); }
    static void set_next(ACE_Message_Block& buffer, ACE_Message_Block* next) { buffer.next(next); }
    static size_t size(const ACE_Message_Block& buffer) { return buffer.capacity(); }
    static void free(ACE_Message_Block* buffer) { buffer->release(); }
};

using Free_Buffers = Thread_Free_List_T<Buffer_Traits>;

/// In the place of a free buffer of another size, or of none.
[[gnu::noinline]] ACE_Message_Block* replace(ACE_Message_Block* buffer, size_t size)
{
    while (buffer != nullptr && buffer->capacity() != size) {
        buffer->release();
        buffer = Free_Buffers::take();
    }
    return buffer != nullptr ? buffer : allocate(size);
}

} // namespace

ACE_Message_Block* Receive_Buffers::take(size_t size)
{
    ACE_Message_Block* buffer = Free_Buffers::take();
    // Another size than the options' present one is of a service that has ended.
    if (buffer == nullptr || buffer->capacity() != size) {
        buffer = replace(buffer, size);
    }
    if (buffer != nullptr) {
        buffer->reset();
    }
    return buffer;
}

void Receive_Buffers::give(ACE_Message_Block* buffer)
{
    Free_Buffers::give(buffer);
}
