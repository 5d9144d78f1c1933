#include "tests/support/kept_log.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <string>

void keep_log(std::string_view lines)
{
    static const char* const folder = std::getenv("HTTPD_TEST_LOG_DIR");
    if (folder == nullptr) {
        return;
    }
    const int error = errno;
    // Opened each time: a test may close all descriptors, or be a child that was forked.
    const std::string path = std::string(folder) + "/" + std::to_string(::getpid()) + ".log";
    const int file = ::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (file != -1) {
        // A test may have set a limit to what can be written. What is lost here is seen again as a
        // message that no test triggers.
        [[maybe_unused]] const ssize_t written = ::write(file, lines.data(), lines.size());
        ::close(file);
    }
    errno = error;
}
