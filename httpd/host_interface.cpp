#include "httpd/host_interface.h"

#include "httpd/http_options.h"

#include <cerrno>
#include <new>

int httpd_set_proxy_from(const char* address)
{
    try {
        HTTP_Options* const options = HTTP_Options::instance();
        if (options == nullptr) {
            errno = ENOMEM;
            return -1;
        }
        options->proxy_from(address != nullptr ? address : "");
        return 0;
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
        return -1;
    }
}
