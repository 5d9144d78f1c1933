// Loaded in front of everything else (LD_PRELOAD): lets system calls and allocations of a process
// fail as a plan says that a test shares with it. This file reads the plan; the functions that
// stand in front of the C library's are in fault_calls.cpp, fault_syscall.cpp and
// fault_allocations.cpp.

#include "tests/preload/fault_injector.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

std::atomic<Fault_Plan*> plan{nullptr};

__attribute__((constructor)) void map_plan()
{
    const char* const path = std::getenv(FAULT_PLAN_VARIABLE);
    const int handle = path != nullptr ? ::open(path, O_RDWR | O_CLOEXEC) : -1;
    if (handle == -1) {
        std::fprintf(stderr, "fault injector: no plan\n");
        std::abort();
    }
    void* const memory =
        ::mmap(nullptr, sizeof(Fault_Plan), PROT_READ | PROT_WRITE, MAP_SHARED, handle, 0);
    ::close(handle);
    if (memory == MAP_FAILED) {
        std::perror("fault injector: mmap");
        std::abort();
    }
    plan = static_cast<Fault_Plan*>(memory);
}

bool is_of_kind(int descriptor, Fault_Descriptor kind)
{
    if (kind == Fault_Descriptor::ANY) {
        return true;
    }
    static const auto real_fstat = reinterpret_cast<decltype(&::fstat)>(fault_next("fstat"));
    struct stat status = {};
    if (descriptor < 0 || real_fstat(descriptor, &status) == -1) {
        return false;
    }
    if (S_ISSOCK(status.st_mode)) {
        return kind == Fault_Descriptor::SOCKET;
    }
    return kind ==
           (S_ISREG(status.st_mode) ? Fault_Descriptor::REGULAR_FILE : Fault_Descriptor::OTHER);
}

bool is_of_path(int descriptor, const char* path, const char* part)
{
    if (*part == '\0') {
        return true;
    }
    char text[1024] = "";
    if (path == nullptr) {
        char link[32];
        std::snprintf(link, sizeof link, "/proc/self/fd/%d", descriptor);
        const ssize_t length = descriptor < 0 ? -1 : ::readlink(link, text, sizeof text - 1);
        text[length > 0 ? length : 0] = '\0';
        path = text;
    }
    return std::strstr(path, part) != nullptr;
}

/// Counts the call; true when it is one of those that the rule strikes.
bool is_its_turn(Fault_Rule& rule)
{
    const std::uint64_t number = rule.counted.fetch_add(1, std::memory_order_relaxed);
    if (number < rule.skip || (number - rule.skip) % rule.period != 0 ||
        (number - rule.skip) / rule.period >= rule.times) {
        return false;
    }
    rule.struck.fetch_add(1, std::memory_order_relaxed);
    return true;
}

} // namespace

const Fault_Rule* fault_strikes(Fault_Call call, int descriptor, const char* path)
{
    Fault_Plan* const shared = plan.load(std::memory_order_relaxed);
    if (shared == nullptr ||
        ((shared->calls.load(std::memory_order_relaxed) >> static_cast<unsigned>(call)) & 1U) ==
            0) {
        return nullptr;
    }
    const int error = errno;
    const Fault_Rule* found = nullptr;
    for (Fault_Rule& rule : shared->rules) {
        if (rule.armed.load(std::memory_order_acquire) != 0 && rule.call == call &&
            is_of_kind(descriptor, rule.descriptor) && is_of_path(descriptor, path, rule.path) &&
            is_its_turn(rule)) {
            found = &rule;
            break;
        }
    }
    errno = error;
    return found;
}

Fault_Transfer fault_transfer(Fault_Call call, int descriptor, std::size_t length)
{
    const Fault_Rule* const rule = fault_strikes(call, descriptor, nullptr);
    if (rule == nullptr) {
        return {false, length};
    }
    if (rule->error != 0) {
        errno = rule->error;
        return {true, 0};
    }
    return {false, length < rule->longest ? length : static_cast<std::size_t>(rule->longest)};
}

bool fault_fails(Fault_Call call, int descriptor, const char* path)
{
    const Fault_Rule* const rule = fault_strikes(call, descriptor, path);
    if (rule == nullptr || rule->error == 0) {
        return false;
    }
    errno = rule->error;
    return true;
}

void* fault_next(const char* name)
{
    void* const found = ::dlsym(RTLD_NEXT, name);
    if (found == nullptr) {
        static constexpr char MESSAGE[] = "fault injector: a function is missing: ";
        (void)!::write(STDERR_FILENO, MESSAGE, sizeof MESSAGE - 1);
        (void)!::write(STDERR_FILENO, name, std::strlen(name));
        std::abort();
    }
    return found;
}
