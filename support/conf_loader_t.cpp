#include "support/conf_loader_t.h"

#include "support/log.h"
#include "support/scoped_deleter.h"
#include "support/yajl_handler.h"

#include <cerrno>
#include <cstddef>
#include <fcntl.h>
#include <string_view>
#include <unistd.h>

namespace {

constexpr size_t BLOCK_SIZE = 4096;

int log_syntax_error(const char* path, const YAJL_Handler& handler)
{
    if (errno == ENOMEM) {
        HTTPD_ERROR("Failed to load configuration file %s, errno=%d, %m", path, errno);
    } else {
        HTTPD_ERROR("Failed to parse configuration file %s, line %u, column %u: %s", path,
                    static_cast<unsigned int>(handler.line()),
                    static_cast<unsigned int>(handler.column()), handler.error().c_str());
    }
    return -1;
}

/// Feeds the whole file. 0, or -1 when reading failed or the handler refused, which is logged.
int feed_file(int handle, const char* path, YAJL_Handler& handler)
{
    char block[BLOCK_SIZE];
    for (;;) {
        const ssize_t count = read(handle, block, sizeof block);
        if (count == 0) {
            return handler.finish() == 0 ? 0 : log_syntax_error(path, handler);
        }
        if (count > 0) {
            if (handler.feed(std::string_view(block, static_cast<size_t>(count))) == -1) {
                return log_syntax_error(path, handler);
            }
        } else if (errno != EINTR) {
            HTTPD_ERROR("Failed to read configuration file %s, errno=%d, %m", path, errno);
            return -1;
        }
    }
}

} // namespace

int load_json_file(const char* path, YAJL_Handler& handler)
{
    if (path == nullptr) {
        errno = EINVAL;
        HTTPD_ERROR("Failed to open configuration file %s, errno=%d, %m", "(null)", errno);
        return -1;
    }
    const int handle = open(path, O_RDONLY | O_CLOEXEC | O_NOCTTY);
    if (handle == -1) {
        HTTPD_ERROR("Failed to open configuration file %s, errno=%d, %m", path, errno);
        return -1;
    }
    const auto close_file = make_deleter([handle] {
        const int error = errno;
        close(handle);
        errno = error;
    });
    if (handler.begin(path) == -1) {
        HTTPD_ERROR("Failed to load configuration file %s, errno=%d, %m", path, errno);
        return -1;
    }
    return feed_file(handle, path, handler);
}
