#include "httpd/thread_name.h"

#include "support/log.h"

#include <ace/OS_NS_string.h>

#include <cerrno>

#include <dlfcn.h>
#include <pthread.h>

namespace {

constexpr int MAX_THREAD_NAME = 15;

using Set_Name = int (*)(pthread_t, const char*);

} // namespace

void set_thread_name(const char* name, unsigned long thread)
{
    // Not ACE_OS::dlsym: that one finds nothing in the process's own scope.
    const auto set_name = reinterpret_cast<Set_Name>(::dlsym(RTLD_DEFAULT, "pthread_setname_np"));
    if (set_name == nullptr) {
        return;
    }
    int error = set_name(thread, name);
    if (error == ERANGE) {
        HTTPD_WARNING("Thread name(%s) is too long, truncate to %d chars.", name, MAX_THREAD_NAME);
        char shortened[MAX_THREAD_NAME + 1];
        ACE_OS::strsncpy(shortened, name, sizeof(shortened));
        error = set_name(thread, shortened);
    }
    if (error != 0) {
        HTTPD_ERROR("Failed to set thread name(%s): %d", name, error);
    }
}
