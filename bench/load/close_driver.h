#pragma once

#include "bench/common/page_buffer.h"
#include "bench/load/answer_shape.h"
#include "bench/load/driver.h"
#include "bench/load/target.h"

#include <string>
#include <vector>

class Load_Engine;
struct Load_Options;

/// Mode close: a connection per request, read to its end.
class Close_Driver : public Load_Driver {
public:
    Close_Driver(const Load_Options& options, Load_Engine& engine);

    void prepare() override;
    void begin() override;
    void ready(std::uint32_t key, std::uint32_t events) override;

private:
    enum class Progress { WAITS, ANSWERED, FAILED };

    struct Slot {
        int fd_ = -1;
        bool sent_ = false;
        std::uint64_t received_ = 0;
        std::uint64_t sent_at_ = 0; ///< when the connection was begun
    };

    void start(Slot& slot);
    bool open(Slot& slot);
    bool send_request(const Slot& slot);
    Progress receive(Slot& slot, std::uint32_t events);
    void finish(Slot& slot, Progress progress);
    std::uint32_t key_of(const Slot& slot) const;

    Load_Engine& engine_;
    Target target_;
    std::string request_;
    Answer_Shape answer_;
    Page_Buffer buffer_;
    std::vector<Slot> slots_;
};
