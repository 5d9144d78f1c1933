#include "support/string_checker.h"

#include <algorithm>
#include <arpa/inet.h>
#include <netinet/in.h>
#include <string_view>

namespace {

bool is_digit(char c)
{
    return c >= '0' && c <= '9';
}

bool is_letter(char c)
{
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
}

bool is_alnum(char c)
{
    return is_letter(c) || is_digit(c);
}

bool is_hex_digit(char c)
{
    return is_digit(c) || (c >= 'A' && c <= 'F') || (c >= 'a' && c <= 'f');
}

bool is_token_char(char c)
{
    return is_alnum(c) ||
           (c != '\0' && std::string_view("!#$%&'*+-.^_`|~").find(c) != std::string_view::npos);
}

bool is_printable(char c)
{
    return c >= ' ' && c <= '~';
}

bool is_ip_address(const std::string& text)
{
    in6_addr address; // room for either kind
    return text.find('\0') == std::string::npos &&
           (inet_pton(AF_INET, text.c_str(), &address) == 1 ||
            inet_pton(AF_INET6, text.c_str(), &address) == 1);
}

} // namespace

bool String_Checker::check(const std::string& text, SC_Type type)
{
    if (text.empty()) {
        return false;
    }
    switch (type) {
    case SC_DIGITS:
        return std::all_of(text.begin(), text.end(), is_digit);
    case SC_LETTERS:
        return std::all_of(text.begin(), text.end(), is_letter);
    case SC_ALNUM:
        return std::all_of(text.begin(), text.end(), is_alnum);
    case SC_HEX_DIGITS:
        return std::all_of(text.begin(), text.end(), is_hex_digit);
    case SC_TOKEN:
        return std::all_of(text.begin(), text.end(), is_token_char);
    case SC_PRINTABLE:
        return std::all_of(text.begin(), text.end(), is_printable);
    case SC_IP_ADDRESS:
        return is_ip_address(text);
    }
    return false;
}
