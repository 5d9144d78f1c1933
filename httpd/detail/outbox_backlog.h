#pragma once

#include "httpd/websocket_outbox.h"

#include <sys/types.h>
#include <sys/uio.h>

#include <cstddef>
#include <string>
#include <vector>

class Loop_IO;

/**
 * The frames that an outbox's event loop has in hand: posted messages, of which a batch at a time
 * is begun, and bytes of other frames that found no room. What was begun is offered to the stream
 * until it is taken, in one order: the batch, then those bytes. A stream may hold a part of it
 * already (see Loop_IO::sendv_now()), so nothing is ever taken back from it or put in between.
 *
 * Used by the thread of the loop alone.
 */
class HTTPD_EXPORT Outbox_Backlog {
public:
    struct Posted {
        WebSocket_Outbox::Message message_;
        bool binary_;
    };

    enum Result {
        FAILED = -1, ///< errno tells
        SENT,        ///< nothing that was begun is left
        FULL         ///< there is no room for the rest
    };

    /// Takes the posted messages and gives back an empty vector. Only when no message is left.
    void take(std::vector<Posted>& posted);

    /// Begins the next batch. @return false when no message is left.
    bool begin_batch();

    /// Something was begun and is not taken as a whole yet.
    bool begun() const { return next_ < begun_ || !bytes_.empty(); }

    /// Sends what was begun.
    Result finish(Loop_IO& io);

    /// Puts the vector, from byte `from` on, behind what was begun.
    /// @return false with ENOBUFS (more than `limit` bytes would wait) or ENOMEM.
    bool append(const iovec* iov, int count, size_t from, size_t limit);

    /// Drops the messages that were not begun.
    void drop_waiting();

    /// Drops everything.
    void clear();

    /// What the messages that have left counted against the limit; starts again at 0.
    size_t take_released();

    /// Bytes that streams have taken in all.
    size_t taken() const { return taken_; }

    static size_t cost(const Posted& posted)
    {
        return posted.message_->size() + WebSocket_Outbox::MESSAGE_COST;
    }

private:
    Result send_batch(Loop_IO& io);
    Result send_bytes(Loop_IO& io);
    void leave(size_t taken);

    std::vector<Posted> messages_;
    size_t next_ = 0;       ///< the first one that is not sent as a whole
    size_t begun_ = 0;      ///< behind the last one of the batch
    size_t offset_ = 0;     ///< bytes of the first one's frame that are taken
    std::string bytes_;     ///< of other frames; they follow the batch
    size_t bytes_sent_ = 0; ///< of those
    size_t released_ = 0;
    size_t taken_ = 0;
};
