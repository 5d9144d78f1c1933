#include "support/http_method.h"

#include <cstring>

namespace {

constexpr const char* NAMES[NUM_HTTP_METHOD_STRINGS] = {
    "CONNECT", "COPY", "DELETE", "GET", "HEAD", "MKCOL", "MOVE", "OPTIONS", "POST", "PUT", "TRACE",
};

/// `candidate` is a method whose name is as long as the token.
template <size_t LENGTH>
HTTP_Method match(std::string_view token, HTTP_Method candidate)
{
    return std::memcmp(token.data(), NAMES[candidate], LENGTH) == 0 ? candidate : HTTP_NO_METHOD;
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
        return match<3>(token, token[0] == 'G' ? HTTP_METHOD_GET : HTTP_METHOD_PUT);
    case 4:
        switch (token[0]) {
        case 'C':
            return match<4>(token, HTTP_METHOD_COPY);
        case 'H':
            return match<4>(token, HTTP_METHOD_HEAD);
        case 'M':
            return match<4>(token, HTTP_METHOD_MOVE);
        default:
            return match<4>(token, HTTP_METHOD_POST);
        }
    case 5:
        return match<5>(token, token[0] == 'M' ? HTTP_METHOD_MKCOL : HTTP_METHOD_TRACE);
    case 6:
        return match<6>(token, HTTP_METHOD_DELETE);
    case 7:
        return match<7>(token, token[0] == 'C' ? HTTP_METHOD_CONNECT : HTTP_METHOD_OPTIONS);
    default:
        return HTTP_NO_METHOD;
    }
}
