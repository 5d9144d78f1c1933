#include "plugins/ws_echo/ws_echo_options.h"

#include "plugins/plugin_options.h"

#include <algorithm>
#include <cstddef>

namespace {

std::string_view trimmed(std::string_view text)
{
    constexpr const char* BLANKS = " \t";
    const size_t begin = text.find_first_not_of(BLANKS);
    return begin == std::string_view::npos
               ? std::string_view()
               : text.substr(begin, text.find_last_not_of(BLANKS) + 1 - begin);
}

/// A sub-protocol's name goes into a header field: a token (RFC 9110, section 5.6.2).
bool is_token(std::string_view name)
{
    static constexpr std::string_view SYMBOLS = "!#$%&'*+-.^_`|~";
    return !name.empty() && std::all_of(name.begin(), name.end(), [](char c) {
        return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
               SYMBOLS.find(c) != std::string_view::npos;
    });
}

} // namespace

int WS_Echo_Options::parse(int argc, char** argv)
{
    const std::string not_given(1, '\0'); // which no parameter can be
    std::string protocols = not_given;
    bool thread = false;
    const Plugin_Option options[] = {{"--protocol", &protocols}, {"--thread", nullptr, &thread}};
    if (read_plugin_options("ws_echo", argc, argv, options) == -1) {
        return -1;
    }
    thread_ = thread;
    protocols_.clear();
    return protocols == not_given ? 0 : this->parse_protocols(protocols);
}

int WS_Echo_Options::parse_protocols(std::string_view list)
{
    size_t begin = 0;
    while (begin != std::string_view::npos) {
        const size_t comma = list.find(',', begin);
        const std::string_view name = trimmed(list.substr(begin, comma - begin));
        if (!is_token(name)) {
            errno = EINVAL;
            HTTPD_ERROR("ws_echo: parameter '--protocol': '%C' is not a sub-protocol's name",
                        std::string(name).c_str());
            return -1;
        }
        protocols_.emplace_back(name);
        begin = comma == std::string_view::npos ? comma : comma + 1;
    }
    return 0;
}

const char* WS_Echo_Options::choose(const std::vector<std::string>& offers) const
{
    for (const std::string& offer : offers) {
        const auto found = std::find(protocols_.begin(), protocols_.end(), trimmed(offer));
        if (found != protocols_.end()) {
            return found->c_str();
        }
    }
    return nullptr;
}
