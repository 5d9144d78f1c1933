#include "support/http_parser.h"

#include "support/http_header_table.h"
#include "support/http_syntax.h"

#include <ace/Message_Block.h>

#include <charconv>
#include <cstdint>
#include <cstring>

namespace {

constexpr ptrdiff_t VERSION_LENGTH = 8;
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

/// Why the search for line ends stopped.
enum HTTP_Parser::Stop : int {
    STOP_MORE,  ///< the last line is not complete
    STOP_EMPTY, ///< behind an empty line
    STOP_FULL,  ///< no room for more lines
    STOP_BAD    ///< a control character that does not end a line
};

/// Complete lines, as distances of their ends (the CR) from the first one's beginning.
struct HTTP_Parser::Lines {
    enum : std::uint32_t { MOST = 32 };

    std::uint32_t count = 0;
    size_t end[MOST];
};

HTTP_Parser_State HTTP_Parser::parse(ACE_Message_Block& block, HTTP_Request& message)
{
    const char* const begin = block.rd_ptr();
    const char* const end = block.wr_ptr();
    if (static_cast<size_t>(end - begin) < scanned_) {
        return fail(); // bytes that were looked at are gone: not the same header
    }
    while (state_ == HTTP_PARSER_STATE_LINE_EXPECTED ||
           state_ == HTTP_PARSER_STATE_HEADERS_PARSING) {
        Lines lines;
        const char* const first = begin + line_;
        const Stop stop = find_lines(begin, end, lines);
        if (!parse_lines(first, lines, message) || stop == STOP_BAD) {
            return fail();
        }
        if (stop == STOP_MORE) {
            return state_;
        }
        if (stop == STOP_EMPTY) {
            state_ = parse_empty_line(message);
        }
    }
    if (state_ == HTTP_PARSER_STATE_HEADERS_DONE) {
        block.rd_ptr(line_);
    }
    return state_;
}

HTTP_Parser_State HTTP_Parser::fail()
{
    state_ = HTTP_PARSER_STATE_ERROR;
    return state_;
}

/// Notes the lines that end between the first byte not looked at and the end, up to an empty one.
HTTP_Parser::Stop HTTP_Parser::find_lines(const char* begin, const char* end, Lines& lines)
{
    const char* const first = begin + line_;
    const char* line = first;
    const char* at = begin + scanned_;
    Stop stop = STOP_FULL;
    while (lines.count < Lines::MOST) {
        at = http_find_control(begin, at, end);
        if (at == end || (*at == '\r' && at + 1 == end)) {
            stop = STOP_MORE;
            break;
        }
        if (at[0] != '\r' || at[1] != '\n') {
            return STOP_BAD;
        }
        const bool is_empty = at == line;
        if (!is_empty) {
            lines.end[lines.count++] = static_cast<size_t>(at - first);
        }
        at += 2;
        line = at;
        if (is_empty) {
            stop = STOP_EMPTY;
            break;
        }
    }
    line_ = static_cast<size_t>(line - begin);
    scanned_ = static_cast<size_t>(at - begin);
    return stop;
}

/// Copies the lines that begin at `begin` into the message's memory, once and all together, and
/// reads them there: names and values become C strings where they stand.
bool HTTP_Parser::parse_lines(const char* begin, const Lines& lines, HTTP_Request& message)
{
    if (lines.count == 0) {
        return true;
    }
    constexpr size_t PADDING = CGI_Request::PADDING;
    const size_t size = lines.end[lines.count - 1];
    if (!message.headers().reserve(lines.count, size + PADDING)) {
        return false;
    }
    char* const text = message.arena().allocate_text(size + PADDING);
    if (text == nullptr) {
        return false;
    }
    std::memcpy(text, begin, size);
    std::memset(text + size, 0, PADDING);
    char* line = text;
    for (std::uint32_t i = 0; i < lines.count; ++i) {
        char* const line_end = text + lines.end[i];
        if (!parse_line(line, line_end, message)) {
            return false;
        }
        line = line_end + 2;
    }
    return true;
}

/// Takes one line, without its CR LF. @return false when it is malformed.
bool HTTP_Parser::parse_line(char* begin, char* end, HTTP_Request& message)
{
    if (state_ == HTTP_PARSER_STATE_HEADERS_PARSING) {
        return ++field_lines_ <= MAX_HEADER_LINES && parse_field_line(begin, end, message);
    }
    state_ = HTTP_PARSER_STATE_HEADERS_PARSING;
    return parse_start_line(begin, end, message);
}

/// @return the state that follows an empty line.
HTTP_Parser_State HTTP_Parser::parse_empty_line(HTTP_Request& message)
{
    if (state_ == HTTP_PARSER_STATE_HEADERS_PARSING) {
        return finish(message) ? HTTP_PARSER_STATE_HEADERS_DONE : HTTP_PARSER_STATE_ERROR;
    }
    // RFC 9112, section 2.2: an old client's line end behind its body
    ++empty_lines_;
    return empty_lines_ <= MAX_EMPTY_LINES ? state_ : HTTP_PARSER_STATE_ERROR;
}

// A line that continues another (RFC 9112, section 5.2) and a blank before the colon, both ways to
// hide a field from one of two servers (section 5.1), fail as names that are not tokens.
bool HTTP_Parser::parse_field_line(char* begin, char* end, HTTP_Request& message)
{
    char* const colon = http_find_padded(begin, end, ':');
    if (colon == end) {
        return false;
    }
    std::string_view name = view(begin, colon);
    const std::string_view value = http_trim(view(colon + 1, end));
    const_cast<char&>(value.data()[value.size()]) = '\0';
    HTTP_Headers& headers = message.headers();
    const int id = http_header_id_of_line(begin, name.size());
    switch (id) {
    case HTTP_HEAD_UNKNOWN:
        if (!http_is_token(name)) {
            return false;
        }
        *colon = '\0';
        break;
    case HTTP_HEAD_CONTENT_LENGTH:
        if (headers.has(id)) { // one of equal lengths is kept (RFC 9112, section 6.3)
            return value == headers.value(id);
        }
        if (!is_content_length(value)) {
            return false;
        }
        name = HTTP_HEADER_NAMES[id];
        break;
    case HTTP_HEAD_HOST:
        if (headers.has(id)) {
            return false;
        }
        [[fallthrough]];
    default:
        name = HTTP_HEADER_NAMES[id];
        break;
    }
    return headers.add_placed(id, name, value) == 0;
}

/// What can be judged only when all fields are known.
bool HTTP_Parser::finish(HTTP_Request& message) const
{
    // Where two lengths stand, two servers may believe one each; and one of HTTP/1.0 does not know
    // chunks at all (RFC 9112, section 6.1).
    HTTP_Headers& headers = message.headers();
    if (headers.has(HTTP_HEAD_TRANSFER_ENCODING) &&
        (headers.has(HTTP_HEAD_CONTENT_LENGTH) || message.minor_version() == 0)) {
        return false;
    }
    // RFC 9112, section 3.2.2: the host of an absolute target replaces what the field says.
    return message.authority().empty() || headers.put(HTTP_HEAD_HOST, message.authority()) == 0;
}

bool HTTP_Request_Parser::parse_start_line(char* begin, char* end, HTTP_Request& message)
{
    char* const method_end = http_find_padded(begin, end, ' ');
    constexpr ptrdiff_t LEAST = 2 + VERSION_LENGTH; // behind the method: a blank each, the version
    if (end - method_end < LEAST) {
        return false;
    }
    char* const version = end - VERSION_LENGTH;
    if (version[-1] != ' ' || !view(version, end).starts_with(VERSION_PREFIX) ||
        !http_is_digit(end[-1])) {
        return false;
    }
    const std::string_view method = view(begin, method_end);
    if (!http_is_token(method)) {
        return false;
    }
    message.minor_version(end[-1] - '0');
    char* const target = method_end + 1;
    const auto target_size = static_cast<size_t>(version - 1 - target);
    return message.request_line_placed(begin, method.size(), target, target_size) == 0;
}
