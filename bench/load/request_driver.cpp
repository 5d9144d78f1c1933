#include "bench/load/request_driver.h"

#include "bench/common/fail.h"
#include "bench/load/client_stream.h"
#include "bench/load/engine.h"
#include "bench/load/options.h"
#include "bench/load/request.h"

#include <cstring>

namespace {

constexpr size_t RECEIVE_BUFFER = 0x40000;
constexpr std::uint64_t LARGE_ANSWER = 0x8000;

} // namespace

Request_Driver::Request_Driver(const Load_Options& options, Load_Engine& engine)
    : Kept_Driver(options, engine, make_request(options), RECEIVE_BUFFER),
      request_(make_request(options))
{
}

void Request_Driver::prepare()
{
    Client_Stream first;
    std::string why;
    if (!open(first, why)) {
        fail("%s", why.c_str());
    }
    if (!first.send_all(request_)) {
        fail_errno("the request cannot be sent");
    }
    answer_ = learn_answer(first, false);
    answer_length_ = answer_.length_;
    dropped_ = answer_.length_ >= LARGE_ANSWER && can_drop();
    Kept_Driver::prepare();
}

ssize_t Request_Driver::receive_some(Connection& connection, char* buffer, size_t size)
{
    return recv(connection.fd_, buffer, size, dropped_ ? MSG_TRUNC : 0);
}

bool Request_Driver::take_answers(Connection& connection, const char* data, size_t size)
{
    const size_t begin = answer_.begin_.size();
    if (size > connection.missing_) {
        return false;
    }
    if (connection.missing_ == connection.batch_ * answer_length_ && !dropped_ && size >= begin &&
        std::memcmp(data, answer_.begin_.data(), begin) != 0) {
        return false;
    }
    connection.missing_ -= size;
    while (connection.outstanding_ != 0 &&
           connection.missing_ <= (connection.outstanding_ - 1) * answer_length_) {
        --connection.outstanding_;
        engine().answered(connection.sent_at_);
    }
    return true;
}
