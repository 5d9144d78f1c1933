#include "host/pid_file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

bool same_file(const struct stat& one, const struct stat& other)
{
    return one.st_dev == other.st_dev && one.st_ino == other.st_ino;
}

std::string holder(int fd)
{
    char text[24] = "";
    const ssize_t length = ::pread(fd, text, sizeof text - 1, 0);
    const long pid = length > 0 ? std::strtol(text, nullptr, 10) : 0;
    return pid > 0 ? "process " + std::to_string(pid) : "another process";
}

} // namespace

Pid_File::~Pid_File()
{
    if (fd_ == -1) {
        return;
    }
    // Removed while the lock is held, and only when it is still ours: someone may have put another
    // file in its place.
    struct stat ours {};
    struct stat there {};
    if (::fstat(fd_, &ours) == 0 && ::lstat(path_.c_str(), &there) == 0 && same_file(ours, there)) {
        ::unlink(path_.c_str());
    }
    ::close(fd_);
}

bool Pid_File::lock(const std::string& path, std::string& error)
{
    path_ = path;
    bool replaced = true;
    while (replaced) { // each round means that another process has just ended and removed its file
        if (!try_lock(replaced, error)) {
            if (fd_ != -1) {
                ::close(fd_);
                fd_ = -1;
            }
            return false;
        }
    }
    return true;
}

bool Pid_File::try_lock(bool& replaced, std::string& error)
{
    fd_ = ::open(path_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY,
                 0644);
    struct stat ours {};
    if (fd_ == -1 || ::fstat(fd_, &ours) == -1) {
        error = "cannot open PID file " + path_ + ": " + std::strerror(errno);
        return false;
    }
    if (!S_ISREG(ours.st_mode)) {
        error = "PID file " + path_ + " is not a regular file";
        return false;
    }
    if (::flock(fd_, LOCK_EX | LOCK_NB) == -1) {
        error = errno == EWOULDBLOCK
                    ? "PID file " + path_ + " is in use by " + holder(fd_)
                    : "cannot lock PID file " + path_ + ": " + std::strerror(errno);
        return false;
    }
    struct stat there {};
    replaced = ::lstat(path_.c_str(), &there) == -1 || !same_file(ours, there);
    if (replaced) {
        ::close(fd_);
        fd_ = -1;
        return true;
    }
    if (::ftruncate(fd_, 0) == -1) {
        error = "cannot empty PID file " + path_ + ": " + std::strerror(errno);
        return false;
    }
    return true;
}

bool Pid_File::write(std::string& error)
{
    if (fd_ == -1) {
        return true;
    }
    const std::string text = std::to_string(::getpid()) + "\n";
    if (::pwrite(fd_, text.data(), text.size(), 0) != static_cast<ssize_t>(text.size())) {
        error = "cannot write PID file " + path_ + ": " + std::strerror(errno);
        return false;
    }
    return true;
}
