#include "fuzz/common/plain_head.h"

#include "fuzz/common/plain_text.h"
#include "support/http_header_id.h"

#include <algorithm>

namespace {

constexpr size_t MOST_FIELD_LINES = 128;
constexpr size_t MOST_EMPTY_LINES = 2;

using Fields = Plain_Head::Fields;

std::string* find(Fields& fields, std::string_view name)
{
    for (auto& [its_name, value] : fields) {
        if (plain::same(its_name, name)) {
            return &value;
        }
    }
    return nullptr;
}

/// As the server writes it, when it knows the name.
std::string name_in_table(std::string_view name, bool& known)
{
    for (int id = 0; id < NUM_HTTP_HEADS; ++id) {
        if (plain::same(http_header_name(id), name)) {
            known = true;
            return std::string(http_header_name(id));
        }
    }
    known = false;
    return std::string(name);
}

bool is_content_length(std::string_view value)
{
    constexpr auto MOST = static_cast<plain::Unsigned_Wide>(1) << 64;
    plain::Unsigned_Wide number = 0;
    if (plain::leading_number(value, MOST, number) == 0 || number == MOST) {
        return false;
    }
    const auto parts = plain::split(value, ',');
    return std::all_of(parts.begin(), parts.end(), [&parts](std::string_view part) {
        return plain::trim(part) == plain::trim(parts[0]);
    });
}

bool read_field(std::string_view line, Fields& fields)
{
    const size_t colon = line.find(':');
    if (colon == std::string_view::npos || !plain::is_token(line.substr(0, colon))) {
        return false;
    }
    bool known = false;
    const std::string name = name_in_table(line.substr(0, colon), known);
    const std::string value(plain::trim(line.substr(colon + 1)));
    std::string* const earlier = find(fields, name);
    if (name == "Content-Length") {
        if (earlier != nullptr) {
            return value == *earlier;
        }
        if (!is_content_length(value)) {
            return false;
        }
    }
    if (earlier == nullptr || name == "Set-Cookie") {
        fields.emplace_back(name, value);
        return true;
    }
    if (name == "Host") {
        return false;
    }
    *earlier += (name == "Cookie" ? "; " : ", ") + value;
    return true;
}

/// Decodes the unreserved characters (RFC 3986, section 2.3). False for "%00" and what is no
/// encoding.
bool decode_path(std::string_view text, std::string& path)
{
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            path += text[i];
            continue;
        }
        const int high = i + 2 < text.size() ? plain::hex(text[i + 1]) : -1;
        const int low = i + 2 < text.size() ? plain::hex(text[i + 2]) : -1;
        if (high < 0 || low < 0 || (high == 0 && low == 0)) {
            return false;
        }
        const char c = static_cast<char>(high * 16 + low);
        if (plain::is_letter(c) || plain::is_digit(c) ||
            std::string_view("-._~").find(c) != std::string_view::npos) {
            path += c;
        } else {
            path += text.substr(i, 3);
        }
        i += 2;
    }
    return true;
}

/// Takes "scheme://authority" off the front of a path, if it begins so.
void take_authority(std::string_view& path, std::string& authority)
{
    const size_t mark = path.find("://");
    if (mark == std::string_view::npos || mark == 0 || !plain::is_letter(path[0])) {
        return;
    }
    for (const char c : path.substr(0, mark)) {
        if (!plain::is_letter(c) && !plain::is_digit(c) && c != '+' && c != '-' && c != '.') {
            return;
        }
    }
    path.remove_prefix(mark + 3);
    const size_t slash = std::min(path.find('/'), path.size());
    authority = path.substr(0, slash);
    path.remove_prefix(slash);
    if (path.empty()) {
        path = "/";
    }
    authority.erase(0, authority.rfind('@') + 1); // npos + 1 is 0
}

bool read_target(Plain_Head& head)
{
    const std::string_view target = head.target_;
    if (target.empty() ||
        !std::all_of(target.begin(), target.end(), [](char c) { return c > ' ' && c < 127; })) {
        return false;
    }
    if (head.method_ == "CONNECT") {
        head.path_ = target;
        return true;
    }
    std::string_view path = target.substr(0, target.find('?'));
    head.has_query_ = path.size() < target.size();
    if (head.has_query_) {
        head.query_ = target.substr(path.size() + 1);
    }
    take_authority(path, head.authority_);
    return decode_path(path, head.path_);
}

bool read_request_line(std::string_view line, Plain_Head& head)
{
    constexpr std::string_view VERSION = " HTTP/1.";
    const size_t method_end = line.find(' ');
    if (method_end == std::string_view::npos || !plain::is_token(line.substr(0, method_end)) ||
        !plain::is_digit(line.back())) {
        return false;
    }
    head.method_ = line.substr(0, method_end);
    head.minor_version_ = line.back() - '0';
    line.remove_prefix(method_end + 1);
    line.remove_suffix(1);
    if (!line.ends_with(VERSION)) {
        return false;
    }
    head.target_ = line.substr(0, line.size() - VERSION.size());
    return read_target(head);
}

bool finish(Plain_Head& head)
{
    if (find(head.fields_, "Transfer-Encoding") != nullptr &&
        (head.minor_version_ == 0 || find(head.fields_, "Content-Length") != nullptr)) {
        return false;
    }
    if (!head.authority_.empty()) {
        if (std::string* const host = find(head.fields_, "Host")) {
            *host = head.authority_;
        } else {
            head.fields_.emplace_back("Host", head.authority_);
        }
    }
    return true;
}

} // namespace

Plain_Head plain_head(std::string_view text)
{
    Plain_Head head;
    const auto malformed = [&head] {
        head.verdict_ = Plain_Head::MALFORMED;
        return head;
    };
    size_t empty_lines = 0;
    size_t field_lines = 0;
    bool started = false;
    for (size_t begin = 0;;) {
        size_t end = begin;
        while (end < text.size() && !plain::is_control_but_tab(text[end])) {
            ++end;
        }
        if (end == text.size() || (end + 1 == text.size() && text[end] == '\r')) {
            return head;
        }
        if (text.substr(end, 2) != "\r\n") {
            return malformed();
        }
        const std::string_view line = text.substr(begin, end - begin);
        begin = end + 2;
        if (line.empty() && started) {
            if (!finish(head)) {
                return malformed();
            }
            head.verdict_ = Plain_Head::COMPLETE;
            head.size_ = begin;
            return head;
        }
        const bool good = line.empty() ? ++empty_lines <= MOST_EMPTY_LINES
                          : started
                              ? ++field_lines <= MOST_FIELD_LINES && read_field(line, head.fields_)
                              : read_request_line(line, head);
        if (!good) {
            return malformed();
        }
        started = started || !line.empty();
    }
}
