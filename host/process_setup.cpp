#include "host/process_setup.h"

#include "support/log.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

void open_standard_descriptors()
{
    int fd = -1;
    do {
        fd = ::open("/dev/null", O_RDWR);
    } while (fd >= STDIN_FILENO && fd <= STDERR_FILENO); // the lowest free number is taken
    if (fd > STDERR_FILENO) {
        ::close(fd);
    }
}

void keep_standard_error_from_the_client()
{
    struct stat out {};
    struct stat error {};
    if (::fstat(STDOUT_FILENO, &out) == -1 || ::fstat(STDERR_FILENO, &error) == -1 ||
        S_ISCHR(out.st_mode) || out.st_dev != error.st_dev || out.st_ino != error.st_ino) {
        return;
    }
    int null = ::open("/dev/null", O_RDWR);
    if (null == -1) {
        null = ::open("/", O_RDONLY | O_DIRECTORY); // it takes no output either
    }
    ::dup2(null, STDERR_FILENO);
    ::close(null);
}

void raise_descriptor_limit()
{
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) == 0) {
        if (limit.rlim_cur == limit.rlim_max) {
            return;
        }
        limit.rlim_cur = limit.rlim_max;
        if (::setrlimit(RLIMIT_NOFILE, &limit) == 0) {
            return;
        }
    }
    HTTPD_WARNING("Failed to raise the limit of open descriptors, errno=%d, %m", errno);
}
