#include "plugins/files/files_creator.h"

#include "support/log.h"

#include <new>

int Files_Creator::init(int argc, char** argv)
{
    try {
        if (context_.options_.parse(argc, argv) == -1) {
            return -1;
        }
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
        HTTPD_ERROR("files: %m");
        return -1;
    }
    const char* const root = context_.options_.root_.c_str();
    if (context_.root_.open(root) == -1) {
        HTTPD_ERROR("files: parameter '--root': cannot open directory %C, errno=%d, %m", root,
                    errno);
        return -1;
    }
    return 0;
}

Files_Handler* Files_Creator::construct(void* memory)
{
    return new (memory) Files_Handler(context_);
}
