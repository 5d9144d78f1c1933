// The smallest plug-in: answers every request below its URI with one line of text.

#include "httpd/http_io.h"
#include "httpd/simple_creator_t.h"
#include "httpd/whole_body_handler.h"

#include <string>
#include <string_view>

namespace {

class Hello : public Whole_Body_Handler {
public:
    static constexpr size_t MAX_BODY =
        64 * 1024; // bytes; a larger request body is refused with 413

    Hello() : Whole_Body_Handler(MAX_BODY) {}

    /// The first word of "params" in the configuration record is the name to greet.
    int init(int argc, char** argv) override
    {
        name_ = argc > 0 ? argv[0] : "World";
        return 0;
    }

private:
    int handle_whole_body(HTTP_IO& io, std::string_view) override
    {
        const std::string text = "Hello, " + name_ + "!\n";
        io.response().content_type("text/plain");
        io.response().content_length(text.size());
        constexpr bool LAST = true;
        return io.send(text.data(), text.size(), LAST);
    }

    std::string name_;
};

} // namespace

HTTPD_PLUGIN_FACTORY(_make_Hello, Simple_Creator_T<HTTP_Handler, Hello>)
