#pragma once

#include "httpd/websocket_handler.h"
#include "plugins/ws_chat/chat_options.h"
#include "plugins/ws_chat/chat_rooms.h"

#include <memory>
#include <string>

class WebSocket_IO;

/// One connection in a chat room: says what its client sends, and is told what anybody says.
class Chat_Member : public WebSocket_Handler {
public:
    /// Both are the factory's, and outlive the member.
    Chat_Member(const Chat_Options& options, Chat_Rooms& rooms);
    ~Chat_Member() override;

    int handle_handshaking(WebSocket_IO& io) override;
    int handle_data_framing(const void* data, size_t length, bool last, bool binary) override;
    int handle_ping() override;
    int handle_close(WebSocket_Data_Frame::Close_Status status, const char* reason,
                     size_t length) override;

private:
    void leave();

    const Chat_Options& options_;
    Chat_Rooms& rooms_;
    WebSocket_IO* io_ = nullptr;
    std::shared_ptr<WebSocket_Outbox> outbox_;
    std::string path_;                     ///< the room's
    std::shared_ptr<Chat_Room> room_;      ///< null when it has not joined, or has left
    std::shared_ptr<std::string> message_; ///< the part of it that has arrived; null before
};
