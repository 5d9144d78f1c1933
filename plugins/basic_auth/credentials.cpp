#include "plugins/basic_auth/credentials.h"

#include <algorithm>
#include <string.h>
#include <strings.h>

namespace {

/// The value of a Base64 digit, or -1.
int digit_value(char c)
{
    if (c >= 'A' && c <= 'Z') {
        return c - 'A';
    }
    if (c >= 'a' && c <= 'z') {
        return c - 'a' + 26;
    }
    if (c >= '0' && c <= '9') {
        return c - '0' + 52;
    }
    if (c == '+') {
        return 62;
    }
    return c == '/' ? 63 : -1;
}

bool is_control(char c)
{
    const unsigned char byte = static_cast<unsigned char>(c);
    return byte < 0x20 || byte == 0x7F;
}

} // namespace

Credentials::~Credentials()
{
    ::explicit_bzero(text_, length_);
}

bool Credentials::parse(std::string_view value)
{
    constexpr std::string_view SCHEME = "Basic ";
    if (value.size() <= SCHEME.size() ||
        ::strncasecmp(value.data(), SCHEME.data(), SCHEME.size()) != 0) {
        return false;
    }
    value.remove_prefix(SCHEME.size());
    value.remove_prefix(std::min(value.find_first_not_of(' '), value.size()));

    length_ = MAX_LENGTH; // to be wiped also when decoding stops half-way
    size_t length = 0;
    if (!base64_decode(value, text_, MAX_LENGTH, length)) {
        return false;
    }
    text_[length] = '\0';
    const std::string_view text(text_, length);
    const size_t colon = text.find(':');
    if (colon == std::string_view::npos || std::any_of(text.begin(), text.end(), is_control)) {
        return false;
    }
    user_ = text.substr(0, colon);
    password_ = text.substr(colon + 1);
    return true;
}

bool base64_decode(std::string_view text, char* bytes, size_t room, size_t& length)
{
    constexpr size_t GROUP = 4;
    length = 0;
    if (text.size() % GROUP != 0) {
        return false;
    }
    size_t padding = 0;
    while (padding < 2 && padding < text.size() && text[text.size() - 1 - padding] == '=') {
        ++padding;
    }
    if (text.size() / GROUP * 3 - padding > room) {
        return false;
    }
    unsigned bits = 0; // not yet written, in the low `count` bits
    int count = 0;
    for (const char c : text.substr(0, text.size() - padding)) {
        const int value = digit_value(c);
        if (value == -1) {
            return false;
        }
        bits = (bits << 6 | static_cast<unsigned>(value)) & 0xFFFU;
        count += 6;
        if (count >= 8) {
            count -= 8;
            bytes[length++] = static_cast<char>(bits >> count & 0xFFU);
        }
    }
    return (bits & ((1U << count) - 1U)) == 0;
}
