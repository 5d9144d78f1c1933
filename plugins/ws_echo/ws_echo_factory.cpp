#include "httpd/simple_creator_t.h"
#include "plugins/ws_echo/ws_echo_handler.h"
#include "plugins/ws_echo/ws_echo_options.h"
#include "support/log.h"

#include <new>

namespace {

class WS_Echo_Creator : public Simple_Creator_T<WebSocket_Handler, WS_Echo_Handler> {
public:
    int init(int argc, char** argv) override
    {
        try {
            return options_.parse(argc, argv);
        } catch (const std::bad_alloc&) {
            errno = ENOMEM;
            HTTPD_ERROR("ws_echo: %m");
            return -1;
        }
    }

protected:
    WS_Echo_Handler* construct(void* memory) override
    {
        return new (memory) WS_Echo_Handler(options_);
    }

private:
    WS_Echo_Options options_;
};

} // namespace

/// Makes the factory of a record that echoes WebSocket messages.
HTTPD_PLUGIN_FACTORY(_make_WS_Echo, WS_Echo_Creator)
