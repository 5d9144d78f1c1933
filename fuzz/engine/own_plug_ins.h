#pragma once

#include "httpd/http_handler.h"
#include "httpd/object_creator_t.h"
#include "httpd/websocket_handler.h"

#include <string>

/// Sends files and bodies larger than the sockets hold, by the last segment of the path; the file
/// is `path`.
Object_Creator_T<HTTP_Handler>* make_sender(const std::string& path);

/// Suspends reading at the end of a request and leaves the answer to answer_held().
Object_Creator_T<HTTP_Handler>* make_holder();

/// Suspends reading at the end of each message, and leaves the echo to answer_held().
Object_Creator_T<WebSocket_Handler>* make_websocket_holder();

/// Answers the request, or the message, that is held for the longest time, the way a thread of the
/// plug-in's would: from outside of the connection's calls. @return false when there is none.
bool answer_held();

/// Lets the connection go on without one: the server answers in its place.
bool let_go_of_held();
