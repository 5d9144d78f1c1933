#include "plugins/files/accept_encoding.h"

#include <strings.h>

#include <algorithm>

namespace {

constexpr int UNSET = -1;
constexpr int FULL_WEIGHT = 1000;

std::string_view trim(std::string_view text)
{
    constexpr std::string_view BLANKS = " \t";
    const size_t begin = text.find_first_not_of(BLANKS);
    if (begin == std::string_view::npos) {
        return {};
    }
    return text.substr(begin, text.find_last_not_of(BLANKS) - begin + 1);
}

bool equals(std::string_view text, std::string_view word)
{
    return text.size() == word.size() && ::strncasecmp(text.data(), word.data(), word.size()) == 0;
}

/// Takes what stands before `separator`, or all, off the front of `text`.
std::string_view take_until(std::string_view& text, char separator)
{
    const size_t end = std::min(text.find(separator), text.size());
    const std::string_view part = text.substr(0, end);
    text.remove_prefix(std::min(end + 1, text.size()));
    return trim(part);
}

/// A qvalue in thousandths; 0 when it is malformed (RFC 9110, section 12.4.2).
int parse_weight(std::string_view text)
{
    constexpr size_t MAX_LENGTH = 5; // "0.123"
    if (text.empty() || text.size() > MAX_LENGTH || (text[0] != '0' && text[0] != '1') ||
        (text.size() > 1 && text[1] != '.')) {
        return 0;
    }
    int weight = text[0] == '1' ? FULL_WEIGHT : 0;
    int unit = FULL_WEIGHT / 10;
    for (size_t i = 2; i < text.size(); ++i, unit /= 10) {
        if (text[i] < '0' || text[i] > '9') {
            return 0;
        }
        weight += (text[i] - '0') * unit;
    }
    return weight <= FULL_WEIGHT ? weight : 0;
}

/// The weight among the parameters of one element.
int weight_of(std::string_view parameters)
{
    while (!parameters.empty()) {
        const std::string_view parameter = take_until(parameters, ';');
        if (parameter.size() >= 2 && (parameter[0] == 'q' || parameter[0] == 'Q') &&
            parameter[1] == '=') {
            return parse_weight(parameter.substr(2));
        }
    }
    return FULL_WEIGHT;
}

} // namespace

bool accepts_gzip(std::string_view value)
{
    int gzip = UNSET;
    int identity = UNSET;
    int any = UNSET;
    while (!value.empty()) {
        std::string_view element = take_until(value, ',');
        const std::string_view coding = take_until(element, ';');
        const int weight = weight_of(element);
        if (equals(coding, "gzip") || equals(coding, "x-gzip")) {
            gzip = std::max(gzip, weight);
        } else if (equals(coding, "identity")) {
            identity = weight;
        } else if (coding == "*") {
            any = weight;
        }
    }
    const int weight = gzip != UNSET ? gzip : any;
    return weight > 0 && weight >= identity;
}
