#include "support/uri.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <charconv>
#include <netinet/in.h>
#include <new>
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

bool is_hex_digit(char c)
{
    return is_digit(c) || (c >= 'A' && c <= 'F') || (c >= 'a' && c <= 'f');
}

bool is_one_of(char c, std::string_view set)
{
    return set.find(c) != std::string_view::npos;
}

/// unreserved and sub-delims (RFC 3986, sections 2.3 and 2.2)
bool is_name_char(char c)
{
    return is_letter(c) || is_digit(c) || is_one_of(c, "-._~!$&'()*+,;=");
}

std::string lower(std::string_view text)
{
    std::string result(text);
    std::transform(result.begin(), result.end(), result.begin(), [](char c) {
        return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
    });
    return result;
}

/// Name characters, percent-encodings and the characters of `extra`.
bool is_name(std::string_view text, std::string_view extra)
{
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '%') {
            if (text.size() - i < 3 || !is_hex_digit(text[i + 1]) || !is_hex_digit(text[i + 2])) {
                return false;
            }
            i += 2;
        } else if (!is_name_char(text[i]) && !is_one_of(text[i], extra)) {
            return false;
        }
    }
    return true;
}

bool is_scheme(std::string_view text)
{
    return !text.empty() && is_letter(text[0]) && std::all_of(text.begin(), text.end(), [](char c) {
        return is_letter(c) || is_digit(c) || is_one_of(c, "+-.");
    });
}

bool is_ipv6(std::string_view text)
{
    in6_addr address;
    return inet_pton(AF_INET6, std::string(text).c_str(), &address) == 1;
}

/// "v1.text" (RFC 3986, section 3.2.2)
bool is_future_literal(std::string_view text)
{
    const size_t dot = text.find('.');
    if (text.empty() || (text[0] != 'v' && text[0] != 'V') || dot == std::string_view::npos) {
        return false;
    }
    const std::string_view version = text.substr(1, dot - 1);
    const std::string_view address = text.substr(dot + 1);
    return !version.empty() && std::all_of(version.begin(), version.end(), is_hex_digit) &&
           !address.empty() && std::all_of(address.begin(), address.end(), [](char c) {
               return is_name_char(c) || c == ':';
           });
}

bool is_control_or_blank(char c)
{
    return (c >= '\0' && c <= ' ') || c == '\x7F';
}

bool needs_host(std::string_view scheme)
{
    return scheme == "http" || scheme == "https" || scheme == "ws" || scheme == "wss";
}

/// Takes the text up to the first character of `ends` off the front of `text`.
std::string_view take_until(std::string_view& text, std::string_view ends)
{
    const std::string_view taken = text.substr(0, text.find_first_of(ends));
    text.remove_prefix(taken.size());
    return taken;
}

/// ":port", where the digits may be missing, or nothing.
bool parse_port(std::string_view text, unsigned short& port)
{
    port = 0;
    if (text.empty() || text == ":") {
        return true;
    }
    const char* const end = text.data() + text.size();
    const std::from_chars_result result = std::from_chars(text.data() + 1, end, port);
    return text[0] == ':' && result.ec == std::errc() && result.ptr == end;
}

} // namespace

std::string URI::host(bool bracketed) const
{
    return bracketed && is_literal_ ? "[" + host_ + "]" : host_;
}

void URI::host(const std::string& host, bool bracketed)
{
    const bool has_brackets =
        bracketed && host.size() >= 2 && host.front() == '[' && host.back() == ']';
    host_ = lower(has_brackets ? std::string_view(host).substr(1, host.size() - 2) : host);
    is_literal_ = has_brackets || host_.find(':') != std::string::npos;
    has_authority_ = true;
}

bool URI::ssl() const
{
    return scheme_ == "https" || scheme_ == "wss";
}

void URI::ssl(bool ssl)
{
    if (scheme_ == "ws" || scheme_ == "wss") {
        scheme_ = ssl ? "wss" : "ws";
    } else if (scheme_.empty() || scheme_ == "http" || scheme_ == "https") {
        scheme_ = ssl ? "https" : "http";
    }
}

std::string URI::text() const
{
    if (scheme_.empty() && !has_authority_) {
        return {};
    }
    std::string text = (scheme_.empty() ? "http" : scheme_) + ":";
    if (has_authority_) {
        text += "//";
        if (has_userinfo_) {
            text += userinfo_ + "@";
        }
        text += host(true);
        if (port_ != 0) {
            text += ":" + std::to_string(port_);
        }
    }
    text += path_;
    if (has_query_) {
        text += "?" + query_;
    }
    if (has_fragment_) {
        text += "#" + fragment_;
    }
    return text;
}

/// userinfo@host:port
bool URI_Parser::parse_authority(std::string_view text, URI& uri)
{
    const size_t at = text.find('@');
    if (at != std::string_view::npos) {
        uri.has_userinfo_ = true;
        uri.userinfo_ = text.substr(0, at);
        text.remove_prefix(at + 1);
    }
    uri.has_authority_ = true;
    if (text.empty() || text[0] != '[') {
        const std::string_view name = take_until(text, ":");
        uri.host_ = lower(name);
        return is_name(uri.userinfo_, ":") && is_name(name, "") && parse_port(text, uri.port_);
    }
    const size_t close = text.find(']');
    if (close == std::string_view::npos) {
        return false;
    }
    const std::string_view literal = text.substr(1, close - 1);
    uri.host_ = lower(literal);
    uri.is_literal_ = true;
    return is_name(uri.userinfo_, ":") && (is_ipv6(literal) || is_future_literal(literal)) &&
           parse_port(text.substr(close + 1), uri.port_);
}

bool URI_Parser::parse_parts(std::string_view text, URI& uri)
{
    const size_t colon = text.find(':');
    if (colon == std::string_view::npos || !is_scheme(text.substr(0, colon)) ||
        std::any_of(text.begin(), text.end(), is_control_or_blank)) {
        return false;
    }
    uri.scheme_ = lower(text.substr(0, colon));
    text.remove_prefix(colon + 1);
    if (text.substr(0, 2) == "//") {
        text.remove_prefix(2);
        if (!parse_authority(take_until(text, "/?#"), uri)) {
            return false;
        }
    }
    uri.path_ = take_until(text, "?#");
    if (!text.empty() && text[0] == '?') {
        uri.has_query_ = true;
        uri.query_ = take_until(text, "#").substr(1);
    }
    if (!text.empty()) {
        uri.has_fragment_ = true;
        uri.fragment_ = text.substr(1);
    }
    return !needs_host(uri.scheme_) || !uri.host_.empty();
}

bool URI_Parser::parse(const char* text, URI& out) const
{
    try {
        URI uri;
        if (text == nullptr || !parse_parts(text, uri)) {
            errno = EINVAL;
            return false;
        }
        out = std::move(uri);
        return true;
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
        return false;
    }
}
