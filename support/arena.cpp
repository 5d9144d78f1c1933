#include "support/arena.h"

#include "support/thread_free_list_t.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <new>
#include <utility>

/// How a thread keeps blocks for its next arena.
struct Arena::Block_Traits {
    using Piece = Block;
    static constexpr size_t MOST = 16;
    static constexpr size_t MOST_BYTES = 4 * size_t{MAX_KEPT};

    static Block* next(const Block& block) { return block.next_; }
    static void set_next(Block& block, Block* next) { block.next_ = next; }
    static size_t size(const Block& block) { return block.capacity_; }
    static void free(Block* block) { std::free(block); }
};

Arena::~Arena()
{
    while (blocks_ != nullptr) {
        Block* const next = blocks_->next_;
        std::free(blocks_);
        blocks_ = next;
    }
}

char* Arena::allocate_slow(size_t size)
{
    if (!add_block(size)) {
        return nullptr;
    }
    char* const result = cursor_;
    cursor_ += size;
    return result;
}

/// Puts a block with room for `size` bytes in front, from which is allocated from now on.
bool Arena::add_block(size_t size)
{
    if (blocks_ != nullptr) {
        drop_empty_block();
    }
    if (blocks_ != nullptr) {
        return add_new_block(std::max(std::min<size_t>(blocks_->capacity_ * 2, MAX_KEPT), size));
    }
    if (Block* const block = Thread_Free_List_T<Block_Traits>::take()) {
        if (block->capacity_ >= size) {
            add(block);
            return true;
        }
        std::free(block);
    }
    return add_new_block(std::max<size_t>(FIRST_BLOCK, size));
}

/// The same, but that no larger block of the thread's is taken.
bool Arena::add_fitting_block(size_t size)
{
    drop_empty_block();
    return blocks_ != nullptr ? add_block(size) : add_new_block(size);
}

/// An empty block that is too small is not kept beside the next one.
void Arena::drop_empty_block()
{
    if (blocks_ != nullptr && blocks_->next_ == nullptr && cursor_ == blocks_->data()) {
        std::free(std::exchange(blocks_, nullptr));
        cursor_ = nullptr;
        end_ = nullptr;
    }
}

bool Arena::add_new_block(size_t capacity)
{
    static_assert(sizeof(Block) % ALIGNMENT == 0);
    if (capacity > SIZE_MAX - sizeof(Block)) {
        errno = ENOMEM;
        return false;
    }
    void* const memory = std::malloc(sizeof(Block) + capacity);
    if (memory == nullptr) {
        errno = ENOMEM;
        return false;
    }
    add(new (memory) Block{nullptr, capacity});
    return true;
}

void Arena::add(Block* block)
{
    block->next_ = blocks_;
    blocks_ = block;
    cursor_ = block->data();
    end_ = block->data() + block->capacity_;
}

void Arena::give_back()
{
    reset();
    Block* const block = blocks_;
    blocks_ = nullptr;
    cursor_ = nullptr;
    end_ = nullptr;
    if (block != nullptr) {
        Thread_Free_List_T<Block_Traits>::give(block);
    }
}

// Blocks double up to MAX_KEPT, so keeping the largest lets a connection whose messages are alike
// settle on one block that holds a whole message.
void Arena::keep_one_block()
{
    Block* kept = nullptr;
    while (blocks_ != nullptr) {
        Block* const block = blocks_;
        blocks_ = block->next_;
        if (block->capacity_ <= MAX_KEPT &&
            (kept == nullptr || block->capacity_ > kept->capacity_)) {
            std::free(kept);
            kept = block;
        } else {
            std::free(block);
        }
    }
    blocks_ = kept;
    cursor_ = nullptr;
    end_ = nullptr;
    if (kept != nullptr) {
        kept->next_ = nullptr;
        cursor_ = kept->data();
        end_ = cursor_ + kept->capacity_;
    }
}

size_t Arena::capacity() const
{
    size_t total = 0;
    for (const Block* block = blocks_; block != nullptr; block = block->next_) {
        total += block->capacity_;
    }
    return total;
}
