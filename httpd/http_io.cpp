#include "httpd/http_io.h"

#include <ace/Message_Block.h>

HTTP_IO::HTTP_IO() : request_(HTTP_METHOD_GET, "/", false) {}

HTTP_IO::~HTTP_IO()
{
    if (mb_ != nullptr) {
        mb_->release();
    }
}
