#pragma once

#include "fuzz/engine/conversation.h"
#include "httpd/http_authenticator.h"
#include "httpd/http_handler.h"
#include "httpd/object_creator_t.h"
#include "httpd/websocket_handler.h"

#include <cstddef>

class HTTP_IO;
class HTTP_Request;

/// What is to be known of a request before its plug-in gets it.
struct Request_Rule {
    bool allowed_ = true;    ///< else it is refused: the plug-in would sleep, start a thread, or
                             ///< break the rules that the answers are checked by
    bool may_break_ = false; ///< see Taken_Request
    bool comparable_ = true; ///< see Conversation
};

struct WebSocket_Rule {
    bool allowed_ = true;
    bool comparable_ = true;
    bool echoes_ = true; ///< see Taken_WebSocket
    bool ends_with_close_ = true;
};

using Request_Judge = Request_Rule (*)(const HTTP_Request& request);
using WebSocket_Judge = WebSocket_Rule (*)(const HTTP_Request& request);

/**
 * Factories whose plug-ins are those of another one, watched: what they are given is noted in the
 * connection's Conversation, and they stay in the loop's thread whatever they ask for. They take
 * over the factory, and live to the end of the process.
 */
Object_Creator_T<HTTP_Handler>* watch(Object_Creator_T<HTTP_Handler>* creator, Request_Judge judge);
Object_Creator_T<WebSocket_Handler>* watch(Object_Creator_T<WebSocket_Handler>* creator,
                                           WebSocket_Judge judge);

/// Lets no other status than 200, or that of a refusal, out of the plug-in.
Object_Creator_T<HTTP_Authenticator>* watch(Object_Creator_T<HTTP_Authenticator>* creator);

/// Plug-in objects that are alive.
size_t live_plug_ins();

/// The conversation of a connection; the run sets which are there: an array, by port number.
Conversation& conversation_of(const HTTP_IO& io);
void set_conversations(Conversation* conversations, size_t count);

/// The port number of the first connection's client.
constexpr unsigned short FIRST_PORT = 40'000;
