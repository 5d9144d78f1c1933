#include "support/http_parser.h"

#include "support/http_syntax.h"

#include <ace/Message_Block.h>

#include <charconv>
#include <cstdint>

namespace {

constexpr size_t VERSION_LENGTH = 8;
constexpr std::string_view VERSION_PREFIX = "HTTP/1.";

// Digits that fit in 64 bits; what follows them does not count, as in HTTP_Base::content_length(),
// unless it is a list: RFC 9110, section 8.6 allows one only of equal lengths.
bool is_content_length(std::string_view value)
{
    std::uint64_t length = 0;
    if (value.empty() || !http_is_digit(value.front()) ||
        std::from_chars(value.data(), value.data() + value.size(), length).ec != std::errc()) {
        return false;
    }
    size_t comma = value.find(',');
    const std::string_view first = http_trim(value.substr(0, comma));
    while (comma != std::string_view::npos) {
        value.remove_prefix(comma + 1);
        comma = value.find(',');
        if (http_trim(value.substr(0, comma)) != first) {
            return false;
        }
    }
    return true;
}

std::string_view view(const char* begin, const char* end)
{
    return {begin, static_cast<size_t>(end - begin)};
}

} // namespace

HTTP_Parser_State HTTP_Parser::parse(ACE_Message_Block& block, HTTP_Request& message)
{
    const char* const begin = block.rd_ptr();
    const char* const end = block.wr_ptr();
    if (static_cast<size_t>(end - begin) < scanned_) {
        return fail(); // bytes that were looked at are gone: not the same header
    }
    while (state_ == HTTP_PARSER_STATE_LINE_EXPECTED ||
           state_ == HTTP_PARSER_STATE_HEADERS_PARSING) {
        const char* const stop = http_find_control(begin, begin + scanned_, end);
        scanned_ = static_cast<size_t>(stop - begin);
        if (stop == end || (*stop == '\r' && stop + 1 == end)) {
            return state_;
        }
        if (stop[0] != '\r' || stop[1] != '\n') {
            return fail();
        }
        const char* const line = begin + line_;
        scanned_ += 2;
        line_ = scanned_;
        state_ = parse_line(line, stop, message);
        if (state_ == HTTP_PARSER_STATE_HEADERS_DONE) {
            block.rd_ptr(line_);
        }
    }
    return state_;
}

void HTTP_Parser::reset()
{
    state_ = HTTP_PARSER_STATE_LINE_EXPECTED;
    line_ = 0;
    scanned_ = 0;
    field_lines_ = 0;
    empty_lines_ = 0;
}

HTTP_Parser_State HTTP_Parser::fail()
{
    state_ = HTTP_PARSER_STATE_ERROR;
    return state_;
}

/// Takes one line, without its CR LF. @return the state that follows it.
HTTP_Parser_State HTTP_Parser::parse_line(const char* begin, const char* end, HTTP_Request& message)
{
    if (state_ == HTTP_PARSER_STATE_LINE_EXPECTED) {
        if (begin == end) { // RFC 9112, section 2.2: an old client's line end behind its body
            ++empty_lines_;
            return empty_lines_ <= MAX_EMPTY_LINES ? state_ : HTTP_PARSER_STATE_ERROR;
        }
        return parse_start_line(begin, end, message) ? HTTP_PARSER_STATE_HEADERS_PARSING
                                                     : HTTP_PARSER_STATE_ERROR;
    }
    if (begin == end) {
        return finish(message) ? HTTP_PARSER_STATE_HEADERS_DONE : HTTP_PARSER_STATE_ERROR;
    }
    ++field_lines_;
    return field_lines_ <= MAX_HEADER_LINES && parse_field_line(begin, end, message)
               ? state_
               : HTTP_PARSER_STATE_ERROR;
}

// A line that continues another (RFC 9112, section 5.2) and a blank before the colon, both ways to
// hide a field from one of two servers (section 5.1), fail as names that are not tokens.
bool HTTP_Parser::parse_field_line(const char* begin, const char* end, HTTP_Request& message)
{
    const char* const colon = http_find_near(begin, end, ':');
    if (colon == end) {
        return false;
    }
    const std::string_view name = view(begin, colon);
    const std::string_view value = http_trim(view(colon + 1, end));
    const int id = http_header_id(name);
    switch (id) {
    case HTTP_HEAD_UNKNOWN:
        if (!http_is_token(name)) {
            return false;
        }
        break;
    case HTTP_HEAD_CONTENT_LENGTH:
        if (!is_content_length(value)) {
            return false;
        }
        if (const char* const earlier = message.headers().get(id)) {
            return value == earlier; // one of equal lengths is kept (RFC 9112, section 6.3)
        }
        break;
    case HTTP_HEAD_HOST:
        if (message.headers().get(id) != nullptr) {
            return false;
        }
        break;
    default:
        break;
    }
    return message.headers().add(id, name, value) == 0;
}

/// What can be judged only when all fields are known.
bool HTTP_Parser::finish(HTTP_Request& message) const
{
    // Where two lengths stand, two servers may believe one each; and one of HTTP/1.0 does not know
    // chunks at all (RFC 9112, section 6.1).
    HTTP_Headers& headers = message.headers();
    if (headers.get(HTTP_HEAD_TRANSFER_ENCODING) != nullptr &&
        (headers.get(HTTP_HEAD_CONTENT_LENGTH) != nullptr || message.minor_version() == 0)) {
        return false;
    }
    // RFC 9112, section 3.2.2: the host of an absolute target replaces what the field says.
    return message.authority().empty() || headers.put(HTTP_HEAD_HOST, message.authority()) == 0;
}

bool HTTP_Request_Parser::parse_start_line(const char* begin, const char* end,
                                           HTTP_Request& message)
{
    const std::string_view line = view(begin, end);
    const size_t method_end = line.find(' ');
    if (method_end == std::string_view::npos || line.size() < method_end + 2 + VERSION_LENGTH) {
        return false;
    }
    const size_t target_end = line.size() - VERSION_LENGTH - 1;
    const std::string_view version = line.substr(target_end + 1);
    if (line[target_end] != ' ' || !version.starts_with(VERSION_PREFIX) ||
        !http_is_digit(version.back())) {
        return false;
    }
    const std::string_view method = line.substr(0, method_end);
    if (!http_is_token(method)) {
        return false;
    }
    message.minor_version(version.back() - '0');
    const size_t target = method_end + 1;
    return message.request_line(method, line.substr(target, target_end - target)) == 0;
}
