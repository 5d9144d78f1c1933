#include "host/directive_text.h"

#include <algorithm>

namespace {

constexpr std::string_view BLANKS = " \t\r";
constexpr std::string_view LETTERS =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz_0123456789";

/// Reads "library:symbol" at the start of `text`, behind blanks.
bool read_location(std::string_view text, Service_Location& location)
{
    text.remove_prefix(std::min(text.find_first_not_of(BLANKS), text.size()));
    const size_t colon = text.find(':');
    if (colon == 0 || colon == std::string_view::npos ||
        text.substr(0, colon).find_first_of(" \t\r'\"*") != std::string_view::npos) {
        return false;
    }
    const std::string_view symbol = text.substr(colon + 1);
    location.dll_ = text.substr(0, colon);
    location.symbol_ = symbol.substr(0, symbol.find_first_not_of(LETTERS));
    return !location.symbol_.empty();
}

} // namespace

std::vector<Service_Location> service_locations(std::string_view directives)
{
    std::vector<Service_Location> result;
    while (!directives.empty()) {
        const size_t end = directives.find('\n');
        std::string_view line = directives.substr(0, end);
        directives.remove_prefix(end == std::string_view::npos ? directives.size() : end + 1);
        line = line.substr(0, line.find('#'));
        for (size_t star = line.find('*'); star != std::string_view::npos;
             star = line.find('*', star + 1)) {
            Service_Location location;
            if (read_location(line.substr(star + 1), location)) {
                result.push_back(location);
            }
        }
    }
    return result;
}
