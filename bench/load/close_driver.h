#pragma once

#include "bench/common/page_buffer.h"
#include "bench/load/answer_shape.h"
#include "bench/load/driver.h"
#include "bench/load/target.h"

#include <string>
#include <sys/types.h>
#include <vector>

class Client_Stream;
class Load_Engine;
struct Load_Options;

/// Mode close: a connection per request, read to its end.
class Close_Driver : public Load_Driver {
public:
    Close_Driver(const Load_Options& options, Load_Engine& engine);

    void prepare() override;
    void begin() override;
    void ready(std::uint32_t key, std::uint32_t events) override;

protected:
    struct Slot {
        int fd_ = -1;
        bool connecting_ = false; ///< waits for EPOLLOUT
        bool sent_ = false;
        std::uint64_t received_ = 0;
        std::uint64_t sent_at_ = 0; ///< when the connection was begun
    };

    /// Prepares the connection that learns the answer. False, and why: that went wrong.
    virtual bool secure(Client_Stream&, std::string&) { return true; }

    /// A descriptor has been opened for the slot; it is about to be closed.
    virtual void opened(Slot&) {}
    virtual void closing(Slot&) {}

    /// Sends the request as soon as that can be: 1 it is sent, 0 something must come first, -1
    /// neither. A new connection's send buffer takes any request of this mode at once.
    virtual int try_send(Slot& slot, const std::string& request);

    /// As recv(). `end`: the server has ended the connection behind what was received.
    virtual ssize_t receive_some(Slot& slot, char* buffer, size_t size, bool& end);

    std::uint32_t key_of(const Slot& slot) const;

private:
    enum class Progress { WAITS, ANSWERED, FAILED };

    void start(Slot& slot);
    bool open(Slot& slot);
    Progress receive(Slot& slot, std::uint32_t events);
    void finish(Slot& slot, Progress progress);

    Load_Engine& engine_;
    Target target_;
    std::string request_;
    Answer_Shape answer_;
    Page_Buffer buffer_;
    std::vector<Slot> slots_;
};
