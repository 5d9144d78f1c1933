// Texts of option -p: every piece between commas becomes one address, of the kind that its marker
// tells, and those that are written in the plain numeric ways mean what they say.

#include "fuzz/common/check.h"
#include "fuzz/common/input.h"
#include "fuzz/common/plain_text.h"
#include "httpd/http_options.h"
#include "support/uri.h"

#include <ace/ACE.h>
#include <ace/INET_Addr.h>
#include <ace/UNIX_Addr.h>

#include <arpa/inet.h>
#include <sys/un.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

namespace {

using Address = HTTP_Options::Listen_Address;

struct Expected {
    Address::Type type_ = Address::TYPE_HTTP;
    bool ipv6_only_ = false;
    std::string text_; ///< without marker and flags
};

Expected read_piece(std::string_view piece)
{
    Expected expected;
    expected.text_ = piece;
    if (piece[0] == '/' || piece[0] == '@') {
        expected.type_ = Address::TYPE_HTTPU;
        return expected;
    }
    const size_t slash = piece.find('/');
    expected.text_ = piece.substr(0, slash);
    expected.ipv6_only_ =
        slash != std::string_view::npos && piece.substr(slash + 1, 8) == "ipv6only";
    const char marker = expected.text_.empty() ? '\0' : expected.text_.back();
    if (marker == 'm' || marker == 's') {
        expected.type_ = marker == 'm' ? Address::TYPE_HTTPM : Address::TYPE_HTTPS;
        expected.text_.pop_back();
    }
    return expected;
}

std::vector<Expected> read_pieces(std::string_view text)
{
    std::vector<Expected> expected;
    for (const std::string_view piece : plain::split(text, ',')) {
        if (!piece.empty()) {
            expected.push_back(read_piece(piece));
            if (expected.back().ipv6_only_ && !ACE::ipv6_enabled()) {
                expected.pop_back();
            }
        }
    }
    return expected;
}

/// A port as digits, without more than that. -1 when it is none.
int port_of(std::string_view text)
{
    plain::Unsigned_Wide port = 0;
    const bool good = !text.empty() && plain::leading_number(text, 65536, port) == text.size();
    return good && port < 65536 ? static_cast<int>(port) : -1;
}

/// "a.b.c.d:port" and "[v6]:port" are what they say. Other texts are ACE's to interpret.
void check_inet(const std::string& text, const ACE_INET_Addr& address)
{
    const size_t colon = text.rfind(':');
    const int port = colon == std::string::npos ? -1 : port_of(text.substr(colon + 1));
    if (port == -1) {
        return;
    }
    std::string host = text.substr(0, colon);
    const auto* const raw = static_cast<const sockaddr*>(address.get_addr());
    in_addr ipv4{};
    in6_addr ipv6{};
    if (inet_pton(AF_INET, host.c_str(), &ipv4) == 1) {
        FUZZ_CHECK(address.get_port_number() == port, "another port");
        FUZZ_CHECK(raw->sa_family == AF_INET, "an IPv4 address of another family");
        const auto& got = reinterpret_cast<const sockaddr_in*>(raw)->sin_addr;
        FUZZ_CHECK(got.s_addr == ipv4.s_addr, "another IPv4 address");
    } else if (host.starts_with('[') && host.ends_with(']') && host.size() > 2 &&
               inet_pton(AF_INET6, host.substr(1, host.size() - 2).c_str(), &ipv6) == 1) {
        FUZZ_CHECK(address.get_port_number() == port, "another port");
        FUZZ_CHECK(raw->sa_family == AF_INET6, "an IPv6 address of another family");
        const auto& got = reinterpret_cast<const sockaddr_in6*>(raw)->sin6_addr;
        FUZZ_CHECK(std::memcmp(&got, &ipv6, sizeof ipv6) == 0, "another IPv6 address");
    }
}

void check_address(const Address& got, const Expected& expected)
{
    FUZZ_CHECK(got.type == expected.type_, "another kind of address");
    FUZZ_CHECK(got.ipv6_only == expected.ipv6_only_, "the flag is lost, or was never given");
    FUZZ_CHECK(got.sap != nullptr, "no address");
    FUZZ_CHECK(got.is_ssl() == (expected.type_ == Address::TYPE_HTTPS), "is_ssl() is wrong");
    const bool is_inet =
        expected.type_ == Address::TYPE_HTTP || expected.type_ == Address::TYPE_HTTPS;
    FUZZ_CHECK(!is_inet || got.is_inet_or_inet6(), "TCP without an address of the Internet");
    if (is_inet) {
        check_inet(expected.text_, static_cast<const ACE_INET_Addr&>(*got.sap));
    }
    if (expected.type_ == Address::TYPE_HTTPU) {
        const auto& address = static_cast<const ACE_UNIX_Addr&>(*got.sap);
        constexpr size_t ROOM = sizeof(sockaddr_un::sun_path);
        FUZZ_CHECK(expected.text_.size() >= ROOM || address.get_path_name() == expected.text_,
                   "another path");
    }
}

/// Where a local client is sent: to one of the listeners.
void check_local(const HTTP_Options& options, const std::vector<Expected>& expected)
{
    std::string host = "untouched";
    unsigned short port = 7;
    bool ssl = false;
    const bool any = std::any_of(expected.begin(), expected.end(), [](const Expected& address) {
        return address.type_ <= Address::TYPE_HTTPS;
    });
    const bool found = options.get_local_listen_address(host, port, ssl);
    FUZZ_CHECK(found == any, "a local address without a listener, or none with one");
    if (!found) {
        FUZZ_CHECK(host == "untouched" && port == 7, "arguments changed without a result");
        return;
    }
    bool is_one = false;
    for (int i = 0; const Address* const address = options.listen_address(i); ++i) {
        is_one =
            is_one || (address->type <= Address::TYPE_HTTPS && address->is_ssl() == ssl &&
                       static_cast<const ACE_INET_Addr&>(*address->sap).get_port_number() == port);
        FUZZ_CHECK(!ssl || address->type != Address::TYPE_HTTP, "TLS is chosen before plain");
    }
    FUZZ_CHECK(is_one, "nobody listens at the port");
    in6_addr bytes{};
    FUZZ_CHECK(inet_pton(AF_INET, host.c_str(), &bytes) == 1 ||
                   inet_pton(AF_INET6, host.substr(0, host.find('%')).c_str(), &bytes) == 1,
               "the host is no address");
    URI uri;
    FUZZ_CHECK(options.get_local_listen_address(uri), "no URI where there is an address");
    FUZZ_CHECK(uri.port() == port && uri.ssl() == ssl, "another URI than the address");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    fuzz_quiet_log();
    const std::string text(Fuzz_Input(data, size).until('\0'));
    HTTP_Options options;
    FUZZ_CHECK(options.parse_listen_address(text.c_str()), "a text is refused as a whole");
    const std::vector<Expected> expected = read_pieces(text);
    for (size_t i = 0; i < expected.size(); ++i) {
        const Address* const got = options.listen_address(static_cast<int>(i));
        FUZZ_CHECK(got != nullptr, "fewer addresses than pieces");
        check_address(*got, expected[i]);
    }
    FUZZ_CHECK(options.listen_address(static_cast<int>(expected.size())) == nullptr,
               "more addresses than pieces");
    check_local(options, expected);
    return 0;
}
