// The Accept-Encoding field: gzip is taken to be welcome when a plain reading of its weights says
// so.

#include "fuzz/common/check.h"
#include "fuzz/common/input.h"
#include "fuzz/common/plain_text.h"
#include "plugins/files/accept_encoding.h"

#include <optional>
#include <string>

namespace {

/// In thousandths; a malformed one refuses.
int weight_of(std::string_view text)
{
    const size_t size = text.size();
    if (size == 0 || size > 5 || (text[0] != '0' && text[0] != '1') ||
        (size > 1 && text[1] != '.')) {
        return 0;
    }
    std::string digits(size > 2 ? text.substr(2) : "");
    for (const char c : digits) {
        if (!plain::is_digit(c)) {
            return 0;
        }
    }
    digits.resize(3, '0');
    const int weight = (text[0] - '0') * 1000 + std::stoi(digits);
    return weight > 1000 ? 0 : weight;
}

bool model(std::string_view value)
{
    std::optional<int> gzip;
    std::optional<int> identity;
    std::optional<int> any;
    for (const std::string_view element : plain::split(value, ',')) {
        int weight = 1000;
        std::string coding;
        bool weighed = false;
        bool is_first = true;
        for (const std::string_view part : plain::split(element, ';')) {
            const std::string word = plain::lower(plain::trim(part));
            if (is_first) {
                coding = word;
            } else if (!weighed && word.starts_with("q=")) {
                weight = weight_of(word.substr(2));
                weighed = true; // the first one counts
            }
            is_first = false;
        }
        if (coding == "gzip" || coding == "x-gzip") {
            gzip = std::max(gzip.value_or(0), weight);
        } else if (coding == "identity") {
            identity = weight;
        } else if (coding == "*") {
            any = weight;
        }
    }
    const int weight = gzip.value_or(any.value_or(0));
    return weight > 0 && weight >= identity.value_or(0);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string_view value = Fuzz_Input(data, size).rest();
    FUZZ_CHECK(accepts_gzip(value) == model(value), "another answer than the weights give");
    return 0;
}
