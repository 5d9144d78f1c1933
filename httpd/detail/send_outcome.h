#pragma once

#include "support/http_sock_state.h"

/// The facts of one write of a response that decide what comes next.
struct Send_Facts {
    bool headers;  ///< this write carried the header
    bool piece;    ///< it carried bytes of the body
    bool head;     ///< it answers HEAD, whose body is never sent
    bool chunked;  ///< the response is chunked
    bool keep;     ///< the connection is kept after this response
    bool complete; ///< the declared length has been sent (counted responses on a kept connection)
    bool last;     ///< the plug-in says that the body ends
};

struct Send_Outcome {
    HTTP_SOCK_State state; ///< of the response
    int result;            ///< of the send call: -1 asks for the close of the connection
};

/**
 * The next state of a response and the result of the send call.
 *
 * A counted response on a kept connection ends with its declared length and with nothing else: the
 * client counts bytes, not calls. Every other body ends when the plug-in says so.
 */
constexpr Send_Outcome send_outcome(const Send_Facts& facts)
{
    const bool counted = facts.keep && !facts.chunked;
    const bool ended = facts.head || (counted ? facts.complete : facts.last);
    if (ended) {
        return {HTTP_SOCK_STATE_CONTENT_SENT, facts.keep ? 0 : -1};
    }
    return {facts.headers && !facts.piece ? HTTP_SOCK_STATE_HEADER_SENT
                                          : HTTP_SOCK_STATE_CONTENT_SENDING,
            0};
}
