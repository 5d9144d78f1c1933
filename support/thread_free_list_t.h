#pragma once

#include <cstddef>

/**
 * Pieces of memory that one thread keeps for its next use, linked through themselves.
 *
 * Keeps MOST pieces and MOST_BYTES bytes at most, but one piece in any case. What is left is freed
 * when the thread ends.
 *
 * @tparam Traits  the type `Piece`; static next(piece), set_next(piece, next), size(piece) and
 *                 free(pointer); the limits MOST and MOST_BYTES. Each Traits has a list of its own
 *                 in every thread.
 */
template <typename Traits>
class Thread_Free_List_T {
public:
    using Piece = typename Traits::Piece;

    /// A piece that was given back last, which is the most likely one to be in the cache, or null.
    static Piece* take() { return ended_ ? nullptr : list().pop(); }

    /// Takes a piece back, and frees it when there is no room for it.
    static void give(Piece* piece)
    {
        if (ended_ || !list().push(piece)) {
            Traits::free(piece);
        }
    }

private:
    Thread_Free_List_T() = default;

    ~Thread_Free_List_T()
    {
        ended_ = true;
        while (Piece* const piece = pop()) {
            Traits::free(piece);
        }
    }

    static Thread_Free_List_T& list()
    {
        static thread_local Thread_Free_List_T list;
        return list;
    }

    Piece* pop()
    {
        Piece* const piece = first_;
        if (piece != nullptr) {
            first_ = Traits::next(*piece);
            Traits::set_next(*piece, nullptr);
            --count_;
            bytes_ -= Traits::size(*piece);
        }
        return piece;
    }

    bool push(Piece* piece)
    {
        const size_t size = Traits::size(*piece);
        if (count_ >= Traits::MOST || (count_ > 0 && bytes_ + size > Traits::MOST_BYTES)) {
            return false;
        }
        Traits::set_next(*piece, first_);
        first_ = piece;
        ++count_;
        bytes_ += size;
        return true;
    }

    // Plain, so that it can be read when the thread's destructors have run: a connection may be
    // deleted by one that runs later.
    static inline thread_local bool ended_ = false;

    Piece* first_ = nullptr;
    size_t count_ = 0;
    size_t bytes_ = 0;
};
