#include "httpd/simple_creator_t.h"
#include "plugins/ws_chat/chat_member.h"

#include <new>

namespace {

class WS_Chat_Creator : public Simple_Creator_T<WebSocket_Handler, Chat_Member> {
public:
    int init(int argc, char** argv) override
    {
        try {
            return options_.parse(argc, argv);
        } catch (const std::bad_alloc&) {
            errno = ENOMEM;
            return -1;
        }
    }

protected:
    Chat_Member* construct(void* memory) override
    {
        return new (memory) Chat_Member(options_, rooms_);
    }

private:
    Chat_Options options_;
    Chat_Rooms rooms_;
};

} // namespace

/// Makes the factory of a record whose URIs are chat rooms.
HTTPD_PLUGIN_FACTORY(_make_WS_Chat, WS_Chat_Creator)
