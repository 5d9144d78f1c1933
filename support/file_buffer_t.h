#pragma once

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <memory>

/**
 * A buffer of `Char` that begins on a page boundary: copying from the page cache to an address 16
 * bytes into a page, where malloc puts large blocks, takes several times as long, and direct I/O
 * requires the alignment.
 */
template <class Char>
class File_Buffer_T {
public:
    enum : size_t { PAGE = 4096 };

    /// Makes room for `count` elements; what the buffer held is lost when it has to grow.
    /// @return false with errno ENOMEM.
    bool reserve(size_t count)
    {
        if (count <= capacity_) {
            return true;
        }
        const size_t limit = static_cast<size_t>(-1) / sizeof(Char) - PAGE;
        const size_t bytes = count > limit ? 0 : (count * sizeof(Char) + PAGE - 1) / PAGE * PAGE;
        data_.reset(bytes == 0 ? nullptr : static_cast<Char*>(std::aligned_alloc(PAGE, bytes)));
        capacity_ = data_ == nullptr ? 0 : bytes / sizeof(Char);
        if (data_ == nullptr) {
            errno = ENOMEM;
        }
        return data_ != nullptr;
    }

    Char* data() { return data_.get(); }
    size_t capacity() const { return capacity_; }

private:
    struct Free {
        void operator()(Char* data) const { std::free(data); }
    };

    std::unique_ptr<Char, Free> data_;
    size_t capacity_ = 0;
};
