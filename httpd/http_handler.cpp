#include "httpd/http_handler.h"

HTTP_Handler::~HTTP_Handler() = default;

int HTTP_Handler::init(int, char**)
{
    return 0;
}

int HTTP_Handler::fini()
{
    return 0;
}

int HTTP_Handler::handle_close()
{
    return 0;
}
