#include "support/http_message.h"

#include "support/http_date.h"
#include "support/http_header_value.h"
#include "support/http_status.h"
#include "support/http_syntax.h"
#include "support/log.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <limits>

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

/// Where the authority begins in a target of the absolute form (RFC 9112, section 3.2.2); 0 in any
/// other. The scheme's grammar is that of RFC 3986, section 3.1.
size_t find_authority(std::string_view target)
{
    if (!http_is_alpha(target.front())) {
        return 0;
    }
    size_t i = 1;
    while (i < target.size() && (http_is_alpha(target[i]) || http_is_digit(target[i]) ||
                                 target[i] == '+' || target[i] == '-' || target[i] == '.')) {
        ++i;
    }
    constexpr std::string_view MARK = "://";
    return target.substr(i, MARK.size()) == MARK ? i + MARK.size() : 0;
}

std::string_view without_user(std::string_view authority)
{
    const size_t at = authority.rfind('@');
    return at == std::string_view::npos ? authority : authority.substr(at + 1);
}

char* put_text(char* out, std::string_view text)
{
    std::memcpy(out, text.data(), text.size());
    return out + text.size();
}

char* put_line_end(char* out)
{
    out[0] = '\r';
    out[1] = '\n';
    return out + 2;
}

constexpr std::string_view VERSION = "HTTP/1.1 ";
constexpr size_t STATUS_LENGTH = 3;

} // namespace

CGI_Base::CGI_Base() : headers_(arena_) {}

void CGI_Base::reset()
{
    headers_.reset();
    arena_.reset();
}

/// The parts of a target, as views of its stored copy.
struct CGI_Request::Target {
    std::string_view path;
    std::string_view authority;
    const char* query = nullptr;

    explicit Target(std::string_view target, bool is_authority) : path(target)
    {
        if (is_authority) {
            return; // RFC 9112, section 3.2.3: neither path nor query
        }
        const size_t mark = target.find('?');
        if (mark != std::string_view::npos) {
            query = target.data() + mark + 1;
            path = target.substr(0, mark);
        }
        const size_t begin = find_authority(path);
        if (begin != 0) {
            const size_t end = std::min(path.find('/', begin), path.size());
            authority = without_user(path.substr(begin, end - begin));
            path = end == path.size() ? std::string_view("/") : path.substr(end);
        }
    }
};

int CGI_Request::request_line(std::string_view method, std::string_view target)
{
    if (target.empty() || !http_is_visible(target)) {
        errno = EINVAL;
        return -1;
    }
    const HTTP_Method number = http_method_from_token(method);
    const char* const method_text =
        number == HTTP_NO_METHOD ? arena_.copy(method) : http_method_string(number);
    const char* const copy = arena_.copy(target);
    if (method_text == nullptr || copy == nullptr) {
        return -1;
    }

    const bool is_authority = number == HTTP_METHOD_CONNECT;
    const Target parts(std::string_view(copy, target.size()), is_authority);
    const char* const path = place_path(parts.path, !is_authority);
    if (path == nullptr) {
        return -1;
    }
    method_ = number;
    method_text_ = method_text;
    target_ = copy;
    path_ = path;
    query_ = parts.query;
    authority_ = parts.authority;
    return 0;
}

// The path as a C string: the stored target's own end where nothing follows it, else a copy.
const char* CGI_Request::place_path(std::string_view path, bool may_be_encoded)
{
    if (!may_be_encoded || path.find('%') == std::string_view::npos) {
        return path.data()[path.size()] == '\0' ? path.data() : arena_.copy(path);
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

void CGI_Request::reset()
{
    CGI_Base::reset();
    method_ = HTTP_METHOD_GET;
    method_text_ = "GET";
    target_ = "/";
    path_ = "/";
    query_ = nullptr;
    authority_ = {};
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

void CGI_Response::reset()
{
    CGI_Base::reset();
    status_ = 200;
    reason_ = "OK";
}

template <typename T>
std::uint64_t HTTP_Base<T>::content_length() const
{
    const char* const text = this->headers_.get(HTTP_HEAD_CONTENT_LENGTH);
    if (text == nullptr) {
        return 0;
    }
    std::uint64_t length = 0;
    const auto [end, error] = std::from_chars(text, text + std::strlen(text), length);
    return error == std::errc::result_out_of_range ? std::numeric_limits<std::uint64_t>::max()
                                                   : length;
}

template <typename T>
void HTTP_Base<T>::content_length(std::uint64_t length)
{
    char text[32];
    const char* const end = std::to_chars(text, text + sizeof(text), length).ptr;
    this->headers_.put(HTTP_HEAD_CONTENT_LENGTH,
                       std::string_view(text, static_cast<size_t>(end - text)));
}

template <typename T>
const char* HTTP_Base<T>::content_type() const
{
    return this->headers_.get(HTTP_HEAD_CONTENT_TYPE);
}

template <typename T>
void HTTP_Base<T>::content_type(const char* type)
{
    this->headers_.put(HTTP_HEAD_CONTENT_TYPE, type);
}

template <typename T>
bool HTTP_Base<T>::keep_alive() const
{
    const char* const connection = this->headers_.get(HTTP_HEAD_CONNECTION);
    if (connection != nullptr) {
        if (http_header_value_match(connection, "close", ',')) {
            return false;
        }
        if (http_header_value_match(connection, "Keep-Alive", ',')) {
            return true;
        }
    }
    return minor_version_ > 0;
}

template <typename T>
void HTTP_Base<T>::keep_alive(bool on)
{
    this->headers_.put(HTTP_HEAD_CONNECTION, on ? "Keep-Alive" : "close");
}

template <typename T>
bool HTTP_Base<T>::chunked_transfer_encoding() const
{
    const char* const coding = this->headers_.get(HTTP_HEAD_TRANSFER_ENCODING);
    return coding != nullptr && std::strcmp(coding, "chunked") == 0;
}

template <typename T>
void HTTP_Base<T>::chunked_transfer_encoding(bool on)
{
    this->headers_.put(HTTP_HEAD_TRANSFER_ENCODING, on ? "chunked" : nullptr);
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

void HTTP_Request::reset()
{
    CGI_Request::reset();
    minor_version_ = 1;
}

void HTTP_Response::reset()
{
    CGI_Response::reset();
    minor_version_ = 1;
}

void HTTP_Response::give_back()
{
    reset();
    arena_.give_back();
}

int HTTP_Response::iovec_count() const
{
    return 1;
}

int HTTP_Response::to_iovec(iovec* iov, int count)
{
    if (iov == nullptr || count < iovec_count()) {
        errno = EINVAL;
        return -1;
    }
    const bool has_date = headers_.get(HTTP_HEAD_DATE) != nullptr;
    const std::string_view date_line = has_date ? std::string_view("") : http_date_line();
    constexpr size_t LINE_END = 2;
    constexpr size_t SEPARATOR = 2;
    size_t size = VERSION.size() + STATUS_LENGTH + 1 + reason_.size() + LINE_END +
                  date_line.size() + LINE_END;
    for (const HTTP_Headers::Field& field : headers_) {
        size += field.name.size() + SEPARATOR + field.value.size() + LINE_END;
    }
    char* const head = arena_.allocate_text(size);
    if (head == nullptr) {
        return -1;
    }

    char* out = put_text(head, VERSION);
    out = std::to_chars(out, out + STATUS_LENGTH, status_).ptr;
    *out++ = ' ';
    out = put_line_end(put_text(out, reason_));
    for (const HTTP_Headers::Field& field : headers_) {
        out = put_text(out, field.name);
        *out++ = ':';
        *out++ = ' ';
        out = put_line_end(put_text(out, field.value));
    }
    out = put_line_end(put_text(out, date_line));
    iov[0] = {head, size};
    return 1;
}
