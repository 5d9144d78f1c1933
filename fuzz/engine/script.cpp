#include "fuzz/engine/script.h"

#include <algorithm>
#include <array>
#include <cstdio>

namespace {

constexpr std::array<char, 4> MASK_KEY = {'\x37', '\xFA', '\x21', '\x3D'};

/// A client's frame, in the shortest form.
std::string masked_frame(unsigned char first, const std::string& payload)
{
    constexpr size_t MAX_7 = 125;
    constexpr size_t MAX_16 = 0xFFFF;
    constexpr unsigned char MASKED = 0x80;
    std::string frame(1, static_cast<char>(first));
    const size_t length = payload.size();
    int more = 0;
    if (length <= MAX_7) {
        frame += static_cast<char>(MASKED | length);
    } else {
        more = length <= MAX_16 ? 2 : 8;
        frame += static_cast<char>(MASKED | (more == 2 ? MAX_7 + 1 : MAX_7 + 2));
    }
    for (int byte = more - 1; byte >= 0; --byte) {
        frame += static_cast<char>((length >> (8 * byte)) & 0xFF);
    }
    frame.append(MASK_KEY.data(), MASK_KEY.size());
    for (size_t i = 0; i < length; ++i) {
        frame += static_cast<char>(payload[i] ^ MASK_KEY[i % MASK_KEY.size()]);
    }
    return frame;
}

std::string chunk(const std::string& payload)
{
    std::array<char, 20> size{};
    std::snprintf(size.data(), size.size(), "%zx\r\n", payload.size());
    // The one of no bytes ends the body.
    return size.data() + payload + "\r\n";
}

} // namespace

Script::Script(const std::uint8_t* data, size_t size)
{
    const std::uint8_t* const end = data + size;
    if (data != end) {
        setup_ = *data++;
    }
    while (data != end) {
        const unsigned char byte = *data++;
        if (byte != MARK) {
            gathered_ += static_cast<char>(byte);
        } else if (data != end) {
            const unsigned char letter = *data++;
            if (letter == MARK) {
                gathered_ += static_cast<char>(MARK);
            } else {
                this->command(letter, data, end);
            }
        }
    }
    constexpr bool ROUND = true;
    this->end_wrapping();
    this->flush(ROUND);
}

void Script::command(unsigned char letter, const std::uint8_t*& data, const std::uint8_t* end)
{
    constexpr size_t READ_UNIT = 32;
    constexpr size_t CLOCK_UNIT = 500;
    constexpr bool ROUND = true;
    constexpr bool NO_ROUND = false;
    const auto amount = [&data, end]() -> size_t { return data != end ? *data++ : 0; };

    this->end_wrapping();
    switch (letter) {
    case '0':
    case '1':
    case '2':
    case '3':
        this->flush(NO_ROUND);
        connection_ = letter - static_cast<unsigned char>('0');
        break;
    case ',':
        this->flush(ROUND);
        break;
    case '+':
        this->flush(NO_ROUND);
        break;
    case 'w':
        wrapping_ = FRAME;
        frame_byte_ = static_cast<unsigned char>(amount());
        break;
    case 'k':
        wrapping_ = CHUNK;
        break;
    case 'h':
        this->flush(NO_ROUND);
        this->add(Step::HALF_CLOSE);
        break;
    case 'r':
        this->flush(NO_ROUND);
        this->add(Step::RESET);
        break;
    case 's':
        this->flush(NO_ROUND);
        this->add(Step::STOP_READING);
        break;
    case 'g':
        this->flush(NO_ROUND);
        this->add(Step::READ_ON);
        break;
    case 'n':
        this->flush(ROUND);
        this->add(Step::READ_SOME, amount() * READ_UNIT);
        break;
    case 't':
        this->flush(ROUND);
        this->add(Step::CLOCK, amount() * CLOCK_UNIT);
        break;
    case 'u':
        this->flush(ROUND);
        this->add(Step::ANSWER_HELD);
        break;
    case 'l':
        this->flush(ROUND);
        this->add(Step::LET_GO_OF_HELD);
        break;
    default:
        break;
    }
    wrapped_from_ = gathered_.size();
}

void Script::end_wrapping()
{
    const Wrapping wrapping = wrapping_;
    wrapping_ = NOTHING;
    if (wrapping == NOTHING) {
        return;
    }
    const std::string payload = gathered_.substr(wrapped_from_);
    gathered_.resize(wrapped_from_);
    gathered_ += wrapping == FRAME ? masked_frame(frame_byte_, payload) : chunk(payload);
}

void Script::add(Step::Kind kind, size_t amount)
{
    only_sends_ =
        only_sends_ && (kind == Step::SEND || kind == Step::ROUND || kind == Step::HALF_CLOSE);
    steps_.push_back({kind, connection_, amount});
}

void Script::flush(bool round)
{
    std::string bytes;
    bytes.swap(gathered_);
    wrapped_from_ = 0;
    const size_t size = this->piece();
    for (size_t begin = 0; begin < bytes.size(); begin += size) {
        this->add(Step::SEND);
        steps_.back().bytes_ = bytes.substr(begin, size);
        if (size < bytes.size() - begin) {
            this->add(Step::ROUND);
        }
    }
    if (round) {
        this->add(Step::ROUND);
    }
}

size_t Script::buffer_size() const
{
    // The default first. The smallest still holds a browser's shortest request.
    static constexpr std::array<size_t, 4> SIZES = {8192, 2048, 512, 160};
    return SIZES[setup_ & BUFFER];
}

size_t Script::piece() const
{
    static constexpr std::array<size_t, 8> SIZES = {SIZE_MAX, SIZE_MAX, 1, 2, 3, 7, 31, 128};
    return SIZES[(setup_ & PIECES) >> 4];
}

std::string Script::sent_by(unsigned connection) const
{
    std::string bytes;
    for (const Step& step : steps_) {
        if (step.connection_ != connection) {
            continue;
        }
        if (step.kind_ == Step::HALF_CLOSE) {
            break; // nothing is sent behind it
        }
        bytes += step.bytes_;
    }
    return bytes;
}

Script Script::alone(const std::string& bytes, size_t piece) const
{
    Script script(static_cast<unsigned char>(setup_ & ~PIECES));
    for (size_t begin = 0; begin < bytes.size(); begin += piece) {
        script.add(Step::SEND);
        script.steps_.back().bytes_ = bytes.substr(begin, piece);
        script.add(Step::ROUND);
    }
    return script;
}
