// A body in the chunked transfer coding: in pieces and as a whole it gives the data, the state and
// the bytes left over that a plain model of the grammar gives.

#include "fuzz/common/check.h"
#include "fuzz/common/growing_block.h"
#include "fuzz/common/input.h"
#include "fuzz/common/plain_text.h"
#include "httpd/http_chunk_parser.h"

#include <string>

namespace {

struct Decoded {
    enum End { OPEN, ENDED, MALFORMED } end_ = OPEN;
    std::string data_;
    size_t consumed_ = 0; ///< a byte that is no part of the grammar stays

    bool operator==(const Decoded&) const = default;
};

/// Reads a text from its front, one rule after the other.
class Model {
public:
    explicit Model(std::string_view text) : text_(text) {}

    Decoded decode()
    {
        while (this->chunk()) {
        }
        result_.consumed_ = at_;
        return result_;
    }

private:
    /// @return true when another chunk follows.
    bool chunk()
    {
        plain::Unsigned_Wide size = 0;
        for (; at_ < text_.size() && plain::hex(text_[at_]) >= 0; ++at_) {
            size = size * 16 + static_cast<unsigned>(plain::hex(text_[at_]));
            if (size >> 64 != 0) {
                return this->malformed();
            }
        }
        if (at_ < text_.size() && text_[at_] == ';') {
            while (at_ < text_.size() && text_[at_] != '\r') {
                ++at_;
            }
        }
        if (!this->literal('\r') || !this->literal('\n')) {
            return false;
        }
        const size_t left = text_.size() - at_;
        const size_t there = size < left ? static_cast<size_t>(size) : left;
        result_.data_ += text_.substr(at_, there);
        at_ += there;
        if (!this->literal('\r') || !this->literal('\n')) {
            return false;
        }
        result_.end_ = size == 0 ? Decoded::ENDED : Decoded::OPEN;
        return size != 0;
    }

    bool literal(char expected)
    {
        if (at_ == text_.size()) {
            return false;
        }
        if (text_[at_] != expected) {
            return this->malformed();
        }
        ++at_;
        return true;
    }

    bool malformed()
    {
        result_.end_ = Decoded::MALFORMED;
        return false;
    }

    std::string_view text_;
    size_t at_ = 0;
    Decoded result_;
};

Decoded::End end_of(HTTP_Chunk_State state)
{
    switch (state) {
    case HTTP_CHUNK_STATE_END:
        return Decoded::ENDED;
    case HTTP_CHUNK_STATE_ERROR:
        return Decoded::MALFORMED;
    case HTTP_CHUNK_STATE_SIZE:
    case HTTP_CHUNK_STATE_SIZE_CR:
    case HTTP_CHUNK_STATE_EXT:
    case HTTP_CHUNK_STATE_DATA:
    case HTTP_CHUNK_STATE_DATA_CR_EXPECTED:
    case HTTP_CHUNK_STATE_DATA_LF_EXPECTED:
        break;
    }
    return Decoded::OPEN;
}

/// Feeds the parser as a connection does. `pieces` null: all at once.
Decoded decode(std::string_view text, Pieces* pieces)
{
    Growing_Block input(text);
    HTTP_Chunk_Parser parser;
    Decoded result;
    while (input.left() > 0 && result.end_ == Decoded::OPEN) {
        input.append(pieces != nullptr ? pieces->next(input.left()) : input.left());
        ACE_Message_Block& block = input.block();
        while (block.length() > 0 && result.end_ == Decoded::OPEN) {
            const size_t before = block.length();
            const HTTP_Chunk_State state_before = parser.state();
            size_t length = 0;
            const HTTP_Chunk_State state = parser.parse(&block, length);
            FUZZ_CHECK(length == 0 || state == HTTP_CHUNK_STATE_DATA ||
                           state == HTTP_CHUNK_STATE_DATA_CR_EXPECTED,
                       "data in a state that has none");
            FUZZ_CHECK(length <= block.length(), "more data than there are bytes");
            result.data_.append(block.rd_ptr(), length);
            block.rd_ptr(length);
            result.end_ = end_of(state);
            FUZZ_CHECK(block.length() < before || state != state_before,
                       "a call that takes nothing and changes nothing");
        }
    }
    result.consumed_ = input.consumed(text);
    return result;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    Fuzz_Input input(data, size);
    Pieces pieces(input.word());
    const std::string_view text = input.rest();
    const Decoded expected = Model(text).decode();
    FUZZ_CHECK(decode(text, nullptr) == expected, "the whole gives another body than the model");
    FUZZ_CHECK(decode(text, &pieces) == expected, "the pieces give another body than the model");
    return 0;
}
