#pragma once

#include "tests/support/wire_client.h"

#include <chrono>
#include <memory>
#include <string>
#include <vector>

/// Opcodes (RFC 6455, section 5.2).
enum WebSocket_Opcode : unsigned char {
    WS_CONTINUATION = 0,
    WS_TEXT = 1,
    WS_BINARY = 2,
    WS_CLOSE = 8,
    WS_PING = 9,
    WS_PONG = 10
};

/// A frame as the server sent it.
struct WebSocket_Frame {
    bool complete = false; ///< false: the connection ended, or time ran out, before its end
    bool final = false;
    bool masked = false;
    unsigned reserved = 0; ///< the three reserved bits
    unsigned opcode = 0xFF;
    std::string payload;

    /// A close frame's code, 0 when it has none.
    unsigned close_status() const;
};

/// How a client's frame is made; the defaults give a proper one.
struct WebSocket_Frame_Options {
    bool final = true;
    bool masked = true;
    unsigned char reserved = 0;
    unsigned char key[4] = {0x37, 0xFA, 0x21, 0x3D};
    int length_bytes = -1; ///< of a long length: 0, 2 or 8; -1 is the shortest form
};

/// The bytes of a client's frame.
std::string websocket_frame(unsigned opcode, const std::string& payload,
                            const WebSocket_Frame_Options& options = {});

/// A frame that does not end its message.
std::string websocket_fragment(unsigned opcode, const std::string& payload);

/// A close frame's payload: the code and the reason.
std::string close_payload(unsigned status, const std::string& reason = "");

/// The fields of a proper upgrade request, with the key that RFC 6455 has as its example.
std::vector<std::string> upgrade_fields();

/// A proper upgrade request with `fields` added.
std::string upgrade_request(const std::string& target, const std::vector<std::string>& fields = {});

/// The client's end of a WebSocket connection over any kind of stream.
class WebSocket_Client {
public:
    explicit WebSocket_Client(std::unique_ptr<Wire_Client> wire);

    /**
     * Sends an upgrade request, with `frames` right behind it.
     * @return true when a complete 101 came back.
     */
    bool open(const std::string& target, const std::vector<std::string>& fields = {},
              const std::string& frames = "");

    const Wire_Response& response() const { return response_; }
    Wire_Client& wire() { return *wire_; }

    bool send(unsigned opcode, const std::string& payload) const
    {
        return wire_->send(websocket_frame(opcode, payload));
    }

    /// The next frame, whatever its kind.
    WebSocket_Frame read(std::chrono::milliseconds limit = std::chrono::seconds(20)) const;

private:
    std::unique_ptr<Wire_Client> wire_;
    Wire_Response response_;
};
