#include "httpd/http_authenticator.h"

HTTP_Authenticator::~HTTP_Authenticator() = default;
