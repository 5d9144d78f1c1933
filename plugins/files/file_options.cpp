#include "plugins/files/file_options.h"

#include "plugins/plugin_options.h"

#include <algorithm>
#include <limits>
#include <string_view>

namespace {

/// The power of 1024, as a shift, that a unit letter stands for; -1 for any other letter.
int unit_shift(char letter)
{
    switch (letter) {
    case 'k':
    case 'K':
        return 10;
    case 'm':
    case 'M':
        return 20;
    case 'g':
    case 'G':
        return 30;
    default:
        return -1;
    }
}

bool is_plain_name(const std::string& name)
{
    return !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos;
}

/// A field value as it may be sent: a control character would be refused with every answer.
bool is_field_value(const std::string& value)
{
    return std::all_of(value.begin(), value.end(), [](char c) {
        const unsigned char byte = static_cast<unsigned char>(c);
        return (byte >= 0x20 && byte != 0x7F) || byte == '\t';
    });
}

int refuse(const char* name, const std::string& value)
{
    errno = EINVAL;
    HTTPD_ERROR("files: parameter '%C' has an unusable value '%C'", name, value.c_str());
    return -1;
}

} // namespace

int File_Options::parse(int argc, char** argv)
{
    std::string thread_size;
    const Plugin_Option options[] = {
        {"--root", &root_},
        {"--index", &index_},
        {"--cache-control", &cache_control_},
        {"--thread-size", &thread_size},
    };
    if (read_plugin_options("files", argc, argv, options) == -1) {
        return -1;
    }
    if (root_.empty()) {
        errno = EINVAL;
        HTTPD_ERROR("files: parameter '--root' is required");
        return -1;
    }
    if (!is_plain_name(index_)) {
        return refuse("--index", index_);
    }
    if (!is_field_value(cache_control_)) {
        return refuse("--cache-control", cache_control_);
    }
    if (!thread_size.empty() && !parse_file_size(thread_size, thread_size_)) {
        return refuse("--thread-size", thread_size);
    }
    return 0;
}

bool parse_file_size(const std::string& text, std::uint64_t& size)
{
    constexpr std::uint64_t MAX = std::numeric_limits<std::uint64_t>::max();
    std::string_view digits(text);
    int shift = digits.empty() ? -1 : unit_shift(digits.back());
    if (shift == -1) {
        shift = 0;
    } else {
        digits.remove_suffix(1);
    }
    std::uint64_t value = 0;
    for (const char c : digits) {
        if (c < '0' || c > '9') {
            return false;
        }
        const std::uint64_t digit = static_cast<std::uint64_t>(c - '0');
        if (value > (MAX - digit) / 10) {
            return false;
        }
        value = value * 10 + digit;
    }
    if (digits.empty() || value > (MAX >> shift)) {
        return false;
    }
    size = value << shift;
    return true;
}
