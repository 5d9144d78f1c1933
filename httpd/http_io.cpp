#include "httpd/http_io.h"

#include "httpd/detail/receive_buffers.h"

HTTP_IO::HTTP_IO() : request_(HTTP_METHOD_GET, "/", false) {}

HTTP_IO::~HTTP_IO()
{
    if (mb_ != nullptr) {
        Receive_Buffers::give(mb_);
    }
}
