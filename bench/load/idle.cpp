#include "bench/load/idle.h"

#include "bench/common/fail.h"
#include "bench/load/answer_shape.h"
#include "bench/load/client_stream.h"
#include "bench/load/options.h"
#include "bench/load/request.h"
#include "bench/load/target.h"
#include "bench/load/tls_client.h"
#include "bench/load/websocket_driver.h"

#include <csignal>
#include <cstdio>
#include <optional>
#include <poll.h>
#include <string>
#include <vector>

namespace {

class Idle_Connections {
public:
    explicit Idle_Connections(const Load_Options& options)
        : websocket_(options.websocket_), target_(options), request_(make_request(options))
    {
        if (options.tls_) {
            tls_.emplace();
        }
    }

    /// Only the descriptor is kept, also of a TLS connection: 20,000 sessions are much memory.
    void open_one()
    {
        Client_Stream stream;
        std::string why;
        if (!stream.connect(target_, why) || (tls_ && !stream.start_tls(*tls_, why)) ||
            !(websocket_ ? open_websocket(stream, request_, why) : ask(stream, why))) {
            fail("connection %zu: %s", held_.size() + 1, why.c_str());
        }
        held_.push_back({stream.release(), POLLRDHUP, 0});
    }

    size_t count_closed()
    {
        const int count = poll(held_.data(), held_.size(), 0);
        return count > 0 ? static_cast<size_t>(count) : 0;
    }

    size_t size() const { return held_.size(); }

private:
    bool ask(Client_Stream& stream, std::string& why)
    {
        why = "no right answer";
        if (!stream.send_all(request_)) {
            return false;
        }
        if (held_.empty()) {
            answer_ = learn_answer(stream, false);
            return true;
        }
        char buffer[4096];
        std::string begin;
        std::uint64_t have = 0;
        while (have < answer_.length_) {
            const ssize_t received = stream.receive(buffer, sizeof buffer);
            if (received <= 0) {
                return false;
            }
            if (begin.size() < answer_.begin_.size()) {
                begin.append(buffer, static_cast<size_t>(received));
            }
            have += static_cast<std::uint64_t>(received);
        }
        return have == answer_.length_ && begin.starts_with(answer_.begin_);
    }

    bool websocket_;
    Target target_;
    std::string request_;
    std::optional<Tls_Client> tls_;
    Answer_Shape answer_;
    std::vector<pollfd> held_;
};

} // namespace

int hold_idle_connections(const Load_Options& options)
{
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    sigprocmask(SIG_BLOCK, &signals, nullptr);

    Idle_Connections connections(options);
    while (connections.size() < options.connections_) {
        connections.open_one();
    }
    std::puts("ready");
    static_cast<void>(std::fflush(stdout));
    int signal = 0;
    sigwait(&signals, &signal);
    const size_t closed = connections.count_closed();
    if (closed != 0) {
        warn("the server has closed %zu of %zu idle connections", closed, connections.size());
    }
    return closed != 0 ? 1 : 0;
}
