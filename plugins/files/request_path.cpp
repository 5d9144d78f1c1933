#include "plugins/files/request_path.h"

#include <cstring>

namespace {

/// The value of a hexadecimal digit, or -1.
int digit_value(char c)
{
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    if (c >= 'A' && c <= 'F') {
        return c - 'A' + 10;
    }
    return -1;
}

/// A byte that may stand in a name. The slash is handled before; encoded it has no place in one.
bool is_name_byte(unsigned char byte)
{
    return byte >= 0x20 && byte != 0x7F && byte != '/' && byte != '\\';
}

/// pchar without "%", and the slash between names.
bool is_path_character(char c)
{
    constexpr std::string_view MARKS = "-._~!$&'()*+,;=:@/";
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
           MARKS.find(c) != std::string_view::npos;
}

bool is_lower_digit(char c)
{
    return c >= 'a' && c <= 'f';
}

bool is_served_name(std::string_view name)
{
    return !name.empty() && (name[0] != '.' || name == ".well-known");
}

} // namespace

bool Request_Path::below(std::string_view path, size_t offset, std::string_view& names)
{
    if (path.empty() || path[0] != '/' || offset > path.size()) {
        return false;
    }
    names = path.substr(offset);
    if (!names.empty() && (offset == 0 || path[offset - 1] != '/')) { // the URI has no slash
        if (names[0] != '/') {
            return false;
        }
        names.remove_prefix(1);
    }
    return true;
}

bool Request_Path::decode(std::string_view path, size_t offset)
{
    length_ = 0;
    text_[0] = '\0';
    canonical_ = true;
    std::string_view names;
    if (!below(path, offset, names)) {
        return false;
    }
    slash_ = path.back() == '/';
    if (names.empty()) {
        return true;
    }
    if (slash_) {
        names.remove_suffix(1);
    }
    return decode_names(names);
}

bool Request_Path::decode_names(std::string_view names)
{
    size_t begin = 0; // of the name being decoded
    for (size_t i = 0; i < names.size(); ++i) {
        if (length_ + 1 >= sizeof(text_)) {
            return false;
        }
        char c = names[i];
        if (c == '/') {
            if (!is_served_name({text_ + begin, length_ - begin})) {
                return false;
            }
            begin = length_ + 1;
            text_[length_++] = c;
            continue;
        }
        if (c == '#') { // belongs to no path (RFC 3986, 3.3); in a Location it would cut it short
            return false;
        }
        if (c == '%') {
            const int high = i + 2 < names.size() ? digit_value(names[i + 1]) : -1;
            const int low = high != -1 ? digit_value(names[i + 2]) : -1;
            if (low == -1) {
                return false;
            }
            c = static_cast<char>(high * 16 + low);
            canonical_ = canonical_ && !is_path_character(c) && !is_lower_digit(names[i + 1]) &&
                         !is_lower_digit(names[i + 2]);
            i += 2;
        } else {
            canonical_ = canonical_ && is_path_character(c);
        }
        if (!is_name_byte(static_cast<unsigned char>(c))) {
            return false;
        }
        text_[length_++] = c;
    }
    text_[length_] = '\0';
    return is_served_name({text_ + begin, length_ - begin});
}

bool Request_Path::enter(std::string_view name)
{
    return (length_ == 0 || append("/")) && append(name);
}

bool Request_Path::append(std::string_view suffix)
{
    if (suffix.size() >= sizeof(text_) - length_) {
        return false;
    }
    std::memcpy(text_ + length_, suffix.data(), suffix.size());
    length_ += suffix.size();
    text_[length_] = '\0';
    return true;
}

const char* Request_Path::extension() const
{
    const char* const slash = std::strrchr(text_, '/');
    const char* const dot = std::strrchr(slash != nullptr ? slash : text_, '.');
    return dot != nullptr ? dot + 1 : "";
}

char* encode_path_byte(char byte, char* text)
{
    constexpr char DIGITS[] = "0123456789ABCDEF";
    if (is_path_character(byte)) {
        *text++ = byte;
        return text;
    }
    const unsigned value = static_cast<unsigned char>(byte);
    *text++ = '%';
    *text++ = DIGITS[value >> 4];
    *text++ = DIGITS[value & 0x0F];
    return text;
}
