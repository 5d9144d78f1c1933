#pragma once

#include "support/export.h"

#include <cstddef>
#include <string_view>

/**
 * Memory of one message: grows while a message is read or built, is emptied as a whole between two
 * messages, and then keeps what it has, so that a warm connection allocates nothing.
 *
 * What `allocate` returned stays where it is until `reset` or destruction. Used by one thread at a
 * time; owned by the message.
 */
class HTTPD_SUPPORT_EXPORT Arena {
public:
    Arena() = default;
    ~Arena();
    Arena(const Arena&) = delete;
    Arena& operator=(const Arena&) = delete;

    /// `size` bytes aligned for any header structure, or null when there is no memory (ENOMEM).
    void* allocate(size_t size);

    /// A NUL-terminated copy of `text`, or null when there is no memory (ENOMEM).
    char* copy(std::string_view text);

    /// Forgets every allocation. Keeps one block, of at most `MAX_KEPT` bytes, for the next
    /// message.
    void reset();

    enum : size_t { FIRST_BLOCK = 1024, MAX_KEPT = 16 * 1024 };

private:
    struct Block {
        Block* next_;
        size_t capacity_;
        char* data() { return reinterpret_cast<char*>(this + 1); }
    };

    void* allocate_slow(size_t size);

    Block* blocks_ = nullptr; ///< newest first; only the newest is allocated from
    char* cursor_ = nullptr;
    char* end_ = nullptr;
};
