#include "support/socket_file.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <new>

namespace {

/// Connects without waiting: 0, or the error.
int try_connect(const char* path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (std::strlen(path) >= sizeof address.sun_path) {
        return ENAMETOOLONG;
    }
    std::strcpy(address.sun_path, path);
    const int handle = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (handle == -1) {
        return errno;
    }
    const int result = connect(handle, reinterpret_cast<sockaddr*>(&address), sizeof address);
    const int error = result == 0 ? 0 : errno;
    close(handle);
    return error;
}

} // namespace

int Socket_File::remove_stale(const char* path)
{
    struct stat info {};
    if (lstat(path, &info) == -1) {
        return errno == ENOENT ? 0 : -1;
    }
    if (S_ISSOCK(info.st_mode) && try_connect(path) == ECONNREFUSED) {
        return unlink(path) == 0 || errno == ENOENT ? 0 : -1;
    }
    errno = EADDRINUSE;
    return -1;
}

void Socket_File::remember(const char* path)
{
    struct stat info {};
    char absolute[PATH_MAX];
    path_.clear();
    // The working directory may be another one when the file is removed.
    if (lstat(path, &info) == -1 || realpath(path, absolute) == nullptr) {
        return;
    }
    try {
        path_ = absolute;
    } catch (const std::bad_alloc&) {
        return; // the file stays behind; the next listener removes it as a stale one
    }
    device_ = info.st_dev;
    inode_ = info.st_ino;
}

void Socket_File::remove()
{
    struct stat info {};
    if (!path_.empty() && lstat(path_.c_str(), &info) == 0 && info.st_dev == device_ &&
        info.st_ino == inode_) {
        unlink(path_.c_str());
    }
    path_.clear();
}
