#include "bench/common/arguments.h"

#include "bench/common/fail.h"

#include <cerrno>
#include <cstdlib>

const char* Arguments::text()
{
    if (!more()) {
        fail("%s needs a value", name_.data());
    }
    return argv_[next_++];
}

std::uint64_t Arguments::number(std::uint64_t least, std::uint64_t most)
{
    const char* const value = text();
    char* end = nullptr;
    errno = 0;
    const std::uint64_t result = std::strtoull(value, &end, 10);
    if (*value < '0' || *value > '9' || *end != '\0' || errno != 0 || result < least ||
        result > most) {
        fail("%s: \"%s\" is not a number from %llu to %llu", name_.data(), value,
             static_cast<unsigned long long>(least), static_cast<unsigned long long>(most));
    }
    return result;
}

double Arguments::seconds()
{
    const char* const value = text();
    char* end = nullptr;
    const double result = std::strtod(value, &end);
    // Written so that it also refuses what is not a number at all.
    if (end == value || *end != '\0' || !(result >= 0 && result <= 86400)) {
        fail("%s: \"%s\" is not a time in seconds", name_.data(), value);
    }
    return result;
}

void Arguments::unknown() const
{
    fail("unknown option \"%s\"; see --help", name_.data());
}
