#pragma once

#include "support/export.h"

#include <sys/uio.h>

#include <cstddef>
#include <cstdint>

/**
 * The outgoing frame of a WebSocket connection (RFC 6455, section 5.2): writes its header and
 * counts how much of its payload has been handed out. One object serves all frames of a connection,
 * one after the other; used by one thread at a time.
 */
class HTTPD_SUPPORT_EXPORT WebSocket_Data_Frame {
public:
    /// Close codes (RFC 6455, section 7.4.1, and its registry). A peer may send any other number.
    enum Close_Status : int {
        CLOSE_NORMAL = 1000,
        CLOSE_GOING_AWAY = 1001,
        CLOSE_PROTOCOL_ERROR = 1002,
        CLOSE_UNSUPPORTED_DATA = 1003,
        CLOSE_NO_STATUS = 1005,
        CLOSE_ABNORMAL = 1006,
        CLOSE_INVALID_PAYLOAD = 1007,
        CLOSE_POLICY_VIOLATION = 1008,
        CLOSE_MESSAGE_TOO_BIG = 1009,
        CLOSE_EXTENSION_REQUIRED = 1010,
        CLOSE_INTERNAL_ENDPOINT_ERROR = 1011,
        CLOSE_SERVICE_RESTART = 1012,
        CLOSE_TRY_AGAIN_LATER = 1013,
        CLOSE_TLS_HANDSHAKE = 1015
    };

    /// A new frame counts as done.
    WebSocket_Data_Frame() = default;

    /**
     * Starts the next frame.
     * @param opcode          1 and 2 go out as 0 (continuation) while the last data frame was not
     *                        final; 0 goes out as it is, and ends the message when it is final
     * @param payload_length  bytes that to_iovec() will be given in all
     * @param mask            true writes a masking key of zero; a server passes false (RFC 6455,
     *                        section 5.1)
     */
    void init(bool fin, unsigned char opcode, unsigned long payload_length, bool mask)
    {
        constexpr unsigned char CONTINUATION = 0;
        constexpr unsigned char TEXT = 1;
        constexpr unsigned char BINARY = 2;
        constexpr unsigned char FIN_BIT = 0x80;
        message_was_open_ = message_open_;
        if (opcode == TEXT || opcode == BINARY) {
            const bool continues = message_open_;
            message_open_ = !fin;
            opcode = continues ? CONTINUATION : opcode;
        } else if (opcode == CONTINUATION && fin) {
            // Whoever asks for a continuation by name (a pong that took it along) ends the message
            // with it: to the peer, one more continuation would belong to no message.
            message_open_ = false;
        }
        remain_ = payload_length;
        header_[0] = static_cast<unsigned char>((fin ? FIN_BIT : 0U) | (opcode & 0x0FU));
        if (payload_length <= MAX_LENGTH_7 && !mask) { // most of a server's frames
            header_[1] = static_cast<unsigned char>(payload_length);
            header_length_ = 2;
        } else {
            this->put_length(payload_length, mask);
        }
    }

    /**
     * Fills at most `room` entries: the header, once per frame, and the piece of payload. An empty
     * piece gives no entry.
     * @return the number of entries filled (the header's lives until the next init), or -1
     *         (EINVAL, nothing handed out) when there is no room, when it is more payload than the
     *         frame declared, or when `data` is null and `length` is not 0.
     */
    int to_iovec(iovec* out, int room, const void* data, size_t length);

    /// Takes back the frame that init() started, when none of it was written.
    void withdraw();

    /// True when the header and the whole payload have been handed out.
    bool done() const { return header_length_ == 0 && remain_ == 0; }

    /// The last data frame was not final: the next one continues its message.
    bool message_open() const { return message_open_; }

private:
    enum : size_t { MAX_HEADER = 14 };
    static constexpr unsigned long MAX_LENGTH_7 = 125;

    /// The header's second byte and what follows it.
    void put_length(unsigned long payload_length, bool mask);

    std::uint64_t remain_ = 0;        ///< payload bytes still to be handed out
    unsigned char header_length_ = 0; ///< 0: the header has been handed out
    bool message_open_ = false;       ///< the last data frame was not final
    bool message_was_open_ = false;   ///< before the present frame
    unsigned char header_[MAX_HEADER] = {};
};
