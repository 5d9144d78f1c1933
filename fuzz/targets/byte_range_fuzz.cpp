// The Range field of a request for a file: a part lies within the file and is the one that the
// numbers, taken as they are written, say.

#include "fuzz/common/check.h"
#include "fuzz/common/input.h"
#include "fuzz/common/plain_text.h"
#include "plugins/files/byte_range.h"

#include <algorithm>

namespace {

using Wide = plain::Unsigned_Wide;

struct Expected {
    Byte_Range::Kind kind_ = Byte_Range::WHOLE;
    Wide first_ = 0;
    Wide length_ = 0;
};

/// False unless the whole text is digits, at least one.
bool number(std::string_view text, Wide& value)
{
    constexpr Wide MOST = static_cast<Wide>(1) << 100;
    return !text.empty() && plain::leading_number(text, MOST, value) == text.size();
}

Expected model(std::string_view value, Wide size)
{
    const Expected whole;
    if (plain::lower(value.substr(0, 6)) != "bytes=") {
        return whole;
    }
    value.remove_prefix(6);
    const size_t dash = value.find('-');
    if (dash == std::string_view::npos) {
        return whole;
    }
    const std::string_view from = value.substr(0, dash);
    const std::string_view to = value.substr(dash + 1);
    Wide first = 0;
    Wide last = 0;
    if (from.empty()) { // the last so many bytes
        if (!number(to, last)) {
            return whole;
        }
        if (last == 0) {
            return {Byte_Range::UNSATISFIABLE};
        }
        last = std::min(last, size);
        return last == 0 ? whole : Expected{Byte_Range::PART, size - last, last};
    }
    if (!number(from, first) || (!to.empty() && !number(to, last))) {
        return whole;
    }
    if (!to.empty() && last < first) {
        // Of two numbers beyond 64 bits neither is the larger, as they count as the same.
        constexpr Wide MOST = (static_cast<Wide>(1) << 64) - 1;
        if (last < MOST) {
            return whole;
        }
    }
    if (first >= size) {
        return {Byte_Range::UNSATISFIABLE};
    }
    last = to.empty() ? size - 1 : std::min(last, size - 1);
    return {Byte_Range::PART, first, last - first + 1};
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    Fuzz_Input input(data, size);
    const unsigned shift = input.byte() % 65; // sizes of every magnitude
    const std::uint64_t file_size = shift == 64 ? 0 : input.number() >> shift;
    const std::string_view value = input.rest();
    const Byte_Range range = parse_byte_range(value, file_size);
    const Expected expected = model(value, file_size);
    FUZZ_CHECK(range.kind_ == expected.kind_, "another kind of range");
    if (range.kind_ == Byte_Range::PART) {
        FUZZ_CHECK(range.first_ == expected.first_ && range.length_ == expected.length_,
                   "another part");
        FUZZ_CHECK(range.length_ > 0 && range.first_ < file_size &&
                       range.length_ <= file_size - range.first_,
                   "a part that does not lie within the file");
    }
    return 0;
}
