#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstring>
#include <new>
#include <string_view>

/// A text whose last byte is the last of a page, with no memory behind it and none before the page:
/// who reads beyond either end of a text that fills the page is killed.
class Guarded_Text {
public:
    /// @param text  of one page at most
    explicit Guarded_Text(std::string_view text)
        : page_(static_cast<size_t>(sysconf(_SC_PAGESIZE))), size_(text.size())
    {
        void* const memory =
            mmap(nullptr, 3 * page_, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (memory == MAP_FAILED || text.size() > page_) {
            throw std::bad_alloc();
        }
        memory_ = static_cast<char*>(memory);
        if (mprotect(memory_ + page_, page_, PROT_READ | PROT_WRITE) == -1) {
            throw std::bad_alloc();
        }
        std::memcpy(this->data(), text.data(), text.size());
    }

    ~Guarded_Text() { munmap(memory_, 3 * page_); }

    Guarded_Text(const Guarded_Text&) = delete;
    Guarded_Text& operator=(const Guarded_Text&) = delete;

    char* data() const { return memory_ + 2 * page_ - size_; }
    size_t size() const { return size_; }
    std::string_view view() const { return {this->data(), size_}; }

private:
    size_t page_;
    size_t size_;
    char* memory_ = nullptr;
};
