#include "support/http_parser.h"

#include "support/http_header_table.h"
#include "support/http_syntax.h"

#include <ace/Message_Block.h>

#include <charconv>
#include <cstdint>
#include <cstring>

namespace {

constexpr ptrdiff_t VERSION_LENGTH = 8;
constexpr char BEFORE_MINOR_VERSION[] = " HTTP/1.";

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

/// The value between the colon and the end of a placed line, without the blanks around it, as a
/// C string. What stands at `end` is no blank.
std::string_view take_value(char* begin, char* end)
{
    if (*begin == ' ') { // nearly always one
        ++begin;
    }
    while (http_is_blank(*begin)) {
        ++begin;
    }
    while (begin != end && http_is_blank(end[-1])) {
        --end;
    }
    *end = '\0';
    return view(begin, end);
}

bool take_repeated(int id, std::string_view value, HTTP_Headers& headers)
{
    switch (id) {
    case HTTP_HEAD_CONTENT_LENGTH: // one of equal lengths is kept (RFC 9112, section 6.3)
        return value == headers.value(id);
    case HTTP_HEAD_HOST:
        return false;
    default:
        return headers.add(id, http_header_name(id), value) == 0;
    }
}

// A line that continues another (RFC 9112, section 5.2) and a blank before the colon, both ways to
// hide a field from one of two servers (section 5.1), fail as names that are not tokens.
bool take_field_line(char* begin, char* end, HTTP_Headers& headers)
{
    char* const colon = http_find_padded(begin, end, ':');
    if (colon >= end) {
        return false;
    }
    const std::string_view name = view(begin, colon);
    const std::string_view value = take_value(colon + 1, end);
    const int id = http_header_id_of_line(begin, name.size());
    if (id == HTTP_HEAD_UNKNOWN) {
        if (!http_is_token_padded(name)) {
            return false;
        }
        *colon = '\0';
        return headers.add_placed(name, value) == 0;
    }
    if (headers.has(id)) {
        return take_repeated(id, value, headers);
    }
    if (id == HTTP_HEAD_CONTENT_LENGTH && !is_content_length(value)) {
        return false;
    }
    return headers.add_placed(id, HTTP_HEADER_NAMES[id], value) == 0;
}

/// What can be judged only when all fields are known.
bool finish(HTTP_Request& message)
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

} // namespace

/// Complete lines without the empty one.
struct HTTP_Parser::Lines {
    enum : std::uint32_t { MOST = 32 };
    enum Stop {
        INCOMPLETE, ///< behind them is a part of a line
        EMPTY_LINE, ///< behind them was an empty line
        FULL        ///< there may be more
    };

    Stop stop;
    std::uint32_t count;
    size_t end[MOST]; ///< where the line's CR is, counted from the first line's beginning
};

HTTP_Parser_State HTTP_Parser::fail()
{
    state_ = HTTP_PARSER_STATE_ERROR;
    return state_;
}

/// Finds the lines that end behind what was looked at before, up to an empty one.
/// @return false where a control character stands that does not end a line.
[[gnu::always_inline]] inline bool HTTP_Parser::find_lines(const char* text, size_t size,
                                                           Lines& lines)
{
    const size_t first = line_;
    size_t line = first;
    size_t at = scanned_;
    Control_Finder finder(text, at, size);
    std::uint32_t count = 0;
    lines.stop = Lines::FULL;
    bool good = true;
    while (count < Lines::MOST) {
        at = finder.find();
        if (size - at < 2) {
            lines.stop = Lines::INCOMPLETE;
            good = at == size || text[at] == '\r';
            break;
        }
        if (std::memcmp(text + at, "\r\n", 2) != 0) {
            good = false;
            break;
        }
        lines.end[count] = at - first;
        const bool is_empty = at == line;
        at += 2;
        line = at;
        if (is_empty) {
            lines.stop = Lines::EMPTY_LINE;
            break;
        }
        finder.skip(at);
        ++count;
    }
    lines.count = count;
    line_ = line;
    scanned_ = at;
    return good;
}

/// Copies the lines that begin at `begin` into the message's memory, once and all together, and
/// reads them there: names and values become C strings where they stand.
[[gnu::always_inline]] inline bool HTTP_Parser::parse_lines(const char* begin, const Lines& lines,
                                                            HTTP_Request& message)
{
    if (lines.count == 0) {
        return true;
    }
    constexpr size_t PADDING = CGI_Request::PADDING;
    const size_t size = lines.end[lines.count - 1];
    HTTP_Headers& headers = message.headers();
    if (!headers.reserve(lines.count, size + PADDING)) {
        return false;
    }
    char* const text = message.arena().allocate_text(size + PADDING);
    if (text == nullptr) {
        return false;
    }
    std::memcpy(text, begin, size);
    std::memset(text + size, 0, PADDING);

    char* line = text;
    std::uint32_t i = 0;
    if (state_ == HTTP_PARSER_STATE_LINE_EXPECTED) {
        char* const end = text + lines.end[i++];
        if (!parse_start_line(line, end, message)) {
            return false;
        }
        state_ = HTTP_PARSER_STATE_HEADERS_PARSING;
        line = end + 2;
    }
    field_lines_ += lines.count - i;
    if (field_lines_ > MAX_HEADER_LINES) {
        return false;
    }
    for (; i < lines.count; ++i) {
        char* const end = text + lines.end[i];
        if (!take_field_line(line, end, headers)) {
            return false;
        }
        line = end + 2;
    }
    return true;
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

HTTP_Parser_State HTTP_Parser::parse(ACE_Message_Block& block, HTTP_Request& message)
{
    const char* const text = block.rd_ptr();
    const size_t size = block.length();
    if (size < scanned_) {
        return fail(); // bytes that were looked at are gone: not the same header
    }
    while (state_ == HTTP_PARSER_STATE_LINE_EXPECTED ||
           state_ == HTTP_PARSER_STATE_HEADERS_PARSING) {
        Lines lines;
        const char* const first = text + line_;
        const bool good = find_lines(text, size, lines);
        if (!parse_lines(first, lines, message) || !good) {
            return fail();
        }
        if (lines.stop == Lines::INCOMPLETE) {
            return state_;
        }
        if (lines.stop == Lines::EMPTY_LINE) {
            state_ = parse_empty_line(message);
        }
    }
    if (state_ == HTTP_PARSER_STATE_HEADERS_DONE) {
        block.rd_ptr(line_);
    }
    return state_;
}

bool HTTP_Request_Parser::parse_start_line(char* begin, char* end, HTTP_Request& message)
{
    char* const method_end = http_find_padded(begin, end, ' ');
    constexpr ptrdiff_t LEAST = 2 + VERSION_LENGTH; // behind the method: a blank each, the version
    if (end - method_end < LEAST) {
        return false;
    }
    char* const version = end - VERSION_LENGTH;
    static_assert(sizeof(BEFORE_MINOR_VERSION) - 1 == VERSION_LENGTH); // a blank more, a digit less
    if (std::memcmp(version - 1, BEFORE_MINOR_VERSION, VERSION_LENGTH) != 0 ||
        !http_is_digit(end[-1])) {
        return false;
    }
    const std::string_view token = view(begin, method_end);
    const HTTP_Method method = http_method_from_token(token);
    const char* method_text = http_method_string(method);
    if (method == HTTP_NO_METHOD) {
        if (!http_is_token(token)) {
            return false;
        }
        *method_end = '\0';
        method_text = begin;
    }
    message.minor_version(end[-1] - '0');
    char* const target = method_end + 1;
    const auto target_size = static_cast<size_t>(version - 1 - target);
    return message.request_line_placed(method, method_text, target, target_size) == 0;
}
