#include "plugins/ws_chat/chat_member.h"

#include "httpd/websocket_io.h"
#include "support/log.h"

#include <cerrno>
#include <new>

Chat_Member::Chat_Member(const Chat_Options& options, Chat_Rooms& rooms)
    : options_(options), rooms_(rooms)
{
}

Chat_Member::~Chat_Member()
{
    this->leave();
}

/**
 * Joins before the 101 is sent: a client that has read it misses nothing that is said from then on.
 * What is said meanwhile waits in the outbox, which sends when the loop comes back to it.
 */
int Chat_Member::handle_handshaking(WebSocket_IO& io)
{
    io_ = &io;
    try {
        outbox_ = WebSocket_Outbox::create(io, options_.max_queue_);
        if (outbox_ != nullptr) {
            path_ = io.request().uri(true);
            room_ = rooms_.join(path_, outbox_);
            return 0;
        }
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
    }
    if (errno == ENOTSUP) {
        HTTPD_WARNING("ws_chat: %C is refused: its connection was moved to a worker thread by an "
                      "earlier request, a new connection is needed",
                      io.get_remote_addr(true).c_str());
    } else {
        HTTPD_ERROR("ws_chat: %C is refused, errno=%d, %m", io.get_remote_addr(true).c_str(),
                    errno);
    }
    return -1;
}

int Chat_Member::handle_data_framing(const void* data, size_t length, bool last, bool binary)
{
    if (!outbox_->is_open()) {
        return 0; // dropped: what it still says is not heard
    }
    const size_t before = message_ != nullptr ? message_->size() : 0;
    if (length > options_.max_message_ - before) {
        io_->send_close_frame(WebSocket_Data_Frame::CLOSE_MESSAGE_TOO_BIG);
        return -1;
    }
    try {
        const char* const bytes = static_cast<const char*>(data);
        if (message_ == nullptr) {
            message_ = std::make_shared<std::string>(bytes, length);
        } else {
            message_->append(bytes, length);
        }
    } catch (const std::bad_alloc&) {
        io_->send_close_frame(WebSocket_Data_Frame::CLOSE_INTERNAL_ENDPOINT_ERROR);
        return -1;
    }
    if (last) {
        room_->say(std::move(message_), binary);
        message_.reset();
    }
    return 0;
}

/**
 * The library takes what follows a ping inside of a fragmented message for a part of the ping, so
 * the message can not be had whole any more, and the next one would be taken for its end.
 */
int Chat_Member::handle_ping()
{
    if (message_ == nullptr) {
        return 0;
    }
    io_->send_close_frame(WebSocket_Data_Frame::CLOSE_INTERNAL_ENDPOINT_ERROR);
    return -1;
}

int Chat_Member::handle_close(WebSocket_Data_Frame::Close_Status, const char*, size_t)
{
    this->leave();
    return 0;
}

/// A connection may be destroyed without handle_close, or after it.
void Chat_Member::leave()
{
    if (room_ != nullptr) {
        rooms_.leave(path_, outbox_);
        room_.reset();
    }
    if (outbox_ != nullptr) {
        outbox_->close();
    }
}
