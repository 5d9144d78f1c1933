#include "host/process_setup.h"

#include "support/log.h"

#include <fcntl.h>
#include <sys/resource.h>
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
