// Frames that a WebSocket client sends: in pieces and as a whole they give the frames that a plain
// reading of RFC 6455, section 5, gives, up to the first mistake. And what the server's encoder
// writes, read plainly or masked by a client and parsed, is what was to be sent.

#include "fuzz/common/check.h"
#include "fuzz/common/growing_block.h"
#include "fuzz/common/input.h"
#include "fuzz/common/plain_utf8.h"
#include "support/websocket_data_frame.h"
#include "support/websocket_data_frame_parser.h"

#include <cstring>
#include <string>
#include <vector>

namespace {

struct Frame {
    unsigned opcode_ = 0;
    bool fin_ = false;
    std::uint64_t length_ = 0;
    std::string payload_;
    bool whole_ = false; ///< the last byte has arrived

    bool operator==(const Frame&) const = default;
};

struct Decoded {
    std::vector<Frame> frames_;
    bool malformed_ = false;
};

/// Reads all frames of a text; where `is_client` is false they carry no mask, as a server's do.
class Model {
public:
    Model(std::string_view text, bool is_client) : text_(text), is_client_(is_client) {}

    Decoded decode()
    {
        while (!result_.malformed_ && this->frame()) {
        }
        return result_;
    }

private:
    /// @return false when the text ends within the frame.
    bool frame()
    {
        if (text_.empty()) {
            return false;
        }
        Frame frame;
        const unsigned first = this->byte_at(0);
        frame.fin_ = first >= 0x80;
        frame.opcode_ = first & 0x0FU;
        const bool is_control = frame.opcode_ >= 8;
        const bool is_data = frame.opcode_ == 1 || frame.opcode_ == 2;
        if ((first & 0x70U) != 0 || (is_control && !frame.fin_) || (is_data && message_open_)) {
            return this->malformed();
        }
        if (text_.size() < 2) {
            return false;
        }
        const unsigned second = this->byte_at(1);
        const bool masked = second >= 0x80;
        const unsigned short_length = second & 0x7FU;
        if (masked != is_client_ || (is_control && short_length > 125)) {
            return this->malformed();
        }
        const size_t more = short_length == 127 ? 8 : short_length == 126 ? 2 : 0;
        if (text_.size() < 2 + more) {
            return false;
        }
        frame.length_ = more == 0 ? short_length : this->big_endian(2, more);
        if ((more == 2 && frame.length_ < 126) || (more == 8 && frame.length_ < 0x10000) ||
            frame.length_ >> 63 != 0) {
            return this->malformed();
        }
        const size_t header = 2 + more + (masked ? 4 : 0);
        if (text_.size() < header) {
            return false;
        }
        return this->payload(frame, header);
    }

    bool payload(Frame& frame, size_t header)
    {
        frame.payload_ = text_.substr(header, frame.length_);
        frame.whole_ = frame.payload_.size() == frame.length_;
        for (size_t i = 0; is_client_ && i < frame.payload_.size(); ++i) {
            frame.payload_[i] = static_cast<char>(frame.payload_[i] ^ text_[header - 4 + i % 4]);
        }
        text_.remove_prefix(header + frame.payload_.size());
        this->check_text(frame);
        if (frame.length_ == 0 || !frame.payload_.empty()) { // else nothing is told of it yet
            result_.frames_.push_back(frame);
        }
        return frame.whole_;
    }

    /// A message's text is UTF-8 as far as it has come, and whole at its end.
    void check_text(const Frame& frame)
    {
        if (frame.opcode_ == 1 || frame.opcode_ == 2) {
            message_open_ = true;
            is_text_ = frame.opcode_ == 1;
            message_.clear();
        }
        if (frame.opcode_ > 2 || !message_open_) {
            return;
        }
        const bool is_last = frame.fin_ && frame.whole_;
        message_ += frame.payload_;
        const Plain_UTF8 verdict = is_text_ ? plain_utf8(message_) : Plain_UTF8::COMPLETE;
        if (verdict == Plain_UTF8::MALFORMED || (is_last && verdict != Plain_UTF8::COMPLETE)) {
            this->malformed();
        }
        message_open_ = !is_last;
    }

    bool malformed()
    {
        result_.malformed_ = true;
        return false;
    }

    unsigned byte_at(size_t i) const { return static_cast<unsigned char>(text_[i]); }

    std::uint64_t big_endian(size_t at, size_t count) const
    {
        std::uint64_t number = 0;
        for (size_t i = 0; i < count; ++i) {
            number = number << 8 | this->byte_at(at + i);
        }
        return number;
    }

    std::string_view text_;
    bool is_client_;
    bool message_open_ = false;
    bool is_text_ = false;
    std::string message_;
    Decoded result_;
};

using Parser = WebSocket_Data_Frame_Parser;

void note_payload(const Parser& parser, std::string_view payload, Decoded& result)
{
    if (result.frames_.empty() || result.frames_.back().whole_) {
        result.frames_.emplace_back();
        result.frames_.back().opcode_ = parser.opcode();
        result.frames_.back().fin_ = parser.final();
        result.frames_.back().length_ = parser.payload_length();
    }
    Frame& frame = result.frames_.back();
    frame.payload_ += payload;
    frame.whole_ = parser.remain() == 0;
    FUZZ_CHECK(frame.length_ == frame.payload_.size() + parser.remain(), "bytes are miscounted");
    FUZZ_CHECK(parser.last() == (frame.fin_ && frame.whole_), "last() is wrong");
    FUZZ_CHECK(frame.opcode_ != 1 || !parser.binary(), "text taken for binary");
    FUZZ_CHECK(frame.opcode_ != 2 || parser.binary(), "binary taken for text");
}

/// Feeds the parser as a connection does. `pieces` null: all at once.
Decoded decode(std::string_view text, Pieces* pieces)
{
    Growing_Block input(text);
    Parser parser;
    Decoded result;
    while (input.left() > 0) {
        input.append(pieces != nullptr ? pieces->next(input.left()) : input.left());
        ACE_Message_Block& block = input.block();
        while (block.length() > 0) {
            size_t length = 0;
            const Parser::State state = parser.parse(&block, length);
            if (state == Parser::STATE_ERROR) {
                FUZZ_CHECK(length == 0, "payload with an error");
                FUZZ_CHECK(parser.parse(&block, length) == Parser::STATE_ERROR,
                           "an error that does not last");
                result.malformed_ = true;
                return result;
            }
            if (state != Parser::STATE_PAYLOAD) {
                FUZZ_CHECK(length == 0 && block.length() == 0, "bytes are left in a header");
                break;
            }
            FUZZ_CHECK(length <= block.length(), "more payload than there are bytes");
            note_payload(parser, {block.rd_ptr(), length}, result);
            block.rd_ptr(length);
        }
    }
    return result;
}

/// Of the frame with the mistake a parser may tell as much as it pleases, if it is that much right.
bool same_before_mistake(const Decoded& got, const Decoded& expected)
{
    const size_t most = expected.frames_.size();
    if (got.frames_.size() > most || got.frames_.size() + 1 < most) {
        return false;
    }
    for (size_t i = 0; i < got.frames_.size(); ++i) {
        const Frame& frame = got.frames_[i];
        const Frame& model = expected.frames_[i];
        const bool same = i + 1 < most
                              ? frame == model
                              : frame.opcode_ == model.opcode_ && frame.length_ == model.length_ &&
                                    frame.fin_ == model.fin_ &&
                                    model.payload_.starts_with(frame.payload_);
        if (!same) {
            return false;
        }
    }
    return true;
}

void check_decoding(std::string_view text, std::uint16_t choice)
{
    const Decoded expected = Model(text, true).decode();
    Pieces pieces(choice);
    for (Pieces* const cuts : {static_cast<Pieces*>(nullptr), &pieces}) {
        const Decoded got = decode(text, cuts);
        FUZZ_CHECK(got.malformed_ == expected.malformed_, "another verdict");
        FUZZ_CHECK(expected.malformed_ ? same_before_mistake(got, expected)
                                       : got.frames_ == expected.frames_,
                   "other frames");
    }
}

/// A frame as the server writes it.
std::string encode(WebSocket_Data_Frame& frame, bool fin, unsigned char opcode, bool mask,
                   std::string_view payload, Pieces& pieces)
{
    std::string wire;
    frame.init(fin, opcode, payload.size(), mask);
    FUZZ_CHECK(!frame.done(), "a frame that is done before its header was handed out");
    do {
        const size_t size = payload.empty() ? 0 : pieces.next(payload.size());
        iovec parts[2] = {};
        const int count = frame.to_iovec(parts, 2, payload.data(), size);
        FUZZ_CHECK(count >= 0, "the encoder refuses what was declared");
        for (int i = 0; i < count; ++i) {
            wire.append(static_cast<const char*>(parts[i].iov_base), parts[i].iov_len);
        }
        payload.remove_prefix(size);
        FUZZ_CHECK(frame.done() == payload.empty(), "done() is wrong");
    } while (!payload.empty());
    iovec none[2] = {};
    FUZZ_CHECK(frame.to_iovec(none, 2, "x", 1) == -1, "more payload than was declared is taken");
    return wire;
}

/// Puts a client's mask where the encoder left one of zero.
void mask_with(std::string& wire, size_t begin, size_t payload, std::uint32_t key)
{
    const size_t header = wire.size() - begin - payload;
    char bytes[4];
    std::memcpy(bytes, &key, sizeof bytes);
    char* const mask = wire.data() + begin + header - sizeof bytes;
    for (size_t i = 0; i < sizeof bytes; ++i) {
        FUZZ_CHECK(mask[i] == 0, "the encoder's mask is not zero");
        mask[i] = bytes[i];
    }
    for (size_t i = 0; i < payload; ++i) {
        char& byte = wire[begin + header + i];
        byte = static_cast<char>(byte ^ bytes[i % sizeof bytes]);
    }
}

/// The header says of how many bytes it is, however many they are; they need not be sent for that.
void check_length(std::uint64_t length, bool mask)
{
    WebSocket_Data_Frame frame;
    frame.init(true, 2, length, mask);
    iovec parts[2] = {};
    FUZZ_CHECK(frame.to_iovec(parts, 2, nullptr, 0) == 1, "no header is handed out");
    FUZZ_CHECK(frame.done() == (length == 0), "done() is wrong behind the header");
    std::string wire(static_cast<const char*>(parts[0].iov_base), parts[0].iov_len);
    wire += length == 0 ? "" : "x";
    const Decoded got = Model(wire, mask).decode();
    FUZZ_CHECK(!got.malformed_ && got.frames_.size() == 1, "the header is not one");
    FUZZ_CHECK(got.frames_[0].length_ == length, "the header has another length");
}

/// Messages of the input's bytes go out in frames.
void check_round_trip(Fuzz_Input& input, std::uint16_t choice)
{
    check_length(input.number() >> (1 + choice % 63), (choice & 0x2000U) != 0);
    const std::uint32_t key = input.word() * 0x10001U ^ choice;
    Pieces pieces(choice);
    WebSocket_Data_Frame server_frame;
    WebSocket_Data_Frame client_frame;
    std::string from_server;
    std::string from_client;
    std::vector<Frame> sent;
    bool open = false;
    while (!input.empty()) {
        const std::uint8_t kind = input.byte();
        const bool fin = (kind & 1U) != 0;
        std::string payload(input.until('\n'));
        if ((kind & 0x80U) != 0) { // too long for the short form of the length
            payload.resize(126 + (kind & 0x3FU), 'x');
        }
        const bool is_ping = (kind & 6U) == 0 && payload.size() <= 125;
        const auto opcode = static_cast<unsigned char>(is_ping ? 9 : 2);
        const size_t begin = from_client.size();
        from_server += encode(server_frame, is_ping || fin, opcode, false, payload, pieces);
        from_client += encode(client_frame, is_ping || fin, opcode, true, payload, pieces);
        mask_with(from_client, begin, payload.size(), key);
        sent.push_back({is_ping ? 9U
                        : open  ? 0U
                                : 2U,
                        is_ping || fin, payload.size(), payload, true});
        open = is_ping ? open : !fin;
        FUZZ_CHECK(server_frame.message_open() == open, "message_open() is wrong");
        if (sent.size() == 8) {
            break;
        }
    }
    FUZZ_CHECK(Model(from_server, false).decode().frames_ == sent, "other frames are sent");
    const Decoded got = decode(from_client, &pieces);
    FUZZ_CHECK(!got.malformed_ && got.frames_ == sent, "frames change on the way round");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    Fuzz_Input input(data, size);
    const std::uint16_t choice = input.word();
    if (choice >> 14 == 3) {
        check_round_trip(input, choice);
    } else {
        check_decoding(input.rest(), choice);
    }
    return 0;
}
