// What the server reads out of single fields of a request: list elements, Connection,
// Content-Length, X-Forwarded-For.

#include "fuzz/common/check.h"
#include "fuzz/common/input.h"
#include "fuzz/common/plain_text.h"
#include "httpd/detail/forwarded_for.h"
#include "support/addr_string.h"
#include "support/http_header_value.h"
#include "support/http_message.h"

#include <ace/INET_Addr.h>

#include <arpa/inet.h>

#include <algorithm>
#include <cstring>
#include <string>

namespace {

bool in_list(std::string_view list, std::string_view token, char separator)
{
    const auto parts = plain::split(list, separator);
    return std::any_of(parts.begin(), parts.end(), [token](std::string_view part) {
        return !token.empty() && plain::same(plain::trim(part), token);
    });
}

void check_list(Fuzz_Input& input)
{
    const char separator = (input.byte() & 1U) != 0 ? ';' : ',';
    const std::string_view token = input.until('\n');
    const std::string_view list = input.rest();
    const bool expected = in_list(list, token, separator);
    FUZZ_CHECK(http_header_value_match(list, token, separator) == expected,
               "a list has an element, or has it not");
}

void check_connection(Fuzz_Input& input)
{
    HTTP_Request request;
    const int minor_version = input.byte() % 2;
    request.minor_version(minor_version);
    const std::string_view value = input.rest();
    const bool put = request.headers().put(HTTP_HEAD_CONNECTION, value) == 0;
    const std::string_view kept = put ? value : "";
    const bool expected =
        !in_list(kept, "close", ',') && (minor_version > 0 || in_list(kept, "keep-alive", ','));
    FUZZ_CHECK(request.keep_alive() == expected, "a connection is kept against the rules");
}

void check_length(Fuzz_Input& input)
{
    HTTP_Request request;
    const std::string_view value = input.rest();
    if (request.headers().put(HTTP_HEAD_CONTENT_LENGTH, value) != 0) {
        return;
    }
    constexpr auto MOST = ~std::uint64_t{0};
    plain::Unsigned_Wide number = 0;
    plain::leading_number(value, MOST, number);
    FUZZ_CHECK(request.content_length() == number, "another length than the digits say");
}

void check_forwarded(Fuzz_Input& input)
{
    const std::string field(input.until('\0'));
    constexpr std::string_view SPACE = " \t\r\n\v\f";
    std::string host = field.substr(0, field.find(','));
    host.erase(0, std::min(host.find_first_not_of(SPACE), host.size()));
    host.erase(host.find_last_not_of(SPACE) + 1);
    const std::string expected_host = field.starts_with(',') ? field : host;
    FUZZ_CHECK(first_forwarded_for(field) == expected_host, "another first client");

    char bytes[sizeof(in6_addr)];
    const bool is_ipv4 = inet_pton(AF_INET, expected_host.c_str(), bytes) == 1;
    const bool is_ipv6 = inet_pton(AF_INET6, expected_host.c_str(), bytes) == 1;
    ACE_INET_Addr address(static_cast<u_short>(9), "192.0.2.1");
    const ACE_INET_Addr before(address);
    const bool taken = set_forwarded_for(address, field);
    FUZZ_CHECK(taken == (is_ipv4 || is_ipv6), "what is no address is taken, or one is not");
    if (!taken) {
        FUZZ_CHECK(address == before, "a refused field has changed the address");
        return;
    }
    const auto* const raw = static_cast<const sockaddr*>(address.get_addr());
    FUZZ_CHECK(raw->sa_family == (is_ipv4 ? AF_INET : AF_INET6), "another family");
    const void* const stored =
        is_ipv4 ? static_cast<const void*>(&reinterpret_cast<const sockaddr_in*>(raw)->sin_addr)
                : &reinterpret_cast<const sockaddr_in6*>(raw)->sin6_addr;
    FUZZ_CHECK(std::memcmp(stored, bytes, is_ipv4 ? sizeof(in_addr) : sizeof(in6_addr)) == 0,
               "another address");
    FUZZ_CHECK(address.get_port_number() == 0, "a port that nobody gave");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    fuzz_quiet_log();
    Fuzz_Input input(data, size);
    switch (input.byte() % 4) {
    case 0:
        check_list(input);
        break;
    case 1:
        check_connection(input);
        break;
    case 2:
        check_length(input);
        break;
    default:
        check_forwarded(input);
        break;
    }
    return 0;
}
