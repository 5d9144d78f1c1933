#pragma once

#include <sys/types.h>

#include <chrono>
#include <string>
#include <utility>

/// A descriptor that is closed with the test.
class Test_Fd {
public:
    explicit Test_Fd(int handle = -1) : handle_(handle) {}
    ~Test_Fd() { close(); }
    Test_Fd(Test_Fd&& other) noexcept : handle_(other.release()) {}
    Test_Fd& operator=(Test_Fd&& other) noexcept;
    Test_Fd(const Test_Fd&) = delete;
    Test_Fd& operator=(const Test_Fd&) = delete;

    int get() const { return handle_; }
    int release() { return std::exchange(handle_, -1); }
    void close();

private:
    int handle_;
};

/// Two connected sockets, or the two ends of a pipe (first: to read, second: to write).
struct Test_Pair {
    Test_Fd first;
    Test_Fd second;
};

/// A connection over 127.0.0.1. With `buffer` both sides get socket buffers of that many bytes.
Test_Pair tcp_pair(int buffer = 0);
Test_Pair unix_pair();
Test_Pair pipe_pair();

/// A TCP port of 127.0.0.1 that nobody listened on a moment ago.
int free_port();

/// A connection to 127.0.0.1:port, or -1.
Test_Fd connect_to(int port);

/// Reads until the end of the stream or `length` bytes; waits up to 10 seconds for each piece.
std::string read_up_to(int handle, size_t length);

/// Bytes that show where they stand.
std::string pattern(size_t length);

/// Milliseconds that `action` takes.
template <typename Action>
long milliseconds_of(Action action)
{
    const auto start = std::chrono::steady_clock::now();
    action();
    return static_cast<long>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                 std::chrono::steady_clock::now() - start)
                                 .count());
}
