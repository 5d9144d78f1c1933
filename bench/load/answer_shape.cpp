#include "bench/load/answer_shape.h"

#include "bench/common/fail.h"
#include "bench/load/client_stream.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace {

constexpr int SILENCE = 20; // milliseconds after which an answer of no known length has ended
constexpr std::uint64_t UNKNOWN = UINT64_MAX;
constexpr const char* END_OF_HEAD = "\r\n\r\n";

std::uint64_t content_length(const std::string& head)
{
    constexpr const char* NAME = "\r\nContent-Length:";
    const char* const field = strcasestr(head.c_str(), NAME);
    return field == nullptr
               ? UNKNOWN
               : std::strtoull(field + std::char_traits<char>::length(NAME), nullptr, 10);
}

/// Receives at least the head; what follows it is in `received` as well.
void receive_head(Client_Stream& stream, std::string& received)
{
    char buffer[16384];
    while (received.find(END_OF_HEAD) == std::string::npos) {
        const ssize_t count = stream.receive(buffer, sizeof buffer);
        if (count == -1) {
            fail_errno("no answer");
        }
        if (count == 0) {
            fail("the server closed the connection without an answer");
        }
        received.append(buffer, static_cast<size_t>(count));
    }
}

/// Counts what follows until `expected` bytes are there, or until it stops where that is unknown.
std::uint64_t receive_rest(Client_Stream& stream, std::uint64_t have, std::uint64_t expected)
{
    char buffer[65536];
    while (have < expected) {
        const ssize_t count = expected == UNKNOWN
                                  ? stream.receive_within(buffer, sizeof buffer, SILENCE)
                                  : stream.receive(buffer, sizeof buffer);
        if (count <= 0 && expected == UNKNOWN && (count == 0 || errno == EAGAIN)) {
            return have;
        }
        if (count <= 0) {
            fail("the answer is cut short: %llu of %llu bytes",
                 static_cast<unsigned long long>(have), static_cast<unsigned long long>(expected));
        }
        have += static_cast<std::uint64_t>(count);
    }
    if (have > expected) {
        fail("more follows the answer than its Content-Length says");
    }
    return have;
}

void expect_end(Client_Stream& stream)
{
    char byte = 0;
    const ssize_t count = stream.receive(&byte, 1);
    if (count > 0) {
        fail("more follows the answer than its Content-Length says");
    }
    if (count == -1) {
        fail("the server does not close the connection");
    }
}

} // namespace

Answer_Shape learn_answer(Client_Stream& stream, bool to_the_end)
{
    std::string received;
    receive_head(stream, received);
    Answer_Shape shape;
    shape.begin_ = received.substr(0, 12);
    if (shape.begin_ != "HTTP/1.1 200") {
        fail("the server answers \"%s\"", received.substr(0, received.find('\r')).c_str());
    }
    const size_t head_length = received.find(END_OF_HEAD) + 4;
    const std::uint64_t body = content_length(received.substr(0, head_length));
    shape.length_ =
        receive_rest(stream, received.size(), body == UNKNOWN ? UNKNOWN : head_length + body);
    if (to_the_end) {
        expect_end(stream);
    }
    return shape;
}
