#pragma once

#include <cstdint>
#include <string>

class Client_Stream;

/// What all answers to a request have in common.
struct Answer_Shape {
    std::string begin_;        ///< version and status, "HTTP/1.1 200"
    std::uint64_t length_ = 0; ///< bytes of head and body
};

/**
 * Receives one answer and learns its length: by its Content-Length, else by where it stops, which
 * is the end of the connection or a silence of 20 ms.
 *
 * @param to_the_end  the server is to close the connection behind the answer
 * Ends the program where no answer of status 200 comes, or one that is cut short.
 */
Answer_Shape learn_answer(Client_Stream& stream, bool to_the_end);
