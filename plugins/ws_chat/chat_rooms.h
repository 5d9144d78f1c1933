#pragma once

#include "httpd/websocket_outbox.h"

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

/**
 * Who is told what is said in one room. Any thread.
 *
 * A message goes to all members under one lock, which gives everyone the same order; posting only
 * queues, so the lock is never held for a slow member.
 */
class Chat_Room {
public:
    using Member = std::shared_ptr<WebSocket_Outbox>;

    /// Throws std::bad_alloc.
    void join(const Member& member);

    /// Harmless when it has left before. @return true when no member is left.
    bool leave(const Member& member);

    /// Posts to all members; one that takes nothing any more leaves.
    void say(const WebSocket_Outbox::Message& message, bool binary);

private:
    std::mutex mutex_;
    std::vector<Member> members_;
};

/// The rooms of one configuration record, by the path of their URI. A room is there while it has
/// members. Any thread.
class Chat_Rooms {
public:
    /// Joins the room of that path. Throws std::bad_alloc.
    std::shared_ptr<Chat_Room> join(const std::string& path, const Chat_Room::Member& member);

    void leave(const std::string& path, const Chat_Room::Member& member);

    size_t size();

private:
    std::mutex mutex_; ///< taken before a room's
    std::map<std::string, std::shared_ptr<Chat_Room>> rooms_;
};
