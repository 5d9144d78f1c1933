#include "support/websocket_data_frame.h"

#include <cerrno>

namespace {

constexpr unsigned char MASK_BIT = 0x80;
constexpr unsigned char LENGTH_16 = 126;
constexpr unsigned char LENGTH_64 = 127;

constexpr unsigned long MAX_LENGTH_16 = 0xFFFF;

} // namespace

void WebSocket_Data_Frame::put_length(unsigned long payload_length, bool mask)
{
    const unsigned char mask_bit = mask ? MASK_BIT : 0U;
    unsigned char* out = header_ + 1;
    const auto big_endian = [&out, payload_length](int bytes) {
        for (int shift = 8 * (bytes - 1); shift >= 0; shift -= 8) {
            *out++ = static_cast<unsigned char>(payload_length >> shift);
        }
    };
    if (payload_length <= MAX_LENGTH_7) {
        *out++ = static_cast<unsigned char>(mask_bit | payload_length);
    } else if (payload_length <= MAX_LENGTH_16) {
        *out++ = static_cast<unsigned char>(mask_bit | LENGTH_16);
        big_endian(2);
    } else {
        *out++ = static_cast<unsigned char>(mask_bit | LENGTH_64);
        big_endian(8);
    }
    if (mask) {
        for (int i = 0; i < 4; ++i) {
            *out++ = 0; // masking with zeros leaves the payload as it is
        }
    }
    header_length_ = static_cast<unsigned char>(out - header_);
}

int WebSocket_Data_Frame::to_iovec(iovec* out, int room, const void* data, size_t length)
{
    const int needed = (header_length_ > 0 ? 1 : 0) + (length > 0 ? 1 : 0);
    if (needed > room || length > remain_ || (data == nullptr && length > 0)) {
        errno = EINVAL;
        return -1;
    }
    int filled = 0;
    if (header_length_ > 0) {
        out[filled++] = {header_, header_length_};
        header_length_ = 0;
    }
    if (length > 0) {
        out[filled++] = {const_cast<void*>(data), length};
        remain_ -= length;
    }
    return filled;
}

void WebSocket_Data_Frame::withdraw()
{
    message_open_ = message_was_open_;
    header_length_ = 0;
    remain_ = 0;
}
