#include "fuzz/engine/bindings.h"

#include "fuzz/engine/failure.h"
#include "fuzz/engine/own_plug_ins.h"
#include "fuzz/engine/watched_plug_ins.h"
#include "httpd/http_authenticator_creator_map.h"
#include "httpd/http_handler_creator_map.h"
#include "httpd/websocket_handler_creator_map.h"
#include "support/http_message.h"

#include <algorithm>
#include <array>
#include <string>
#include <string_view>
#include <vector>

// The factories of the plug-ins, which the target is linked with.
extern "C" {
Object_Creator_T<HTTP_Handler>* _make_Files(void (**gobbler)(void*));
Object_Creator_T<HTTP_Handler>* _make_Echo(void (**gobbler)(void*));
Object_Creator_T<HTTP_Handler>* _make_Probe(void (**gobbler)(void*));
Object_Creator_T<HTTP_Handler>* _make_Empty(void (**gobbler)(void*));
Object_Creator_T<HTTP_Handler>* _make_Response(void (**gobbler)(void*));
Object_Creator_T<HTTP_Authenticator>* _make_Basic_Auth(void (**gobbler)(void*));
Object_Creator_T<HTTP_Authenticator>* _make_Probe_Auth(void (**gobbler)(void*));
Object_Creator_T<WebSocket_Handler>* _make_WS_Echo(void (**gobbler)(void*));
Object_Creator_T<WebSocket_Handler>* _make_WS_Chat(void (**gobbler)(void*));
Object_Creator_T<WebSocket_Handler>* _make_WS_Probe(void (**gobbler)(void*));
Object_Creator_T<WebSocket_Handler>* _make_WS_Empty(void (**gobbler)(void*));
}

namespace {

const std::string FOLDER = HTTPD_FUZZ_ENGINE_FOLDER;

std::string_view last_segment(const HTTP_Request& request)
{
    const std::string_view uri = request.uri(true);
    return uri.substr(uri.rfind('/') + 1);
}

/// The path has this word, from one slash to the next.
bool has_word(const HTTP_Request& request, std::string_view word)
{
    const std::string path = std::string(request.uri(true)) + "/";
    return path.find("/" + std::string(word) + "/") != std::string::npos;
}

template <size_t COUNT>
bool is_one_of(std::string_view text, const std::array<std::string_view, COUNT>& words)
{
    return std::find(words.begin(), words.end(), text) != words.end();
}

bool is_head(const HTTP_Request& request)
{
    return request.method() == HTTP_METHOD_HEAD;
}

Request_Rule any_request(const HTTP_Request&)
{
    return {};
}

Request_Rule judge_echo(const HTTP_Request& request)
{
    constexpr bool ALLOWED = true;
    const bool body = request.chunked_transfer_encoding() || request.content_length() > 0;
    return {ALLOWED, body};
}

/// Modes that answer HEAD with the bytes of a body are for other methods.
Request_Rule judge_probe(const HTTP_Request& request)
{
    static constexpr std::array<std::string_view, 13> SHORT = {
        "hello", "silent",  "silent-204",  "fail",       "teapot", "addresses", "describe",
        "tid",   "collect", "length-only", "bad-header", "count",  "body-fail"};
    static constexpr std::array<std::string_view, 12> ANY = {
        "",      "chunked",     "chunked-vector", "vector", "vector-body", "pieces",
        "twice", "until-close", "half",           "stream", "stream-back", "other"};
    const std::string_view uri = request.uri(true);
    const std::string_view mode = last_segment(request);
    Request_Rule rule;
    rule.may_break_ = mode == "half" || mode == "stream-back";
    rule.allowed_ = uri.find("/thread") == std::string_view::npos &&
                    (is_one_of(mode, SHORT) || (is_one_of(mode, ANY) && !is_head(request))) &&
                    !(mode == "stream-back" && request.chunked_transfer_encoding());
    return rule;
}

Request_Rule judge_response(const HTTP_Request& request)
{
    static constexpr std::array<std::string_view, 14> MODES = {"hello",
                                                               "order",
                                                               "gaps",
                                                               "vector-gaps",
                                                               "after-the-end",
                                                               "stream-five",
                                                               "stream-flush",
                                                               "reason",
                                                               "stream-counted",
                                                               "stream-nothing",
                                                               "error-over-fields",
                                                               "empty-error",
                                                               "dated",
                                                               "stream-after-the-end"};
    Request_Rule rule;
    rule.allowed_ = !is_head(request) && !has_word(request, "thread") &&
                    is_one_of(last_segment(request), MODES);
    return rule;
}

Request_Rule judge_sender(const HTTP_Request& request)
{
    Request_Rule rule;
    rule.allowed_ = !is_head(request);
    return rule;
}

/// Its answer comes when the script says so.
Request_Rule judge_holder(const HTTP_Request&)
{
    Request_Rule rule;
    rule.comparable_ = false;
    return rule;
}

WebSocket_Rule judge_ws_echo(const HTTP_Request&)
{
    return {};
}

/// What one says comes to the others later than to itself.
WebSocket_Rule judge_ws_chat(const HTTP_Request&)
{
    WebSocket_Rule rule;
    rule.comparable_ = false;
    rule.echoes_ = false;
    return rule;
}

WebSocket_Rule judge_ws_probe(const HTTP_Request& request)
{
    static constexpr std::array<std::string_view, 4> WORDS = {"thread", "returns", "hold", "sizes"};
    static constexpr std::array<std::string_view, 3> ECHOES = {"wsp", "greet", "no-protocol"};
    WebSocket_Rule rule;
    rule.allowed_ = std::none_of(WORDS.begin(), WORDS.end(), [&request](std::string_view word) {
        return has_word(request, word);
    });
    const std::string_view uri = request.uri(true);
    rule.comparable_ =
        std::count(uri.begin(), uri.end(), '/') <= 2 && is_one_of(last_segment(request), ECHOES);
    rule.echoes_ = false;
    rule.ends_with_close_ = false;
    return rule;
}

WebSocket_Rule judge_ws_holder(const HTTP_Request&)
{
    WebSocket_Rule rule;
    rule.comparable_ = false;
    rule.echoes_ = false;
    return rule;
}

/// Gives a factory its parameters.
template <typename Plug_In>
Object_Creator_T<Plug_In>* ready(Object_Creator_T<Plug_In>* (*make)(void (**)(void*)),
                                 std::vector<std::string> parameters = {})
{
    void (*gobbler)(void*) = nullptr;
    Object_Creator_T<Plug_In>* const creator = make(&gobbler);
    std::vector<char*> arguments;
    for (std::string& parameter : parameters) {
        arguments.push_back(parameter.data());
    }
    if (creator == nullptr || creator->init(static_cast<int>(arguments.size()),
                                            arguments.empty() ? nullptr : arguments.data()) == -1) {
        fail("a plug-in cannot be set up");
    }
    return creator;
}

template <typename Registry, typename Plug_In>
void bind(const std::string& uri, Object_Creator_T<Plug_In>* creator)
{
    // Never disposed of: the process ends with them.
    if (Registry::instance()->insert(uri, "", creator, [](void*) {}) == -1) {
        fail("a plug-in cannot be bound");
    }
}

void bind_handlers()
{
    using Registry = HTTP_Handler_Creator_Map;
    const std::vector<std::string> files = {"--root=" + FOLDER + "/root", "--thread-size=1g"};
    bind<Registry>("/files", watch(ready(&_make_Files, files), &any_request));
    bind<Registry>("/secret", watch(ready(&_make_Files, files), &any_request));
    bind<Registry>("/echo", watch(ready(&_make_Echo), &judge_echo));
    bind<Registry>("/probe", watch(ready(&_make_Probe, {"one", "two"}), &judge_probe));
    bind<Registry>("/guarded", watch(ready(&_make_Probe), &judge_probe));
    bind<Registry>("/response", watch(ready(&_make_Response), &judge_response));
    bind<Registry>("/send", watch(make_sender(FOLDER + "/root/large.txt"), &judge_sender));
    bind<Registry>("/later", watch(make_holder(), &judge_holder));
    bind<Registry>("/empty", ready(&_make_Empty));
}

void bind_authenticators()
{
    using Registry = HTTP_Authenticator_Creator_Map;
    const std::vector<std::string> users = {"--file=" + FOLDER + "/users", "--realm=fuzz"};
    bind<Registry>("/secret", watch(ready(&_make_Basic_Auth, users)));
    bind<Registry>("/ws/secret", watch(ready(&_make_Basic_Auth, users)));
    bind<Registry>("/guarded", watch(ready(&_make_Probe_Auth)));
}

void bind_websockets()
{
    using Registry = WebSocket_Handler_Creator_Map;
    const std::vector<std::string> chat = {"--max-message=512", "--max-queue=1k"};
    bind<Registry>("/ws", watch(ready(&_make_WS_Echo), &judge_ws_echo));
    bind<Registry>("/chat", watch(ready(&_make_WS_Chat, chat), &judge_ws_chat));
    bind<Registry>("/wsp", watch(ready(&_make_WS_Probe), &judge_ws_probe));
    bind<Registry>("/wslater", watch(make_websocket_holder(), &judge_ws_holder));
    bind<Registry>("/wsempty", ready(&_make_WS_Empty));
}

} // namespace

void bind_plug_ins()
{
    bind_handlers();
    bind_authenticators();
    bind_websockets();
}
