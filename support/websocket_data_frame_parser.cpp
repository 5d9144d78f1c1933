#include "support/websocket_data_frame_parser.h"

#include "support/utf8_check.h"
#include "support/websocket_mask.h"

#include <ace/Message_Block.h>

#include <algorithm>
#include <cstring>

namespace {

constexpr unsigned char FIN_BIT = 0x80;
constexpr unsigned char RESERVED_BITS = 0x70;
constexpr unsigned char OPCODE_BITS = 0x0F;
constexpr unsigned char MASK_BIT = 0x80;
constexpr unsigned char LENGTH_BITS = 0x7F;
constexpr unsigned char TEXT = 1;
constexpr unsigned char BINARY = 2;
constexpr unsigned char CONTROL = 8; ///< the first control opcode

constexpr size_t SHORT_HEADER = 6; ///< bytes in front of a payload of up to 125

constexpr std::uint64_t MAX_LENGTH_7 = 125;
constexpr std::uint64_t MAX_LENGTH_16 = 0xFFFF;
constexpr std::uint64_t TOP_BIT = std::uint64_t{1} << 63;

} // namespace

void WebSocket_Data_Frame_Parser::reset()
{
    *this = WebSocket_Data_Frame_Parser();
}

// The steps are inline for the sake of small frames, which consist of little else.

/// First byte: FIN, reserved bits, opcode.
inline WebSocket_Data_Frame_Parser::State
WebSocket_Data_Frame_Parser::check_opcode_byte(unsigned char byte)
{
    fin_ = (byte & FIN_BIT) != 0;
    opcode_ = byte & OPCODE_BITS;
    const bool data = opcode_ == TEXT || opcode_ == BINARY;
    if ((byte & RESERVED_BITS) != 0 || (opcode_ >= CONTROL && !fin_) || (data && message_open_)) {
        return STATE_ERROR;
    }
    if (data) {
        binary_ = opcode_ == BINARY;
        utf8_state_ = UTF8_Check::COMPLETE;
        message_open_ = true;
    }
    i_ = 0;
    mask_offset_ = 0;
    return STATE_PAYLOAD_LEN;
}

/// Second byte: mask bit and the short length, or the size of the long one.
inline WebSocket_Data_Frame_Parser::State
WebSocket_Data_Frame_Parser::check_length_byte(unsigned char byte)
{
    mask_ = (byte & MASK_BIT) != 0;
    payload_len_ = byte & LENGTH_BITS;
    if (!mask_ || (opcode_ >= CONTROL && payload_len_ > MAX_LENGTH_7)) {
        return STATE_ERROR; // a client masks every frame (RFC 6455, 5.1)
    }
    return payload_len_ > MAX_LENGTH_7 ? STATE_MASK : STATE_MASK_KEY;
}

/// A byte of a long length; the last one checks that no shorter form would have done.
WebSocket_Data_Frame_Parser::State WebSocket_Data_Frame_Parser::take_long_length(unsigned char byte)
{
    const std::uint8_t bytes = payload_len_ == MAX_LENGTH_7 + 1 ? 2 : 8;
    buf_[i_++] = byte;
    if (i_ < bytes) {
        return STATE_MASK;
    }
    std::uint64_t length = 0;
    for (std::uint8_t i = 0; i < bytes; ++i) {
        length = (length << 8) | buf_[i];
    }
    if (length >= TOP_BIT || length <= (bytes == 2 ? MAX_LENGTH_7 : MAX_LENGTH_16)) {
        return STATE_ERROR;
    }
    payload_len_ = length;
    i_ = 0;
    return STATE_MASK_KEY;
}

WebSocket_Data_Frame_Parser::State WebSocket_Data_Frame_Parser::take_mask_key(unsigned char byte)
{
    mask_key_[i_++] = byte;
    if (i_ < sizeof mask_key_) {
        return STATE_MASK_KEY;
    }
    remain_ = payload_len_;
    return STATE_PAYLOAD;
}

/// Takes the header of a small frame in one go when all of it is there; leaves any other alone.
inline WebSocket_Data_Frame_Parser::State
WebSocket_Data_Frame_Parser::take_short_header(ACE_Message_Block* mb)
{
    const auto* const bytes = reinterpret_cast<const unsigned char*>(mb->rd_ptr());
    if ((bytes[1] & LENGTH_BITS) > MAX_LENGTH_7) {
        return STATE_OPCODE;
    }
    if (this->check_opcode_byte(bytes[0]) == STATE_ERROR ||
        this->check_length_byte(bytes[1]) == STATE_ERROR) {
        return STATE_ERROR;
    }
    std::memcpy(mask_key_, bytes + SHORT_HEADER - sizeof mask_key_, sizeof mask_key_);
    remain_ = payload_len_;
    mb->rd_ptr(SHORT_HEADER);
    return STATE_PAYLOAD;
}

/// Unmasks and reports what there is of the frame's payload.
inline WebSocket_Data_Frame_Parser::State
WebSocket_Data_Frame_Parser::take_payload(ACE_Message_Block* mb, size_t& len)
{
    len = static_cast<size_t>(std::min<std::uint64_t>(mb->length(), remain_));
    websocket_unmask(mb->rd_ptr(), len, mask_key_, mask_offset_);
    mask_offset_ = static_cast<std::uint8_t>((mask_offset_ + len) % sizeof mask_key_);
    remain_ -= len;
    if (opcode_ <= BINARY && message_open_) {
        if (!binary_ && (!UTF8_Check::feed(utf8_state_, mb->rd_ptr(), len) ||
                         (this->last() && utf8_state_ != UTF8_Check::COMPLETE))) {
            len = 0;
            state_ = STATE_ERROR;
            return state_;
        }
        message_open_ = !this->last();
    }
    if (remain_ == 0) {
        state_ = STATE_OPCODE;
    }
    return STATE_PAYLOAD;
}

WebSocket_Data_Frame_Parser::State WebSocket_Data_Frame_Parser::parse(ACE_Message_Block* mb,
                                                                      size_t& len)
{
    len = 0;
    if (state_ == STATE_OPCODE && mb->length() >= SHORT_HEADER) {
        state_ = this->take_short_header(mb);
    }
    while (state_ != STATE_PAYLOAD && state_ != STATE_ERROR && mb->length() > 0) {
        const auto byte = static_cast<unsigned char>(*mb->rd_ptr());
        mb->rd_ptr(1);
        switch (state_) {
        case STATE_OPCODE:
            state_ = this->check_opcode_byte(byte);
            break;
        case STATE_PAYLOAD_LEN:
            state_ = this->check_length_byte(byte);
            break;
        case STATE_MASK:
            state_ = this->take_long_length(byte);
            break;
        case STATE_MASK_KEY:
            state_ = this->take_mask_key(byte);
            break;
        case STATE_PAYLOAD:
        case STATE_ERROR:
            break;
        }
    }
    if (state_ != STATE_PAYLOAD || (mb->length() == 0 && remain_ > 0)) {
        return state_ == STATE_PAYLOAD ? STATE_MASK_KEY : state_;
    }
    return this->take_payload(mb, len);
}
