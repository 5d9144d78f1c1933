// System calls that are made by number: the fault injector tells them apart by it.

#include "tests/preload/fault_injector.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <cstdarg>

namespace {

/// The arguments of any system call, as the kernel takes them.
struct Arguments {
    long at[6];

    int handle() const { return static_cast<int>(at[0]); }
    std::size_t length() const { return static_cast<std::size_t>(at[2]); }
};

/// @return false: the call is to fail, errno is set.
bool let_through(long number, Arguments& arguments)
{
    const auto transfer = [&arguments](Fault_Call call) {
        const Fault_Transfer fault = fault_transfer(call, arguments.handle(), arguments.length());
        arguments.at[2] = static_cast<long>(fault.length);
        return !fault.fails;
    };
    switch (number) {
    case SYS_recvfrom:
        return transfer(Fault_Call::RECEIVE);
    case SYS_sendto:
        return transfer(Fault_Call::SEND);
#if defined(SYS_epoll_wait)
    case SYS_epoll_wait:
        return !fault_fails(Fault_Call::EPOLL_WAIT);
#endif
#if defined(SYS_openat2)
    case SYS_openat2:
        return !fault_fails(Fault_Call::OPEN, -1, reinterpret_cast<const char*>(arguments.at[1]));
#endif
    default:
        return true;
    }
}

} // namespace

// Seen from outside whatever the compiler's default is; else it would replace nothing.
#pragma GCC visibility push(default)

extern "C" long syscall(long number, ...) noexcept
{
    FAULT_NEXT(syscall);
    Arguments arguments;
    va_list list;
    va_start(list, number);
    for (long& argument : arguments.at) {
        argument = va_arg(list, long);
    }
    va_end(list);
    if (!let_through(number, arguments)) {
        return -1;
    }
    const auto& at = arguments.at;
    return next(number, at[0], at[1], at[2], at[3], at[4], at[5]);
}

#pragma GCC visibility pop
