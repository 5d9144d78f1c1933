#include "plugins/ws_chat/chat_options.h"

#include "httpd/utils.h"
#include "httpd/websocket_outbox.h"
#include "plugins/plugin_options.h"

#include <cerrno>
#include <string>

namespace {

/// Far above any use, and the sum of a few of them still fits.
constexpr size_t MAX_SIZE = size_t{1} << 40;

/// Reads a size of at least 1; an empty text leaves `size` alone.
int read_size(const char* name, const std::string& text, size_t& size)
{
    if (text.empty()) {
        return 0;
    }
    const char* const end = text.c_str() + text.size();
    const char* stop = nullptr;
    errno = 0;
    const size_t value = parse_size<size_t>(text.c_str(), end, &stop);
    if (stop != end) {
        HTTPD_ERROR("ws_chat: '%C' of parameter '%C' is not a size such as 64k or 1m", text.c_str(),
                    name);
    } else if (value == 0 || value > MAX_SIZE) {
        HTTPD_ERROR("ws_chat: '%C' of parameter '%C' is out of range: 1 to 1t", text.c_str(), name);
    } else {
        size = value;
        return 0;
    }
    errno = EINVAL;
    return -1;
}

} // namespace

int Chat_Options::parse(int argc, char** argv)
{
    std::string max_message;
    std::string max_queue;
    const Plugin_Option options[] = {
        {"--max-message", &max_message},
        {"--max-queue", &max_queue},
    };
    if (read_plugin_options("ws_chat", argc, argv, options) == -1 ||
        read_size("--max-message", max_message, max_message_) == -1 ||
        read_size("--max-queue", max_queue, max_queue_) == -1) {
        return -1;
    }
    if (max_queue_ < max_message_ + WebSocket_Outbox::MESSAGE_COST) {
        HTTPD_ERROR("ws_chat: parameter '--max-queue' (%B) has no room for one message: at least "
                    "'--max-message' (%B) and %B more",
                    max_queue_, max_message_, WebSocket_Outbox::MESSAGE_COST);
        errno = EINVAL;
        return -1;
    }
    return 0;
}
