#include "support/http_header_value.h"

#include "support/http_syntax.h"

bool http_header_value_match(std::string_view value, std::string_view token, char separator)
{
    if (token.empty()) {
        return false; // empty elements of a list count for nothing
    }
    while (true) {
        const size_t end = value.find(separator);
        if (http_equal_no_case(http_trim(value.substr(0, end)), token)) {
            return true;
        }
        if (end == std::string_view::npos) {
            return false;
        }
        value.remove_prefix(end + 1);
    }
}
