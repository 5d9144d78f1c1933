#include "plugins/ws_chat/chat_rooms.h"

#include "tests/support/fake_loop_io.h"
#include "tests/support/reactor_probe.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

namespace {

/// A connection with its outbox, in a loop that the test runs.
struct Member {
    explicit Member(Reactor_Loop& loop, size_t limit = 1000) : io(&loop.reactor)
    {
        outbox = WebSocket_Outbox::create(io, limit);
    }
    ~Member() { outbox->close(); }
    Member(const Member&) = delete;
    Member& operator=(const Member&) = delete;

    Fake_Loop_IO io;
    std::shared_ptr<WebSocket_Outbox> outbox;
};

void say(Chat_Room& room, const std::string& text, Reactor_Loop& loop)
{
    room.say(std::make_shared<const std::string>(text), false);
    while (loop.round() > 0) {
    }
}

} // namespace

TEST(Chat_Rooms, a_room_is_there_while_it_has_members)
{
    Reactor_Loop loop;
    Chat_Rooms rooms;
    Member first(loop);
    Member second(loop);
    Member other(loop);
    const auto room = rooms.join("/a", first.outbox);
    EXPECT_EQ(room, rooms.join("/a", second.outbox));
    EXPECT_NE(room, rooms.join("/b", other.outbox));
    EXPECT_EQ(2U, rooms.size());
    rooms.leave("/a", first.outbox);
    rooms.leave("/a", first.outbox);
    EXPECT_EQ(2U, rooms.size());
    rooms.leave("/a", second.outbox);
    EXPECT_EQ(1U, rooms.size());
    rooms.leave("/a", second.outbox); // there is no such room any more
    rooms.leave("/b", other.outbox);
    EXPECT_EQ(0U, rooms.size());
}

TEST(Chat_Rooms, what_is_said_reaches_the_members_of_that_room)
{
    Reactor_Loop loop;
    Chat_Rooms rooms;
    Member first(loop);
    Member second(loop);
    Member other(loop);
    const auto room = rooms.join("/a", first.outbox);
    rooms.join("/a", second.outbox);
    rooms.join("/b", other.outbox);
    say(*room, "hi", loop);
    rooms.leave("/a", second.outbox);
    say(*room, "ho", loop);
    EXPECT_EQ("\x81\x02hi\x81\x02ho", first.io.sent_);
    EXPECT_EQ("\x81\x02hi", second.io.sent_);
    EXPECT_EQ("", other.io.sent_);
}

TEST(Chat_Rooms, a_member_whose_queue_is_full_is_out_of_the_room)
{
    Reactor_Loop loop;
    Chat_Rooms rooms;
    Member narrow(loop, 100);
    Member wide(loop);
    const auto room = rooms.join("/a", narrow.outbox);
    rooms.join("/a", wide.outbox);
    say(*room, std::string(50, 'x'), loop);
    EXPECT_FALSE(narrow.outbox->is_open());
    EXPECT_EQ(1, narrow.outbox.use_count()); // the room has let go of it
    say(*room, "hi", loop);
    EXPECT_EQ(52U + 4, wide.io.sent_.size());
    rooms.leave("/a", narrow.outbox);
    EXPECT_EQ(1U, rooms.size());
    rooms.leave("/a", wide.outbox);
    EXPECT_EQ(0U, rooms.size());
}
