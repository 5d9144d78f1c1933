#pragma once

#include <cstddef>
#include <cstdlib>
#include <memory>
#include <new>

/**
 * Bytes that begin at a page. The kernel's copies are several times slower to some other
 * addresses (16 bytes into a page on some processors), which is where glibc puts large blocks.
 */
class Page_Buffer {
public:
    explicit Page_Buffer(size_t size)
        : bytes_(static_cast<char*>(std::aligned_alloc(PAGE, (size + PAGE - 1) / PAGE * PAGE))),
          size_(size)
    {
        if (bytes_ == nullptr) {
            throw std::bad_alloc();
        }
    }

    char* data() { return bytes_.get(); }
    const char* data() const { return bytes_.get(); }
    size_t size() const { return size_; }

private:
    static constexpr size_t PAGE = 4096;

    struct Free {
        void operator()(char* bytes) const { std::free(bytes); }
    };

    std::unique_ptr<char, Free> bytes_;
    size_t size_;
};
