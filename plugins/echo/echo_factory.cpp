#include "httpd/simple_creator_t.h"
#include "plugins/echo/echo_handler.h"
#include "plugins/plugin_options.h"

namespace {

/// It has no parameters: any is refused.
class Echo_Creator : public Simple_Creator_T<HTTP_Handler, Echo_Handler> {
public:
    int init(int argc, char** argv) override { return read_plugin_options("echo", argc, argv, {}); }
};

} // namespace

extern "C" {

/// Makes the factory of a record that echoes requests.
HTTPD_EXPORT Object_Creator_T<HTTP_Handler>* _make_Echo(void (**disposer)(void*))
{
    *disposer = [](void* creator) { delete static_cast<Object_Creator_T<HTTP_Handler>*>(creator); };
    return new (std::nothrow) Echo_Creator;
}
}
