#include "plugins/files/files_creator.h"

#include <new>

extern "C" {

/// Makes the factory of a record that serves files.
HTTPD_EXPORT Object_Creator_T<HTTP_Handler>* _make_Files(void (**disposer)(void*))
{
    *disposer = [](void* creator) { delete static_cast<Object_Creator_T<HTTP_Handler>*>(creator); };
    return new (std::nothrow) Files_Creator;
}
}
