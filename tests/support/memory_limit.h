#pragma once

#include <sys/resource.h>
#include <unistd.h>

#include <cstddef>
#include <fstream>

/// While it lives this process cannot have much more memory than it has now. A sanitizer, which
/// needs more, cannot live with it.
class Memory_Limit {
public:
    /// @param room  bytes that can still be had; fragments of freed memory come on top
    explicit Memory_Limit(size_t room)
    {
        size_t pages = 0;
        std::ifstream("/proc/self/statm") >> pages;
        ::getrlimit(RLIMIT_AS, &before_);
        const rlimit tight{pages * static_cast<size_t>(::sysconf(_SC_PAGESIZE)) + room,
                           before_.rlim_max};
        is_set_ = pages > 0 && ::setrlimit(RLIMIT_AS, &tight) == 0;
    }
    ~Memory_Limit() { ::setrlimit(RLIMIT_AS, &before_); }
    Memory_Limit(const Memory_Limit&) = delete;
    Memory_Limit& operator=(const Memory_Limit&) = delete;

    bool is_set() const { return is_set_; }

private:
    rlimit before_{};
    bool is_set_ = false;
};
