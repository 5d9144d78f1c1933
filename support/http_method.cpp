#include "support/http_method.h"

#include <cstring>

namespace {

constexpr const char* NAMES[NUM_HTTP_METHOD_STRINGS] = {
    "CONNECT", "COPY", "DELETE", "GET", "HEAD", "MKCOL", "MOVE", "OPTIONS", "POST", "PUT", "TRACE",
};

/// `candidate` is a method whose name is as long as the token.
HTTP_Method match(std::string_view token, HTTP_Method candidate)
{
    return std::memcmp(token.data(), NAMES[candidate], token.size()) == 0 ? candidate
                                                                          : HTTP_NO_METHOD;
}

} // namespace

const char* http_method_string(HTTP_Method method)
{
    const int number = method;
    return number >= 0 && number < NUM_HTTP_METHOD_STRINGS ? NAMES[number] : "-";
}

HTTP_Method http_method_from_token(std::string_view token)
{
    switch (token.size()) {
    case 3:
        return match(token, token[0] == 'G' ? HTTP_METHOD_GET : HTTP_METHOD_PUT);
    case 4:
        switch (token[0]) {
        case 'C':
            return match(token, HTTP_METHOD_COPY);
        case 'H':
            return match(token, HTTP_METHOD_HEAD);
        case 'M':
            return match(token, HTTP_METHOD_MOVE);
        default:
            return match(token, HTTP_METHOD_POST);
        }
    case 5:
        return match(token, token[0] == 'M' ? HTTP_METHOD_MKCOL : HTTP_METHOD_TRACE);
    case 6:
        return match(token, HTTP_METHOD_DELETE);
    case 7:
        return match(token, token[0] == 'C' ? HTTP_METHOD_CONNECT : HTTP_METHOD_OPTIONS);
    default:
        return HTTP_NO_METHOD;
    }
}
