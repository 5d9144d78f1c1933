#pragma once

#include <unistd.h>

/// Owns one descriptor.
class Unique_Fd {
public:
    explicit Unique_Fd(int fd = -1) : fd_(fd) {}
    ~Unique_Fd() { reset(); }
    Unique_Fd(Unique_Fd&& other) noexcept : fd_(other.release()) {}
    Unique_Fd& operator=(Unique_Fd&& other) noexcept
    {
        reset(other.release());
        return *this;
    }
    Unique_Fd(const Unique_Fd&) = delete;
    Unique_Fd& operator=(const Unique_Fd&) = delete;

    int get() const { return fd_; }
    explicit operator bool() const { return fd_ != -1; }

    int release()
    {
        const int fd = fd_;
        fd_ = -1;
        return fd;
    }

    void reset(int fd = -1)
    {
        if (fd_ != -1 && fd_ != fd) {
            ::close(fd_);
        }
        fd_ = fd;
    }

private:
    int fd_;
};
