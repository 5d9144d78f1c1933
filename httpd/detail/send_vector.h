#pragma once

#include <sys/uio.h>

#include <cerrno>
#include <cstddef>
#include <memory>
#include <new>

/// Entries of a gathered write, on the stack for the usual small vectors.
class Send_Vector {
public:
    explicit Send_Vector(int entries)
    {
        if (entries > STACK_ENTRIES) {
            heap_.reset(new (std::nothrow) iovec[static_cast<size_t>(entries)]);
            iov_ = heap_.get();
        }
    }

    /// Null when there is no memory (ENOMEM).
    iovec* get()
    {
        if (iov_ == nullptr) {
            errno = ENOMEM;
        }
        return iov_;
    }

private:
    enum { STACK_ENTRIES = 64 };
    iovec stack_[STACK_ENTRIES];
    std::unique_ptr<iovec[]> heap_;
    iovec* iov_ = stack_;
};

inline size_t total_length(const iovec* iov, int count)
{
    size_t total = 0;
    for (int i = 0; i < count; ++i) {
        total += iov[i].iov_len;
    }
    return total;
}

inline iovec to_entry(const void* data, size_t length)
{
    return {const_cast<void*>(data), length};
}
