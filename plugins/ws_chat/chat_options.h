#pragma once

#include <cstddef>

/// The parameters of a ws_chat record.
struct Chat_Options {
    size_t max_message_ = 64 * 1024; ///< bytes of one message
    size_t max_queue_ = 1024 * 1024; ///< bytes that may wait for one member

    /// @return 0; -1 with EINVAL and one error line that says what is wrong. Throws std::bad_alloc.
    int parse(int argc, char** argv);
};
