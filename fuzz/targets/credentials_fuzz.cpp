// The Authorization field: Base64 is read as a plain model reads it and written again the same, and
// user and password are what stands on both sides of the first colon.

#include "fuzz/common/check.h"
#include "fuzz/common/input.h"
#include "fuzz/common/plain_text.h"
#include "plugins/basic_auth/credentials.h"

#include <algorithm>
#include <memory>
#include <string>

namespace {

constexpr std::string_view DIGITS =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

/// RFC 4648, section 4.
std::string encode(std::string_view bytes)
{
    std::string text;
    for (size_t i = 0; i < bytes.size(); i += 3) {
        const size_t count = std::min<size_t>(bytes.size() - i, 3);
        unsigned group = 0;
        for (size_t j = 0; j < 3; ++j) {
            group = group << 8 | (j < count ? static_cast<unsigned char>(bytes[i + j]) : 0U);
        }
        for (size_t j = 0; j < 4; ++j) {
            text += j <= count ? DIGITS[group >> (18 - 6 * j) & 0x3FU] : '=';
        }
    }
    return text;
}

bool decode(std::string_view text, size_t room, std::string& bytes)
{
    // Base64 without a choice: what reads it right writes the same again, so decoding is tried on
    // bits alone and judged by encoding.
    unsigned bits = 0;
    unsigned count = 0;
    bytes.clear();
    for (const char c : text.substr(0, text.find('='))) {
        const size_t digit = DIGITS.find(c);
        if (digit == std::string_view::npos) {
            return false;
        }
        bits = bits << 6 | static_cast<unsigned>(digit);
        count += 6;
        if (count >= 8) {
            count -= 8;
            bytes += static_cast<char>(bits >> count & 0xFFU);
        }
    }
    return encode(bytes) == text && bytes.size() <= room;
}

void check_base64(std::string_view text, size_t room)
{
    std::string expected;
    const bool is_base64 = decode(text, room, expected);
    const std::unique_ptr<char[]> bytes(new char[std::max<size_t>(room, 1)]);
    size_t length = 0;
    const bool taken = base64_decode(text, bytes.get(), room, length);
    FUZZ_CHECK(taken == is_base64, "another verdict");
    FUZZ_CHECK(!taken || expected == std::string_view(bytes.get(), length), "other bytes");
}

bool has_control(const std::string& text)
{
    return std::any_of(text.begin(), text.end(),
                       [](char c) { return (c >= 0 && c < ' ') || c == 127; });
}

void check_field(std::string_view value)
{
    Credentials credentials;
    const bool taken = credentials.parse(value);
    std::string text;
    bool good = plain::lower(value.substr(0, 6)) == "basic ";
    if (good) {
        value.remove_prefix(std::min(value.find_first_not_of(' ', 5), value.size()));
        good = decode(value, Credentials::MAX_LENGTH, text) && !has_control(text) &&
               text.find(':') != std::string::npos;
    }
    FUZZ_CHECK(taken == good, "another verdict on the field");
    if (!taken) {
        return;
    }
    const size_t colon = text.find(':');
    FUZZ_CHECK(credentials.user() == text.substr(0, colon), "another user");
    FUZZ_CHECK(credentials.password() == text.substr(colon + 1), "another password");
    FUZZ_CHECK(credentials.password().data()[credentials.password().size()] == '\0',
               "a password without its NUL");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    Fuzz_Input input(data, size);
    const std::uint8_t choice = input.byte();
    const std::string_view text = input.rest();
    switch (choice % 3) {
    case 0:
        check_field(text);
        break;
    case 1:
        check_field("Basic " + encode(text));
        break;
    default:
        check_base64(text, choice);
        break;
    }
    return 0;
}
