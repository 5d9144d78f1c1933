#include "httpd/detail/forwarded_for.h"

#include "support/string_checker.h"

#include <ace/INET_Addr.h>

namespace {

constexpr auto ADDRESS_LITERAL = static_cast<String_Checker::SC_Type>(6);

std::string_view trim(std::string_view text)
{
    constexpr std::string_view SPACE = " \t\r\n\v\f";
    const size_t begin = text.find_first_not_of(SPACE);
    if (begin == std::string_view::npos) {
        return {};
    }
    return text.substr(begin, text.find_last_not_of(SPACE) - begin + 1);
}

} // namespace

std::string first_forwarded_for(std::string_view field)
{
    if (field.empty() || field.front() == ',') {
        return std::string(field);
    }
    return std::string(trim(field.substr(0, field.find(','))));
}

bool set_forwarded_for(ACE_INET_Addr& address, std::string_view field)
{
    const std::string host = first_forwarded_for(field);
    if (!String_Checker::check(host, ADDRESS_LITERAL)) {
        return false;
    }
    // The family is given, or ACE would turn an IPv4 literal into a mapped IPv6 address.
    const int family = host.find(':') == std::string::npos ? AF_INET : AF_INET6;
    ACE_INET_Addr client;
    constexpr int ENCODE = 1;
    if (client.set(static_cast<u_short>(0), host.c_str(), ENCODE, family) == -1) {
        return false;
    }
    address = client;
    return true;
}
