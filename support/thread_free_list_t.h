#pragma once

#include "support/thread_end.h"

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
    static Piece* take()
    {
        List& list = list_;
        Piece* const piece = list.first_;
        if (piece != nullptr) {
            list.first_ = Traits::next(*piece);
            Traits::set_next(*piece, nullptr);
            --list.count_;
            list.bytes_ -= Traits::size(*piece);
        }
        return piece;
    }

    /// Takes a piece back, and frees it when there is no room for it, or no memory for a list.
    static void give(Piece* piece)
    {
        List& list = list_;
        const size_t size = Traits::size(*piece);
        if ((list.count_ > 0 &&
             (list.count_ >= Traits::MOST || list.bytes_ + size > Traits::MOST_BYTES)) ||
            (list.stage_ != OPEN && !open(list))) {
            Traits::free(piece);
            return;
        }
        Traits::set_next(*piece, list.first_);
        list.first_ = piece;
        ++list.count_;
        list.bytes_ += size;
    }

private:
    enum Stage : unsigned char { UNUSED, OPEN, ENDED };

    /// Plain, so that it is there before and after the thread's destructors: a connection may be
    /// deleted by one that runs later.
    struct List {
        Piece* first_;
        size_t count_;
        size_t bytes_;
        Stage stage_;
    };

    static void empty()
    {
        list_.stage_ = ENDED;
        while (Piece* const piece = take()) {
            Traits::free(piece);
        }
    }

    static bool open(List& list)
    {
        if (list.stage_ == ENDED || !call_at_thread_end<&empty>()) {
            return false;
        }
        list.stage_ = OPEN;
        return true;
    }

    // A few bytes that are reached in one instruction, since every request asks several times. The
    // loader keeps room in each thread for such variables of libraries that are loaded late.
    static inline constinit thread_local List list_ [[gnu::tls_model("initial-exec")]]{};
};
