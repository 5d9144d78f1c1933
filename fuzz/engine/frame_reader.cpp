#include "fuzz/engine/frame_reader.h"

#include "fuzz/engine/failure.h"

#include <cstdint>

namespace {

enum Opcode : unsigned char {
    CONTINUATION = 0,
    TEXT = 1,
    BINARY = 2,
    CLOSE = 8,
    PING = 9,
    PONG = 10
};

constexpr unsigned char FIN = 0x80;
constexpr unsigned char RESERVED = 0x70;
constexpr unsigned char MASKED = 0x80;
constexpr size_t MAX_7 = 125;
constexpr size_t MAX_16 = 0xFFFF;

struct Frame {
    bool final_ = false;
    unsigned char opcode_ = 0;
    std::string_view payload_;
};

class Frame_Reader {
public:
    Frame_Reader(const Conversation& conversation, std::string_view bytes)
        : conversation_(conversation), all_(bytes), left_(bytes)
    {
    }

    std::string read();

private:
    [[noreturn]] void wrong(const std::string& what) const
    {
        fail(what + ", " + std::to_string(all_.size() - left_.size()) + " bytes behind the 101",
             all_);
    }

    bool take(size_t count, std::string_view& bytes);
    bool take_length(unsigned char second, std::uint64_t& length);
    bool take_frame(Frame& frame);
    void take_control(const Frame& frame);
    void take_data(const Frame& frame);

    const Conversation& conversation_;
    const std::string_view all_;
    std::string_view left_;
    bool message_open_ = false;
    bool closed_ = false;
    bool ponged_ = false; ///< since the last message that the client is known to have sent
    std::string message_;
    std::string text_;
};

std::string Frame_Reader::read()
{
    Frame frame;
    while (!left_.empty()) {
        if (!this->take_frame(frame)) {
            // A pong begins with its ping, which the client need not have ended; an echo too.
            return text_;
        }
        if (frame.opcode_ >= CLOSE) {
            this->take_control(frame);
        } else {
            this->take_data(frame);
        }
    }
    return text_;
}

bool Frame_Reader::take(size_t count, std::string_view& bytes)
{
    if (left_.size() < count) {
        return false;
    }
    bytes = left_.substr(0, count);
    left_.remove_prefix(count);
    return true;
}

bool Frame_Reader::take_length(unsigned char second, std::uint64_t& length)
{
    length = second;
    if (second <= MAX_7) {
        return true;
    }
    const bool short_form = second == MAX_7 + 1;
    std::string_view bytes;
    if (!this->take(short_form ? 2 : 8, bytes)) {
        return false;
    }
    length = 0;
    for (const char byte : bytes) {
        length = (length << 8) | static_cast<unsigned char>(byte);
    }
    if (length <= (short_form ? MAX_7 : MAX_16) || length >> 63 != 0) {
        this->wrong("a length that is not in its shortest form");
    }
    return true;
}

/// @return false when the connection ended within the frame.
bool Frame_Reader::take_frame(Frame& frame)
{
    std::string_view head;
    if (!this->take(2, head)) {
        if (!conversation_.interrupted_) {
            this->wrong("half a frame's head"); // both bytes leave together
        }
        return false;
    }
    const auto first = static_cast<unsigned char>(head[0]);
    const auto second = static_cast<unsigned char>(head[1]);
    frame.final_ = (first & FIN) != 0;
    frame.opcode_ = first & 0x0F;
    if ((first & RESERVED) != 0) {
        this->wrong("a frame with a reserved bit");
    }
    if (frame.opcode_ > PONG || (frame.opcode_ > BINARY && frame.opcode_ < CLOSE)) {
        this->wrong("a frame with a reserved opcode");
    }
    if ((second & MASKED) != 0) {
        this->wrong("a masked frame");
    }
    if (frame.opcode_ >= CLOSE && (!frame.final_ || second > MAX_7)) {
        this->wrong("a control frame in pieces, or too long");
    }
    std::uint64_t length = 0;
    return this->take_length(second, length) && this->take(length, frame.payload_);
}

void Frame_Reader::take_control(const Frame& frame)
{
    if (frame.opcode_ == CLOSE) {
        if (closed_) {
            this->wrong("a second close frame");
        }
        if (frame.payload_.size() == 1) {
            this->wrong("half a close code");
        }
        closed_ = true;
    }
    ponged_ = ponged_ || frame.opcode_ == PONG;
    text_ += std::to_string(frame.opcode_) + ": " + std::string(frame.payload_) + "\n";
}

void Frame_Reader::take_data(const Frame& frame)
{
    if (closed_ && conversation_.websocket_.ends_with_close_) {
        this->wrong("a message behind the close frame"); // RFC 6455, section 5.5.1
    }
    if (frame.opcode_ == CONTINUATION && !message_open_) {
        // This server takes a continuation that comes behind a ping for a part of the ping.
        if (!ponged_) {
            this->wrong("a continuation of no message");
        }
        return;
    }
    if (frame.opcode_ != CONTINUATION) {
        ponged_ = ponged_ && !conversation_.websocket_.echoes_;
        if (message_open_) {
            this->wrong("a message within a message");
        }
        message_ = std::to_string(frame.opcode_) + ": ";
    }
    message_ += frame.payload_;
    message_open_ = !frame.final_;
    if (frame.final_) {
        text_ += message_ + "\n";
    }
}

} // namespace

std::string read_frames(const Conversation& conversation, std::string_view bytes)
{
    return Frame_Reader(conversation, bytes).read();
}
