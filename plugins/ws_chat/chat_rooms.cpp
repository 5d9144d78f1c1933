#include "plugins/ws_chat/chat_rooms.h"

#include <algorithm>

void Chat_Room::join(const Member& member)
{
    const std::lock_guard<std::mutex> guard(mutex_);
    members_.push_back(member);
}

bool Chat_Room::leave(const Member& member)
{
    const std::lock_guard<std::mutex> guard(mutex_);
    const auto found = std::find(members_.begin(), members_.end(), member);
    if (found != members_.end()) {
        *found = members_.back();
        members_.pop_back();
    }
    return members_.empty();
}

void Chat_Room::say(const WebSocket_Outbox::Message& message, bool binary)
{
    const std::lock_guard<std::mutex> guard(mutex_);
    for (size_t i = 0; i < members_.size();) {
        if (members_[i]->post(message, binary) || members_[i]->is_open()) {
            ++i; // or there was no memory for this one message
        } else {
            // Its own thread holds it until it has left: it is not destroyed here.
            members_[i] = members_.back();
            members_.pop_back();
        }
    }
}

std::shared_ptr<Chat_Room> Chat_Rooms::join(const std::string& path,
                                            const Chat_Room::Member& member)
{
    const std::lock_guard<std::mutex> guard(mutex_);
    const auto [entry, made] = rooms_.try_emplace(path);
    try {
        if (made) {
            entry->second = std::make_shared<Chat_Room>();
        }
        entry->second->join(member);
    } catch (...) {
        if (made) {
            rooms_.erase(entry);
        }
        throw;
    }
    return entry->second;
}

void Chat_Rooms::leave(const std::string& path, const Chat_Room::Member& member)
{
    const std::lock_guard<std::mutex> guard(mutex_);
    const auto entry = rooms_.find(path);
    if (entry != rooms_.end() && entry->second->leave(member)) {
        rooms_.erase(entry);
    }
}

size_t Chat_Rooms::size()
{
    const std::lock_guard<std::mutex> guard(mutex_);
    return rooms_.size();
}
