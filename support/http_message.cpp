#include "support/http_message.h"

#include "support/http_date.h"
#include "support/http_header_table.h"
#include "support/http_header_value.h"
#include "support/http_status.h"
#include "support/http_syntax.h"
#include "support/log.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <limits>
#include <span>

namespace {

int hex_value(char c)
{
    if (http_is_digit(c)) {
        return c - '0';
    }
    const char lower = http_lower(c);
    return lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
}

/// RFC 3986, section 2.3.
bool is_unreserved(char c)
{
    return http_is_alpha(c) || http_is_digit(c) || c == '-' || c == '.' || c == '_' || c == '~';
}

// Decodes what must mean the same encoded or not, once: "%252e" gives "%252e". Every other encoding
// stays, since decoding it could make a separator of a character that the client meant as data.
// Returns the decoded length, which is never longer than the text; -1 when it cannot be decoded.
ptrdiff_t decode_unreserved(std::string_view text, char* out)
{
    char* const begin = out;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            *out++ = text[i];
            continue;
        }
        const int high = i + 1 < text.size() ? hex_value(text[i + 1]) : -1;
        const int low = i + 2 < text.size() ? hex_value(text[i + 2]) : -1;
        if (high == -1 || low == -1 || high + low == 0) {
            return -1;
        }
        const char decoded = static_cast<char>(high * 16 + low);
        if (is_unreserved(decoded)) {
            *out++ = decoded;
        } else {
            std::memcpy(out, text.data() + i, 3);
            out += 3;
        }
        i += 2;
    }
    return out - begin;
}

std::string_view without_user(std::string_view authority)
{
    const size_t at = authority.rfind('@');
    return at == std::string_view::npos ? authority : authority.substr(at + 1);
}

/// Takes the authority off a target of the absolute form (RFC 9112, section 3.2.2) without its
/// query; any other stays as it is. The scheme's grammar is that of RFC 3986, section 3.1.
std::string_view take_authority(std::string_view& path)
{
    if (path.empty() || !http_is_alpha(path.front())) {
        return {};
    }
    size_t i = 1;
    while (i < path.size() && (http_is_alpha(path[i]) || http_is_digit(path[i]) || path[i] == '+' ||
                               path[i] == '-' || path[i] == '.')) {
        ++i;
    }
    constexpr std::string_view MARK = "://";
    if (path.substr(i, MARK.size()) != MARK) {
        return {};
    }
    const size_t begin = i + MARK.size();
    const size_t end = std::min(path.find('/', begin), path.size());
    const std::string_view authority = path.substr(begin, end - begin);
    path = end == path.size() ? std::string_view("/") : path.substr(end);
    return without_user(authority);
}

constexpr std::string_view KEEP_ALIVE = "Keep-Alive";
constexpr std::string_view CLOSE = "close";
constexpr std::string_view CHUNKED = "chunked";

/// What one look at a target tells.
struct Target_Marks {
    bool visible = true;         ///< no character outside 0x21 to 0x7E
    bool encoded = false;        ///< there may be a "%" before the "?"
    const char* query = nullptr; ///< the first "?"
};

/// Text_Chunk::SIZE - 1 bytes behind the target must be readable.
Target_Marks look_at_target(const char* target, size_t size)
{
    Target_Marks marks;
    for (size_t i = 0; i < size; i += Text_Chunk::SIZE) {
        const Text_Chunk chunk(target + i);
        const size_t left = size - i;
        const unsigned in = left < Text_Chunk::SIZE ? (1U << left) - 1 : Text_Chunk::ALL;
        marks.visible &= (~chunk.visible() & in) == 0;
        if (marks.query == nullptr) {
            marks.encoded |= (chunk.equal('%') & in) != 0;
            if (const unsigned question = chunk.equal('?') & in) {
                marks.query = target + i + __builtin_ctz(question);
            }
        }
    }
    return marks;
}

template <size_t SIZE>
char* put(char* out, const char (&text)[SIZE])
{
    std::memcpy(out, text, SIZE - 1);
    return out + SIZE - 1;
}

constexpr char STATUS_LINE_OK[] = "HTTP/1.1 200 OK\r\n";
constexpr char VERSION[] = "HTTP/1.1 ";
constexpr char SEPARATOR[] = ": ";
constexpr char LINE_END[] = "\r\n";
constexpr size_t STATUS_LENGTH = 3;
constexpr size_t SEPARATOR_LENGTH = sizeof(SEPARATOR) - 1;
constexpr size_t LINE_END_LENGTH = sizeof(LINE_END) - 1;

size_t status_line_size(std::string_view reason)
{
    return sizeof(VERSION) - 1 + STATUS_LENGTH + 1 + reason.size() + LINE_END_LENGTH;
}

char* put_status_line(char* out, int status, std::string_view reason)
{
    if (status == 200 && reason.size() == 2 && std::memcmp(reason.data(), "OK", 2) == 0) {
        return put(out, STATUS_LINE_OK);
    }
    out = put(out, VERSION);
    out = std::to_chars(out, out + STATUS_LENGTH, status).ptr;
    *out++ = ' ';
    return put(copy_short(out, reason), LINE_END);
}

size_t field_size(const HTTP_Headers::Field& field)
{
    return field.name.size() + SEPARATOR_LENGTH + field.value.size() + LINE_END_LENGTH;
}

/// Writes one line, and perhaps other bytes behind it, less than ROOM.
char* put_field(char* out, const HTTP_Headers::Field& field)
{
    using namespace http_header_table;
    const std::string_view value = field.value;
    if (field.id != HTTP_HEAD_UNKNOWN) {
        char* const begin = out;
        out += field.name.size() + SEPARATOR_LENGTH;
        std::memcpy(begin, LINE_STARTS.text[field.id], ROOM);
    } else {
        out = put(copy_short(out, field.name), SEPARATOR);
    }
    return put(copy_short(out, value), LINE_END);
}

} // namespace

CGI_Base::CGI_Base() : headers_(arena_) {}

int CGI_Request::request_line(std::string_view method, std::string_view target)
{
    const HTTP_Method number = http_method_from_token(method);
    const char* const method_text =
        number == HTTP_NO_METHOD ? arena_.copy(method) : http_method_string(number);
    char* const text = arena_.allocate_text(target.size() + PADDING);
    if (method_text == nullptr || text == nullptr) {
        return -1;
    }
    std::memset(copy_short(text, target), 0, PADDING);
    return this->request_line_placed(number, method_text, text, target.size());
}

int CGI_Request::request_line_placed(HTTP_Method method, const char* method_text, char* target,
                                     size_t target_size)
{
    const Target_Marks marks = look_at_target(target, target_size);
    if (target_size == 0 || !marks.visible) {
        errno = EINVAL;
        return -1;
    }
    target[target_size] = '\0';
    std::string_view path(target, target_size);
    std::string_view authority;
    const char* query = nullptr;
    const bool is_authority = method == HTTP_METHOD_CONNECT; // neither path nor query (3.2.3)
    if (!is_authority) {
        if (marks.query != nullptr) {
            path = {target, static_cast<size_t>(marks.query - target)};
            query = marks.query + 1;
        }
        if (*target != '/') {
            authority = take_authority(path);
        }
    }
    const bool is_encoded = marks.encoded && !is_authority;
    const bool ends_there = path.data()[path.size()] == '\0'; // nothing follows it in the target
    const char* const path_text =
        ends_there && !is_encoded ? path.data() : this->copy_path(path, is_encoded);
    if (path_text == nullptr) {
        return -1;
    }
    method_ = method;
    method_text_ = method_text;
    target_ = target;
    path_ = path_text;
    query_ = query;
    authority_ = authority;
    return 0;
}

/// A C string of its own for the path.
const char* CGI_Request::copy_path(std::string_view path, bool is_encoded)
{
    if (!is_encoded) {
        return arena_.copy(path);
    }
    char* const decoded = arena_.allocate_text(path.size() + 1);
    if (decoded == nullptr) {
        return nullptr;
    }
    const ptrdiff_t length = decode_unreserved(path, decoded);
    if (length == -1) {
        errno = EINVAL;
        return nullptr;
    }
    decoded[length] = '\0';
    return decoded;
}

void CGI_Response::status(int code, const char* reason)
{
    if (code < 100 || code > 999) {
        HTTPD_ERROR("HTTP status %d has not three digits.", code);
        code = 500;
        reason = nullptr;
    }
    status_ = code;
    reason_ = http_status_reason(code);
    if (reason == nullptr || *reason == '\0') {
        return;
    }
    const std::string_view text(reason);
    if (text.find_first_of("\r\n") != std::string_view::npos) {
        HTTPD_ERROR("The reason phrase of HTTP status %d holds a line end.", code);
        return;
    }
    const char* const copy = arena_.copy(text);
    if (copy != nullptr) { // the default phrase says enough when there is no memory
        reason_ = {copy, text.size()};
    }
}

template <typename T>
std::uint64_t HTTP_Base<T>::read_content_length() const
{
    constexpr std::uint64_t MOST = std::numeric_limits<std::uint64_t>::max();
    std::uint64_t length = 0;
    // A C string: its NUL is no digit.
    const char* text = this->headers_.value(HTTP_HEAD_CONTENT_LENGTH).data();
    for (char c = *text; http_is_digit(c); c = *++text) {
        const auto digit = static_cast<std::uint64_t>(c - '0');
        if (length >= MOST / 10 && (length > MOST / 10 || digit > MOST % 10)) {
            return MOST;
        }
        length = length * 10 + digit;
    }
    return length;
}

template <typename T>
void HTTP_Base<T>::content_length(std::uint64_t length)
{
    char text[32];
    const char* const end = std::to_chars(text, text + sizeof(text), length).ptr;
    this->headers_.put_clean(HTTP_HEAD_CONTENT_LENGTH,
                             std::string_view(text, static_cast<size_t>(end - text)));
}

template <typename T>
bool HTTP_Base<T>::read_connection() const
{
    const std::string_view connection = this->headers_.value(HTTP_HEAD_CONNECTION);
    if (connection.data() == KEEP_ALIVE.data() || is_word_no_case(connection, "keep-alive")) {
        return true; // and nothing else, as nearly always
    }
    if (http_header_value_match(connection, "close", ',')) {
        return false;
    }
    return http_header_value_match(connection, "Keep-Alive", ',') || minor_version_ > 0;
}

template <typename T>
void HTTP_Base<T>::keep_alive(bool on)
{
    this->headers_.put_constant(HTTP_HEAD_CONNECTION, on ? KEEP_ALIVE : CLOSE);
}

template <typename T>
void HTTP_Base<T>::chunked_transfer_encoding(bool on)
{
    if (on) {
        this->headers_.put_constant(HTTP_HEAD_TRANSFER_ENCODING, CHUNKED);
    } else {
        this->headers_.put(HTTP_HEAD_TRANSFER_ENCODING, nullptr);
    }
}

template class HTTP_Base<CGI_Request>;
template class HTTP_Base<CGI_Response>;

HTTP_Request::HTTP_Request(HTTP_Method method, const char* uri, bool keep_alive)
{
    request_line(http_method_string(method), uri == nullptr ? "/" : uri);
    if (!keep_alive) {
        this->keep_alive(false);
    }
}

void HTTP_Request::give_back()
{
    reset_content();
    arena_.give_back();
}

void HTTP_Response::give_back()
{
    reset_content();
    arena_.give_back();
}

int HTTP_Response::to_iovec(iovec* iov, int count, const void* body, size_t length)
{
    if (iov == nullptr || count < iovec_count() + (length > 0 ? 1 : 0)) {
        errno = EINVAL;
        return -1;
    }
    const std::span<const HTTP_Headers::Field> fields = headers_.fields();
    size_t size = status_line_size(reason_);
    for (const HTTP_Headers::Field& field : fields) {
        size += field_size(field);
    }
    const bool has_date = headers_.has(HTTP_HEAD_DATE);
    const char* const date_line = has_date ? nullptr : http_date_line().data();
    size += (has_date ? size_t{0} : HTTP_DATE_LINE_LENGTH) + LINE_END_LENGTH;
    // What put_field() may write behind a line is overwritten by the Date line, if there is one.
    static_assert(HTTP_DATE_LINE_LENGTH >= http_header_table::ROOM);
    const size_t joined = length <= SMALL_BODY ? length : 0;
    char* const head =
        arena_.allocate_text(size + joined + (has_date ? http_header_table::ROOM : 0));
    if (head == nullptr) {
        return -1;
    }

    char* out = put_status_line(head, status_, reason_);
    for (const HTTP_Headers::Field& field : fields) {
        out = put_field(out, field);
    }
    if (!has_date) {
        std::memcpy(out, date_line, HTTP_DATE_LINE_LENGTH);
        out += HTTP_DATE_LINE_LENGTH;
    }
    out = put(out, LINE_END);
    if (joined > 0) {
        copy_short(out, {static_cast<const char*>(body), joined});
    }
    iov[0] = {head, size + joined};
    if (joined == length) {
        return 1;
    }
    iov[1] = {const_cast<void*>(body), length};
    return 2;
}
