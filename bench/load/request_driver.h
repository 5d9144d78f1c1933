#pragma once

#include "bench/load/answer_shape.h"
#include "bench/load/kept_driver.h"

/**
 * Modes get, pipelined and upload: requests over kept connections.
 *
 * The answer's length is learnt once; then answers are only counted by their bytes. The begin of
 * each batch's first answer is compared, so that an error page of the same length is none.
 */
class Request_Driver : public Kept_Driver {
public:
    Request_Driver(const Load_Options& options, Load_Engine& engine);

    void prepare() override;

protected:
    bool take_answers(Connection& connection, const char* data, size_t size) override;

private:
    std::string request_;
    Answer_Shape answer_;
};
