#pragma once

#include "support/export.h"

#include <cstddef>
#include <cstdint>

class ACE_Message_Block;

/**
 * Decodes the frames that a WebSocket client sends (RFC 6455, section 5), incrementally and in
 * place. One per connection, used by the thread that reads it. Allocates nothing.
 *
 * Refused with STATE_ERROR: a reserved bit; an unmasked frame; a control frame longer than 125
 * bytes or without FIN; a length whose top bit is set or that is not in its shortest form; a text
 * or binary frame while a message is open; text that is not UTF-8, as it arrives and across frames.
 * Reserved opcodes and a continuation with no message open are passed on.
 */
class HTTPD_SUPPORT_EXPORT WebSocket_Data_Frame_Parser {
public:
    enum State {
        STATE_OPCODE = 0,
        STATE_PAYLOAD_LEN = 1,
        STATE_MASK = 2,
        STATE_MASK_KEY = 3,
        STATE_PAYLOAD = 4,
        STATE_ERROR = 5
    };

    /**
     * @param mb   header bytes are consumed from its read pointer
     * @param len  with STATE_PAYLOAD: bytes of unmasked payload at the read pointer, which the
     *             caller consumes before it calls again. A frame without payload is reported once,
     *             with 0.
     * @return STATE_PAYLOAD, STATE_ERROR (final until reset), or another state: all bytes were
     * taken and more are needed.
     */
    State parse(ACE_Message_Block* mb, size_t& len);

    unsigned char opcode() const { return opcode_; }
    bool final() const { return fin_; }
    /// The bytes just reported end the message.
    bool last() const { return fin_ && remain_ == 0; }
    bool binary() const { return binary_; }
    unsigned long payload_length() const { return payload_len_; }
    /// Payload bytes of the current frame still to come.
    unsigned long remain() const { return remain_; }

    void reset();

private:
    State check_opcode_byte(unsigned char byte);
    State check_length_byte(unsigned char byte);
    State take_long_length(unsigned char byte);
    State take_mask_key(unsigned char byte);
    State take_short_header(ACE_Message_Block* mb);
    State take_payload(ACE_Message_Block* mb, size_t& len);

    State state_ = STATE_OPCODE;
    std::uint8_t opcode_ = 0;
    bool fin_ = false;
    bool mask_ = false;
    bool binary_ = false;
    std::uint64_t payload_len_ = 0;
    unsigned char mask_key_[4] = {};
    std::uint64_t remain_ = 0;
    unsigned char buf_[8] = {}; ///< length bytes that arrive split across reads
    std::uint8_t i_ = 0;        ///< bytes in buf_
    bool message_open_ = false;
    std::uint8_t mask_offset_ = 0; ///< position in mask_key_ of the next payload byte
    std::uint8_t utf8_state_ = 0;  ///< of the text message being received
};
