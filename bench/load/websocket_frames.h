#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

/// A masked binary frame, as a client sends it (RFC 6455, section 5.2). The key is always the same.
std::string masked_frame(const std::string& payload);

/**
 * Follows the frames that a server sends, in whatever pieces they come, as far as a client must
 * that knows what is echoed: where messages end and how long they are.
 */
class Echo_Reader {
public:
    /// What is echoed; it must outlive the reader. The first echo is compared with it.
    explicit Echo_Reader(const std::string* payload) : payload_(payload) {}

    /**
     * Takes the next bytes.
     *
     * @return how many messages have ended within them; -1 where they are not echoes: a masked
     *         frame, one of another type, a wrong length, and in the first message a wrong byte.
     *         Pings and pongs are passed over.
     */
    int take(const char* data, size_t size);

private:
    static constexpr size_t MAX_HEADER = 10; // of a frame that is not masked

    size_t header_size() const;
    bool begin_frame();
    bool take_payload(const char* data, size_t size);
    bool is_control() const { return (header_[0] & 0x08U) != 0; }
    bool is_last() const { return (header_[0] & 0x80U) != 0; }

    const std::string* payload_;
    bool compared_ = false;
    bool in_message_ = false;
    unsigned char header_[MAX_HEADER] = {};
    size_t header_have_ = 0;
    std::uint64_t frame_missing_ = 0; ///< payload bytes of the frame
    std::uint64_t message_have_ = 0;  ///< payload bytes of the message
};
