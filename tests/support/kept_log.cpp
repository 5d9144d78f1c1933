#include "tests/support/kept_log.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <string>

namespace {

/// Opened before main(): a test may have no descriptor left when it logs. Out of the way of tests
/// that look at descriptors' numbers.
int open_file()
{
    const char* const folder = std::getenv("HTTPD_TEST_LOG_DIR");
    if (folder == nullptr) {
        return -1;
    }
    const std::string path = std::string(folder) + "/" + std::to_string(::getpid()) + ".log";
    const int low = ::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    constexpr int OUT_OF_THE_WAY = 200;
    const int file = ::fcntl(low, F_DUPFD_CLOEXEC, OUT_OF_THE_WAY);
    ::close(low);
    return file;
}

const int FILE_HANDLE = open_file();

} // namespace

void keep_log(std::string_view lines)
{
    if (FILE_HANDLE == -1) {
        return;
    }
    // A test may have set a limit to what can be written. What is lost here is seen again as a
    // message that no test triggers.
    const int error = errno;
    [[maybe_unused]] const ssize_t written = ::write(FILE_HANDLE, lines.data(), lines.size());
    errno = error;
}
