#include "tests/support/websocket_client.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <cstdint>
#include <utility>

namespace {

unsigned byte_at(const std::string& bytes, size_t at)
{
    return static_cast<unsigned char>(bytes[at]);
}

void append_big_endian(std::string& bytes, std::uint64_t value, int count)
{
    for (int shift = 8 * (count - 1); shift >= 0; shift -= 8) {
        bytes += static_cast<char>(value >> shift);
    }
}

} // namespace

unsigned WebSocket_Frame::close_status() const
{
    return payload.size() < 2 ? 0U : byte_at(payload, 0) << 8 | byte_at(payload, 1);
}

std::string websocket_frame(unsigned opcode, const std::string& payload,
                            const WebSocket_Frame_Options& options)
{
    const size_t length = payload.size();
    int length_bytes = options.length_bytes;
    if (length_bytes < 0) {
        length_bytes = length <= 125 ? 0 : length <= 0xFFFF ? 2 : 8;
    }
    const unsigned mask_bit = options.masked ? 0x80U : 0U;
    const unsigned short_length = length_bytes == 0   ? static_cast<unsigned>(length)
                                  : length_bytes == 2 ? 126U
                                                      : 127U;
    std::string bytes;
    bytes += static_cast<char>((options.final ? 0x80U : 0U) | (options.reserved & 7U) << 4 |
                               (opcode & 0x0FU));
    bytes += static_cast<char>(mask_bit | short_length);
    append_big_endian(bytes, length, length_bytes);
    if (!options.masked) {
        return bytes + payload;
    }
    for (const unsigned char key : options.key) {
        bytes += static_cast<char>(key);
    }
    for (size_t i = 0; i < length; ++i) {
        bytes += static_cast<char>(byte_at(payload, i) ^ options.key[i % 4]);
    }
    return bytes;
}

std::string websocket_fragment(unsigned opcode, const std::string& payload)
{
    WebSocket_Frame_Options options;
    options.final = false;
    return websocket_frame(opcode, payload, options);
}

std::string close_payload(unsigned status, const std::string& reason)
{
    std::string bytes;
    append_big_endian(bytes, status, 2);
    return bytes + reason;
}

std::vector<std::string> upgrade_fields()
{
    return {"Upgrade: websocket", "Connection: Upgrade", "Sec-WebSocket-Version: 13",
            "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ=="};
}

std::string upgrade_request(const std::string& target, const std::vector<std::string>& fields)
{
    std::vector<std::string> all = upgrade_fields();
    all.insert(all.end(), fields.begin(), fields.end());
    return get_request(target, all);
}

WebSocket_Client::WebSocket_Client(std::unique_ptr<Wire_Client> wire) : wire_(std::move(wire))
{
    if (wire_ != nullptr) {
        // Each send goes out as it is; other sockets than TCP's do so anyway.
        const int on = 1;
        ::setsockopt(wire_->handle(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    }
}

bool WebSocket_Client::open(const std::string& target, const std::vector<std::string>& fields,
                            const std::string& frames)
{
    if (wire_ == nullptr || !wire_->send(upgrade_request(target, fields) + frames)) {
        return false;
    }
    response_ = wire_->read_response();
    return response_.complete && response_.status == 101;
}

WebSocket_Frame WebSocket_Client::read(std::chrono::milliseconds limit) const
{
    WebSocket_Frame frame;
    const std::string head = wire_->read_exactly(2, limit);
    if (head.size() < 2) {
        return frame;
    }
    frame.final = (byte_at(head, 0) & 0x80U) != 0;
    frame.reserved = byte_at(head, 0) >> 4 & 7U;
    frame.opcode = byte_at(head, 0) & 0x0FU;
    frame.masked = (byte_at(head, 1) & 0x80U) != 0;
    std::uint64_t length = byte_at(head, 1) & 0x7FU;
    if (length > 125) {
        const size_t count = length == 126 ? 2 : 8;
        const std::string bytes = wire_->read_exactly(count, limit);
        if (bytes.size() < count) {
            return frame;
        }
        length = 0;
        for (size_t i = 0; i < count; ++i) {
            length = length << 8 | byte_at(bytes, i);
        }
    }
    frame.payload = wire_->read_exactly(length, limit);
    frame.complete = frame.payload.size() == length;
    return frame;
}
