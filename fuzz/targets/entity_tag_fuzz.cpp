// If-Match and If-None-Match: a tag is found in a list exactly where a plain reading of the list
// has it.

#include "fuzz/common/check.h"
#include "fuzz/common/input.h"
#include "fuzz/common/plain_text.h"
#include "plugins/files/entity_tag.h"

#include <algorithm>
#include <string>

namespace {

/// RFC 9110, sections 5.6.1 and 8.8.3; what is no tag ends the list.
bool model(std::string_view list, std::string_view tag, bool weak_counts)
{
    if (plain::trim(list) == "*" && list.find_last_not_of(" \t") == list.size() - 1) {
        return true;
    }
    size_t at = 0;
    const auto skip = [&](std::string_view set) {
        at = std::min(list.find_first_not_of(set, at), list.size());
    };
    for (bool is_first = true;; is_first = false) {
        skip(" \t");
        if (!is_first && (at == list.size() || list[at] != ',')) {
            return false;
        }
        skip(" \t,");
        const bool weak = list.substr(at, 2) == "W/";
        at += weak ? 2 : 0;
        if (at >= list.size() || list[at] != '"') {
            return false;
        }
        const size_t end = list.find('"', at + 1);
        if (end == std::string_view::npos) {
            return false;
        }
        const std::string_view found = list.substr(at, end + 1 - at);
        if (std::any_of(found.begin(), found.end(),
                        [](char c) { return (c >= 0 && c <= ' ') || c == 127; })) {
            return false;
        }
        if (found == tag && (!weak || weak_counts)) {
            return true;
        }
        at = end + 1;
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    Fuzz_Input input(data, size);
    const std::string tag = "\"" + std::string(1, static_cast<char>('a' + input.byte() % 4)) + "\"";
    const std::string_view list = input.rest();
    FUZZ_CHECK(entity_tag_in_list(list, tag, Tag_Comparison::WEAK) == model(list, tag, true),
               "another answer by the weak comparison");
    FUZZ_CHECK(entity_tag_in_list(list, tag, Tag_Comparison::STRONG) == model(list, tag, false),
               "another answer by the strong comparison");
    return 0;
}
