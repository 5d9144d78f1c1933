#include "plugins/basic_auth/basic_auth.h"

#include "plugins/plugin_options.h"
#include "support/http_message.h"

#include <new>

namespace {

constexpr int ADMITTED = 200;
constexpr int REFUSED = 401;

} // namespace

int Basic_Auth::authenticate(const HTTP_IO&, HTTP_Request& request, HTTP_Response& response) const
{
    const char* const authorization = request.headers().get(HTTP_HEAD_AUTHORIZATION);
    Credentials credentials;
    if (authorization != nullptr && credentials.parse(authorization) &&
        context_.file_.table()->verify(credentials)) {
        return ADMITTED;
    }
    response.headers().put(HTTP_HEAD_WWW_AUTHENTICATE, context_.challenge_.c_str());
    return REFUSED;
}

int Basic_Auth_Creator::init(int argc, char** argv)
{
    try {
        return init_i(argc, argv);
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
        HTTPD_ERROR("basic_auth: %m");
        return -1;
    }
}

int Basic_Auth_Creator::init_i(int argc, char** argv)
{
    std::string file;
    std::string realm;
    const Plugin_Option options[] = {{"--file", &file}, {"--realm", &realm}};
    if (read_plugin_options("basic_auth", argc, argv, options) == -1) {
        return -1;
    }
    for (const Plugin_Option& option : options) {
        if (option.value_->empty()) {
            errno = EINVAL;
            HTTPD_ERROR("basic_auth: parameter '%C' is required", option.name_);
            return -1;
        }
    }
    context_.challenge_ = basic_challenge(realm);
    if (context_.challenge_.empty()) {
        errno = EINVAL;
        HTTPD_ERROR("basic_auth: parameter '--realm' holds a control character");
        return -1;
    }
    return context_.file_.open(file);
}

Basic_Auth* Basic_Auth_Creator::construct(void* memory)
{
    return new (memory) Basic_Auth(context_);
}

std::string basic_challenge(const std::string& realm)
{
    std::string challenge = "Basic realm=\"";
    for (const char c : realm) {
        const unsigned char byte = static_cast<unsigned char>(c);
        if (byte < 0x20 || byte == 0x7F) {
            return {};
        }
        if (c == '"' || c == '\\') { // quoted-pair (RFC 9110, section 5.6.4)
            challenge += '\\';
        }
        challenge += c;
    }
    return challenge + "\", charset=\"UTF-8\"";
}
