#pragma once

#include "bench/common/page_buffer.h"
#include "bench/load/answer_shape.h"
#include "bench/load/driver.h"
#include "bench/load/target.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

class Load_Engine;
struct Load_Options;

/**
 * Modes get, pipelined and upload: requests over kept connections.
 *
 * The answer's length is learnt once; then answers are only counted by their bytes, and each begin
 * of what is received is compared with the begin of the first answer, so that an error page of the
 * same length is not taken for an answer.
 */
class Request_Driver : public Load_Driver {
public:
    Request_Driver(const Load_Options& options, Load_Engine& engine);

    void prepare() override;
    void begin() override;
    void ready(std::uint32_t key, std::uint32_t events) override;

private:
    struct Connection {
        int fd_ = -1;
        std::uint32_t batch_ = 0;       ///< requests sent at once
        std::uint32_t outstanding_ = 0; ///< of them, not yet answered
        bool waits_to_send_ = false;    ///< EPOLLOUT is asked for
        std::uint64_t unsent_ = 0;      ///< bytes of the batch
        std::uint64_t missing_ = 0;     ///< bytes of its answers
        std::uint64_t sent_at_ = 0;
    };

    void start(Connection& connection);
    void send_rest(Connection& connection);
    void receive(Connection& connection);
    bool take_answers(Connection& connection, size_t received);
    void lost(Connection& connection);
    bool open(Connection& connection);
    std::uint32_t key_of(const Connection& connection) const;

    Load_Engine& engine_;
    Target target_;
    std::string requests_; ///< as many as are sent at once
    size_t request_size_;
    size_t depth_;
    Answer_Shape answer_;
    Page_Buffer buffer_;
    std::vector<Connection> connections_;
};
