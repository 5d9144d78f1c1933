#pragma once

#include "support/export.h"

#include <string_view>

/// Request methods by number (RFC 9110, section 9, and the WebDAV methods of RFC 4918).
enum HTTP_Method {
    HTTP_NO_METHOD = -1, ///< a token that is not in this table; HTTP_Request::method_text() has it
    HTTP_METHOD_CONNECT = 0,
    HTTP_METHOD_COPY = 1,
    HTTP_METHOD_DELETE = 2,
    HTTP_METHOD_GET = 3,
    HTTP_METHOD_HEAD = 4,
    HTTP_METHOD_MKCOL = 5,
    HTTP_METHOD_MOVE = 6,
    HTTP_METHOD_OPTIONS = 7,
    HTTP_METHOD_POST = 8,
    HTTP_METHOD_PUT = 9,
    HTTP_METHOD_TRACE = 10,
    NUM_HTTP_METHOD_STRINGS = 11
};

/// The method's name as it stands on the wire; "-" for HTTP_NO_METHOD and any other value.
HTTPD_SUPPORT_EXPORT const char* http_method_string(HTTP_Method method);

/// The method that `token` names, case-sensitively; HTTP_NO_METHOD when the table has none.
HTTPD_SUPPORT_EXPORT HTTP_Method http_method_from_token(std::string_view token);
