#pragma once

#include <cstddef>
#include <string>
#include <vector>

/// A request as a plug-in was given it: what the reader of the answers cannot know otherwise.
struct Taken_Request {
    bool head_;      ///< its answer has no body
    bool may_break_; ///< the answer may end in its middle, since the request's body may
};

/// The plug-in of a WebSocket connection.
struct Taken_WebSocket {
    bool taken_ = false;
    bool echoes_ = false; ///< answers each message, and each part of one, with one of its own
    bool ends_with_close_ = false; ///< sends no message behind its close frame
};

/// One connection of a run: what both ends have said, and what the plug-ins saw of it.
struct Conversation {
    std::string sent_;     ///< by the client
    std::string received_; ///< by the client
    std::vector<Taken_Request> requests_;
    Taken_WebSocket websocket_;
    bool interrupted_ = false; ///< by a reset, a silent reader, a timer: an answer may be cut
    bool comparable_ = true;   ///< the answers do not depend on how the bytes were cut
};
