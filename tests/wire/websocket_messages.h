#pragma once

#include "tests/support/websocket_client.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

/// A message as it was put together from its frames.
struct WebSocket_Message {
    bool complete = false; ///< false: it did not come to its end
    unsigned opcode = 0xFF;
    std::string payload;
    size_t frames = 0;
    std::vector<std::string> pongs; ///< payloads of the pongs before its last frame
};

/// The next message. Frames that a server must not send are failures of the test.
inline WebSocket_Message read_message(const WebSocket_Client& client)
{
    WebSocket_Message message;
    for (;;) {
        const WebSocket_Frame frame = client.read();
        if (!frame.complete) {
            return message;
        }
        EXPECT_FALSE(frame.masked);
        EXPECT_EQ(0U, frame.reserved);
        if (frame.opcode == WS_PONG) {
            EXPECT_TRUE(frame.final);
            message.pongs.push_back(frame.payload);
            continue;
        }
        if (message.frames++ == 0) {
            EXPECT_TRUE(frame.opcode == WS_TEXT || frame.opcode == WS_BINARY) << frame.opcode;
            message.opcode = frame.opcode;
        } else {
            EXPECT_EQ(WS_CONTINUATION, frame.opcode);
        }
        if (frame.opcode > WS_BINARY) {
            return message;
        }
        message.payload += frame.payload;
        if (frame.final) {
            message.complete = true;
            return message;
        }
    }
}

inline void expect_message(const WebSocket_Client& client, unsigned opcode,
                           const std::string& payload)
{
    const WebSocket_Message message = read_message(client);
    EXPECT_TRUE(message.complete);
    EXPECT_EQ(opcode, message.opcode);
    EXPECT_EQ(payload.size(), message.payload.size());
    EXPECT_TRUE(payload == message.payload) << "another text than was sent";
}

/// Frames of a message, each of `size` bytes of payload.
inline std::vector<std::string> fragments(unsigned opcode, const std::string& payload, size_t size)
{
    std::vector<std::string> frames;
    for (size_t at = 0; at < payload.size(); at += size) {
        WebSocket_Frame_Options options;
        options.final = at + size >= payload.size();
        options.key[0] = static_cast<unsigned char>(at); // a key of its own for each frame
        frames.push_back(websocket_frame(at == 0 ? opcode : 0U, payload.substr(at, size), options));
    }
    return frames;
}

/// `bytes` in pieces of `size`.
inline std::vector<std::string> pieces(const std::string& bytes, size_t size)
{
    std::vector<std::string> result;
    for (size_t at = 0; at < bytes.size(); at += size) {
        result.push_back(bytes.substr(at, size));
    }
    return result;
}

/**
 * Sends the parts one after the other, and takes of the echo what each of them brings back before
 * it sends the next: a message of any length passes through buffers of any size.
 *
 * @param payloads  how many bytes of the message's payload each part holds
 */
inline WebSocket_Message exchange_in_steps(WebSocket_Client& client,
                                           const std::vector<std::string>& parts,
                                           const std::vector<size_t>& payloads)
{
    WebSocket_Message message;
    size_t sent = 0;
    for (size_t i = 0; i < parts.size(); ++i) {
        if (!client.wire().send(parts[i])) {
            return message;
        }
        sent += payloads[i];
        while (message.payload.size() < sent) {
            const WebSocket_Frame frame = client.read();
            if (!frame.complete || frame.opcode > WS_BINARY) {
                return message;
            }
            message.opcode = message.frames++ == 0 ? frame.opcode : message.opcode;
            message.payload += frame.payload;
            message.complete = frame.final;
        }
    }
    return message;
}

/// Bytes that tell where they stand; as text they are ASCII.
inline std::string numbered_text(size_t length)
{
    std::string text;
    for (size_t i = 0; text.size() < length; ++i) {
        text += std::to_string(i) + " ";
    }
    text.resize(length);
    return text;
}

/// All values of a byte, so that they are no text.
inline std::string numbered_bytes(size_t length)
{
    std::string bytes(length, '\0');
    for (size_t i = 0; i < length; ++i) {
        bytes[i] = static_cast<char>(i * 7 + i / 251);
    }
    return bytes;
}
