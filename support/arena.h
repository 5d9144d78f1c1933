#pragma once

#include "support/export.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

/**
 * Memory of one message: grows while a message is read or built, is emptied as a whole between two
 * messages, and then keeps what it has (reset) or leaves it to the thread's next arena (give_back),
 * so that a warm connection allocates nothing.
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
    void* allocate(size_t size)
    {
        const size_t padding = -reinterpret_cast<std::uintptr_t>(cursor_) % ALIGNMENT;
        const size_t room = static_cast<size_t>(end_ - cursor_);
        if (padding > room || size > room - padding) {
            return allocate_slow(size); // a new block begins aligned
        }
        char* const result = cursor_ + padding;
        cursor_ = result + size;
        return result;
    }

    /// `size` bytes without alignment, or null when there is no memory (ENOMEM).
    char* allocate_text(size_t size)
    {
        if (size > static_cast<size_t>(end_ - cursor_)) {
            return allocate_slow(size);
        }
        char* const text = cursor_;
        cursor_ += size;
        return text;
    }

    /// Whether allocate_text(size) would find its memory at once.
    bool has_text(size_t size) const { return size <= static_cast<size_t>(end_ - cursor_); }

    /// A NUL-terminated copy of `text`, or null when there is no memory (ENOMEM).
    char* copy(std::string_view text)
    {
        char* const result = allocate_text(text.size() + 1);
        if (result != nullptr) {
            if (!text.empty()) { // an empty view may have no address, which memcpy must not get
                std::memcpy(result, text.data(), text.size());
            }
            result[text.size()] = '\0';
        }
        return result;
    }

    /// Sees to it that the next allocations, of `size` bytes together with what aligns them, come
    /// from one block, which is not larger than that where the arena is empty: the message may be
    /// kept while its connection waits. @return false when there is no memory (ENOMEM).
    bool reserve(size_t size)
    {
        return size <= static_cast<size_t>(end_ - cursor_) || add_fitting_block(size);
    }

    /// Forgets every allocation. Keeps one block, of at most `MAX_KEPT` bytes, for the next
    /// message.
    void reset()
    {
        if (blocks_ == nullptr) {
            return;
        }
        if (blocks_->next_ != nullptr || blocks_->capacity_ > MAX_KEPT) {
            keep_one_block();
        } else {
            cursor_ = blocks_->data();
        }
    }

    /// Forgets every allocation and keeps nothing: a block of at most `MAX_KEPT` bytes goes to the
    /// next arena of the calling thread that needs one, the others are freed.
    void give_back();

    /// Bytes that this arena holds, used or not.
    size_t capacity() const;

    enum : size_t { FIRST_BLOCK = 480, MAX_KEPT = 16 * 1024 };

private:
    struct Block {
        Block* next_;
        size_t capacity_;
        char* data() { return reinterpret_cast<char*>(this + 1); }
    };

    struct Block_Traits;

    static constexpr size_t ALIGNMENT = alignof(std::max_align_t);

    char* allocate_slow(size_t size);
    bool add_block(size_t size);
    bool add_fitting_block(size_t size);
    void drop_empty_block();
    bool add_new_block(size_t capacity);
    void add(Block* block);
    void keep_one_block();

    Block* blocks_ = nullptr; ///< newest first; only the newest is allocated from
    char* cursor_ = nullptr;
    char* end_ = nullptr;
};
