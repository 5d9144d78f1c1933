#include "httpd/http_chunk_parser.h"

#include <ace/Message_Block.h>

#include <algorithm>
#include <cstring>

namespace {

/// Value of a hexadecimal digit (either case), or -1.
int hex_value(char byte)
{
    if (byte >= '0' && byte <= '9') {
        return byte - '0';
    }
    if (byte >= 'a' && byte <= 'f') {
        return byte - 'a' + 10;
    }
    if (byte >= 'A' && byte <= 'F') {
        return byte - 'A' + 10;
    }
    return -1;
}

/// A size with any of these bits set has no room for another digit.
constexpr std::uint64_t TOP_DIGIT = 0xF000'0000'0000'0000U;

} // namespace

HTTP_Chunk_State HTTP_Chunk_Parser::parse(ACE_Message_Block* mb, size_t& length)
{
    length = 0;
    if (mb == nullptr) {
        return state_;
    }
    char* cursor = mb->rd_ptr();
    char* const end = mb->wr_ptr();
    bool stop = false;
    while (cursor != end && !stop) {
        switch (state_) {
        case HTTP_CHUNK_STATE_SIZE: // -> SIZE_CR, EXT, ERROR
            parse_size(*cursor);
            stop = state_ == HTTP_CHUNK_STATE_ERROR;
            cursor += stop ? 0 : 1;
            break;
        case HTTP_CHUNK_STATE_EXT: { // -> SIZE_CR
            auto* const cr =
                static_cast<char*>(std::memchr(cursor, '\r', static_cast<size_t>(end - cursor)));
            if (cr != nullptr) {
                state_ = HTTP_CHUNK_STATE_SIZE_CR;
            }
            cursor = cr != nullptr ? cr + 1 : end;
            break;
        }
        case HTTP_CHUNK_STATE_SIZE_CR: // -> DATA at once, ERROR
            if (*cursor != '\n') {
                state_ = HTTP_CHUNK_STATE_ERROR;
                stop = true;
                break;
            }
            ++cursor;
            state_ = HTTP_CHUNK_STATE_DATA;
            [[fallthrough]];
        case HTTP_CHUNK_STATE_DATA: // -> DATA_CR_EXPECTED; the caller consumes the data
            length = start_data(static_cast<size_t>(end - cursor));
            stop = true;
            break;
        case HTTP_CHUNK_STATE_DATA_CR_EXPECTED: // -> DATA_LF_EXPECTED, ERROR
        case HTTP_CHUNK_STATE_DATA_LF_EXPECTED: // -> SIZE, END, ERROR
            parse_data_end(*cursor);
            stop = state_ == HTTP_CHUNK_STATE_ERROR || state_ == HTTP_CHUNK_STATE_END;
            cursor += state_ == HTTP_CHUNK_STATE_ERROR ? 0 : 1;
            break;
        case HTTP_CHUNK_STATE_ERROR:
        case HTTP_CHUNK_STATE_END:
            stop = true;
            break;
        }
    }
    mb->rd_ptr(cursor);
    return state_;
}

/// One byte of a size line, up to its CR or the beginning of an extension.
void HTTP_Chunk_Parser::parse_size(char byte)
{
    if (byte == '\r') {
        state_ = HTTP_CHUNK_STATE_SIZE_CR;
        return;
    }
    if (byte == ';') {
        state_ = HTTP_CHUNK_STATE_EXT;
        return;
    }
    const int digit = hex_value(byte);
    if (digit < 0 || (chunk_size_ & TOP_DIGIT) != 0) {
        state_ = HTTP_CHUNK_STATE_ERROR;
        return;
    }
    chunk_size_ = chunk_size_ * 16 + static_cast<unsigned>(digit);
}

/// Reports as much of the chunk's data as there is. @return its bytes.
size_t HTTP_Chunk_Parser::start_data(size_t available)
{
    const std::uint64_t missing = chunk_size_ - chunk_transferred_;
    const std::uint64_t length = std::min<std::uint64_t>(missing, available);
    chunk_transferred_ += length;
    if (length == missing) {
        state_ = HTTP_CHUNK_STATE_DATA_CR_EXPECTED;
    }
    return static_cast<size_t>(length);
}

/// One byte of the CR LF behind a chunk's data.
void HTTP_Chunk_Parser::parse_data_end(char byte)
{
    if (state_ == HTTP_CHUNK_STATE_DATA_CR_EXPECTED) {
        state_ = byte == '\r' ? HTTP_CHUNK_STATE_DATA_LF_EXPECTED : HTTP_CHUNK_STATE_ERROR;
        return;
    }
    if (byte != '\n') {
        state_ = HTTP_CHUNK_STATE_ERROR;
        return;
    }
    state_ = chunk_size_ == 0 ? HTTP_CHUNK_STATE_END : HTTP_CHUNK_STATE_SIZE;
    chunk_size_ = 0;
    chunk_transferred_ = 0;
}
