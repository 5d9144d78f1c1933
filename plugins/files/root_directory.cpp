#include "plugins/files/root_directory.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/syscall.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <utility>

namespace {

// O_NONBLOCK: opening a FIFO must not wait for its writer; regular files do not care.
constexpr int FILE_FLAGS = O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY;
constexpr int STEP_FLAGS = O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

const char* name_or_self(const char* name)
{
    return *name != '\0' ? name : ".";
}

int openat2_beneath(int directory, const char* name, int flags)
{
    constexpr int MAX_TRIES = 32;
    open_how how{};
    how.flags = static_cast<decltype(how.flags)>(flags);
    how.resolve = RESOLVE_BENEATH | RESOLVE_NO_MAGICLINKS;
    long fd = -1;
    // EAGAIN: a rename elsewhere kept the kernel from vouching for a ".." in a link.
    for (int i = 0; i < MAX_TRIES; ++i) {
        fd = ::syscall(SYS_openat2, directory, name_or_self(name), &how, sizeof(how));
        if (fd != -1 || (errno != EAGAIN && errno != EINTR)) {
            break;
        }
    }
    return static_cast<int>(fd);
}

} // namespace

int Root_Directory::open(const char* path)
{
    directory_.reset(::open(path, O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!directory_) {
        return -1;
    }
    lookup_ = Lookup::BENEATH;
    const Unique_Fd probe(openat2_beneath(directory_.get(), "", O_PATH | O_CLOEXEC));
    if (!probe) {
        if (errno != ENOSYS && errno != EPERM) { // EPERM: the call is filtered, as in containers
            directory_.reset();
            return -1;
        }
        lookup_ = Lookup::COMPONENTS;
    }
    return 0;
}

int Root_Directory::open_file(const char* name) const
{
    return lookup_ == Lookup::BENEATH ? openat2_beneath(directory_.get(), name, FILE_FLAGS)
                                      : open_by_component(name);
}

int Root_Directory::open_by_component(const char* name) const
{
    int at = directory_.get();
    Unique_Fd step;
    for (const char* slash = std::strchr(name, '/'); slash != nullptr;
         slash = std::strchr(name, '/')) {
        char component[NAME_MAX + 1];
        const size_t length = static_cast<size_t>(slash - name);
        if (length >= sizeof(component)) {
            errno = ENAMETOOLONG;
            return -1;
        }
        std::memcpy(component, name, length);
        component[length] = '\0';
        Unique_Fd next(::openat(at, component, STEP_FLAGS));
        if (!next) {
            return -1;
        }
        step = std::move(next);
        at = step.get();
        name = slash + 1;
    }
    return ::openat(at, name_or_self(name), FILE_FLAGS | O_NOFOLLOW);
}
