#include "bench/common/fail.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

void print(const char* format, va_list arguments, int error)
{
    std::fprintf(stderr, "%s: ", program_invocation_short_name);
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): every caller has begun the list
    std::vfprintf(stderr, format, arguments);
    if (error != 0) {
        std::fprintf(stderr, ": %s", std::strerror(error));
    }
    std::fputc('\n', stderr);
}

} // namespace

void fail(const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    print(format, arguments, 0);
    va_end(arguments);
    std::exit(1);
}

void fail_errno(const char* format, ...)
{
    const int error = errno;
    va_list arguments;
    va_start(arguments, format);
    print(format, arguments, error);
    va_end(arguments);
    std::exit(1);
}

void warn(const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    print(format, arguments, 0);
    va_end(arguments);
}
