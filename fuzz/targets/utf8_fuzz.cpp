// UTF-8 in pieces: the verdict is that of the code points that the bytes stand for.

#include "fuzz/common/check.h"
#include "fuzz/common/input.h"
#include "fuzz/common/plain_utf8.h"
#include "support/utf8_check.h"

namespace {

Plain_UTF8 verdict(std::string_view text, Pieces* pieces)
{
    std::uint8_t state = UTF8_Check::COMPLETE;
    while (!text.empty()) {
        const size_t size = pieces != nullptr ? pieces->next(text.size()) : text.size();
        if (!UTF8_Check::feed(state, text.data(), size)) {
            return Plain_UTF8::MALFORMED;
        }
        text.remove_prefix(size);
    }
    return state == UTF8_Check::COMPLETE ? Plain_UTF8::COMPLETE : Plain_UTF8::UNFINISHED;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    Fuzz_Input input(data, size);
    Pieces pieces(input.word());
    const std::string_view text = input.rest();
    const Plain_UTF8 expected = plain_utf8(text);
    FUZZ_CHECK(verdict(text, nullptr) == expected, "the whole gets another verdict");
    FUZZ_CHECK(verdict(text, &pieces) == expected, "the pieces get another verdict");
    return 0;
}
