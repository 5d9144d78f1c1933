#include "bench/load/websocket_frames.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr unsigned char MASK = 0x80;
constexpr unsigned char LENGTH = 0x7f;
constexpr unsigned char OPCODE = 0x0f;
constexpr unsigned char RESERVED = 0x70;
constexpr unsigned char CONTINUATION = 0x0;
constexpr unsigned char BINARY = 0x2;
constexpr unsigned char PING = 0x9;
constexpr unsigned char PONG = 0xa;
constexpr unsigned char SHORT_LENGTH = 126; // 2 bytes follow
constexpr unsigned char LONG_LENGTH = 127;  // 8 bytes follow

void append_number(std::string& bytes, std::uint64_t number, unsigned size)
{
    for (unsigned i = size; i-- > 0;) {
        bytes += static_cast<char>(number >> (8 * i));
    }
}

} // namespace

std::string masked_frame(const std::string& payload)
{
    constexpr unsigned char KEY[4] = {0x37, 0xfa, 0x21, 0x3d};
    std::string frame(1, static_cast<char>(0x80U | BINARY));
    if (payload.size() < SHORT_LENGTH) {
        frame += static_cast<char>(MASK | payload.size());
    } else if (payload.size() <= 0xffff) {
        frame += static_cast<char>(MASK | SHORT_LENGTH);
        append_number(frame, payload.size(), 2);
    } else {
        frame += static_cast<char>(MASK | LONG_LENGTH);
        append_number(frame, payload.size(), 8);
    }
    frame.append(reinterpret_cast<const char*>(KEY), sizeof KEY);
    for (size_t i = 0; i < payload.size(); ++i) {
        frame += static_cast<char>(static_cast<unsigned char>(payload[i]) ^ KEY[i % 4]);
    }
    return frame;
}

size_t Echo_Reader::header_size() const
{
    if (header_have_ < 2) {
        return 2;
    }
    const unsigned char length = header_[1] & LENGTH;
    return length == LONG_LENGTH ? 10 : length == SHORT_LENGTH ? 4 : 2;
}

/// The header is complete. False: it does not begin or continue an echo.
bool Echo_Reader::begin_frame()
{
    const unsigned char opcode = header_[0] & OPCODE;
    frame_missing_ = header_[1] & LENGTH;
    if (frame_missing_ >= SHORT_LENGTH) {
        const size_t size = header_size();
        frame_missing_ = 0;
        for (size_t i = 2; i < size; ++i) {
            frame_missing_ = frame_missing_ << 8U | header_[i];
        }
    }
    if ((header_[1] & MASK) != 0 || (header_[0] & RESERVED) != 0) {
        return false;
    }
    if (is_control()) {
        return opcode == PING || opcode == PONG;
    }
    if (opcode != (in_message_ ? CONTINUATION : BINARY)) {
        return false;
    }
    in_message_ = true;
    return frame_missing_ <= payload_->size() - message_have_;
}

bool Echo_Reader::take_payload(const char* data, size_t size)
{
    if (!is_control()) {
        if (!compared_ && std::memcmp(payload_->data() + message_have_, data, size) != 0) {
            return false;
        }
        message_have_ += size;
    }
    frame_missing_ -= size;
    return true;
}

int Echo_Reader::take(const char* data, size_t size)
{
    int messages = 0;
    while (size != 0) {
        if (header_have_ < header_size()) {
            header_[header_have_++] = static_cast<unsigned char>(*data++);
            --size;
            if (header_have_ < header_size()) {
                continue;
            }
            if (!begin_frame()) {
                return -1;
            }
        }
        const size_t piece = static_cast<size_t>(std::min<std::uint64_t>(size, frame_missing_));
        if (!take_payload(data, piece)) {
            return -1;
        }
        data += piece;
        size -= piece;
        if (frame_missing_ != 0) {
            continue;
        }
        header_have_ = 0;
        if (is_last() && !is_control()) {
            if (message_have_ != payload_->size()) {
                return -1;
            }
            ++messages;
            compared_ = true;
            in_message_ = false;
            message_have_ = 0;
        }
    }
    return messages;
}
