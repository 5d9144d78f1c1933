#pragma once

#include "bench/load/answer_shape.h"
#include "bench/load/kept_driver.h"

/**
 * Modes get, pipelined and upload: requests over kept connections.
 *
 * The answer's length is learnt once; then answers are only counted by their bytes. The begin of
 * each batch's first answer is compared, so that an error page of the same length is none. Large
 * answers are dropped within the kernel, which halves what they cost this program and so leaves the
 * processor to the server; of those only the length is looked at.
 */
class Request_Driver : public Kept_Driver {
public:
    Request_Driver(const Load_Options& options, Load_Engine& engine);

    void prepare() override;

protected:
    /// Whether the kernel drops received bytes where it is asked to: only plain TCP does.
    virtual bool can_drop() const { return !target().is_unix(); }

    ssize_t receive_some(Connection& connection, char* buffer, size_t size) override;
    bool take_answers(Connection& connection, const char* data, size_t size) override;

private:
    std::string request_;
    Answer_Shape answer_;
    bool dropped_ = false; ///< nothing is copied to the buffer
};
