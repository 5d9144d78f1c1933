// Echoes each message with one recv and one send where the buffer holds it, else piece by piece as
// it comes. A buffer belongs to a connection only while something of it is kept, so that with
// complete messages one buffer, which stays in the processor's cache, serves all connections.
#include "bench/ceilings/event_loop.h"
#include "bench/ceilings/kinds.h"
#include "bench/ceilings/listener.h"
#include "bench/ceilings/options.h"
#include "bench/ceilings/websocket_echo.h"
#include "bench/common/page_buffer.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <unistd.h>
#include <vector>

namespace {

class Echo_Server {
public:
    explicit Echo_Server(const Ceiling_Options& options)
        : capacity_(options.buffer_), loop_(open_listener(options, false))
    {
    }

    [[noreturn]] void run()
    {
        loop_.run([this](int fd) { accepted(fd); },
                  [this](int fd, std::uint32_t) { ready(fd, connections_[to_index(fd)]); });
    }

private:
    struct Connection {
        bool upgraded_ = false;
        bool waits_to_send_ = false;
        char* buffer_ = nullptr;       ///< null: nothing is kept
        size_t begin_ = 0;             ///< of what is kept and not yet echoed
        size_t end_ = 0;               ///< of what is kept
        const char* unsent_ = nullptr; ///< within the buffer
        size_t unsent_size_ = 0;
        Client_Frame frame_; ///< of which pieces are still to come
        std::uint64_t pieces_have_ = 0;
    };

    static size_t to_index(int fd) { return static_cast<size_t>(fd); }

    void accepted(int fd)
    {
        if (to_index(fd) >= connections_.size()) {
            connections_.resize(to_index(fd) + 1);
        }
        connections_[to_index(fd)] = Connection();
        loop_.add(fd);
    }

    void ready(int fd, Connection& connection)
    {
        const bool goes_on =
            connection.waits_to_send_ ? send_rest(fd, connection) : receive(fd, connection);
        if (!goes_on || !echo(fd, connection)) {
            give_back(connection);
            close(fd);
        }
    }

    bool receive(int fd, Connection& connection)
    {
        if (connection.buffer_ == nullptr) {
            connection.buffer_ = take_buffer();
        }
        const ssize_t received =
            recv(fd, connection.buffer_ + connection.end_, capacity_ - connection.end_, 0);
        if (received > 0) {
            connection.end_ += static_cast<size_t>(received);
            return true;
        }
        return received == -1 && errno == EAGAIN;
    }

    /// Echoes what is kept, as far as it can be sent. False: the connection is to be closed.
    bool echo(int fd, Connection& connection)
    {
        if (!connection.upgraded_ && !upgrade(fd, connection)) {
            return false;
        }
        while (connection.begin_ != connection.end_ && !connection.waits_to_send_) {
            const size_t before = connection.begin_;
            if (!echo_next(fd, connection)) {
                return false;
            }
            if (connection.begin_ == before) {
                break; // the rest of a frame that the buffer holds is to come
            }
        }
        if (!connection.waits_to_send_) {
            keep_rest(connection);
        }
        return true;
    }

    bool upgrade(int fd, Connection& connection)
    {
        const std::string request(connection.buffer_, connection.end_);
        if (!request.ends_with("\r\n\r\n")) {
            // Frames before the upgrade are against the protocol; less than a head may come.
            return request.find("\r\n\r\n") == std::string::npos && connection.end_ < capacity_;
        }
        const std::string answer = upgrade_answer(request);
        connection.upgraded_ = true;
        connection.begin_ = connection.end_;
        return !answer.empty() && send(fd, answer.data(), answer.size(), MSG_NOSIGNAL) ==
                                      static_cast<ssize_t>(answer.size());
    }

    /// The next frame, or the next piece of one that is larger than the buffer.
    bool echo_next(int fd, Connection& connection)
    {
        char* const data = connection.buffer_ + connection.begin_;
        const size_t have = connection.end_ - connection.begin_;
        Client_Frame& frame = connection.frame_;
        if (connection.pieces_have_ != 0) {
            const size_t size = static_cast<size_t>(
                std::min<std::uint64_t>(have, frame.payload_size_ - connection.pieces_have_));
            unmask(data, size, frame.key_, connection.pieces_have_);
            connection.pieces_have_ += size;
            if (connection.pieces_have_ == frame.payload_size_) {
                connection.pieces_have_ = 0;
            }
            connection.begin_ += size;
            return send_out(fd, connection, data, size);
        }
        if (!frame.read(data, have)) {
            return true;
        }
        const bool whole = have - frame.header_size_ >= frame.payload_size_;
        const bool fits = frame.payload_size_ <= capacity_ - frame.header_size_;
        if (!whole && (fits || have == frame.header_size_)) {
            return true;
        }
        const size_t size =
            whole ? static_cast<size_t>(frame.payload_size_) : have - frame.header_size_;
        unmask(data + frame.header_size_, size, frame.key_, 0);
        const char* const out = frame.place_server_header(data);
        connection.pieces_have_ = whole ? 0 : size;
        connection.begin_ += frame.header_size_ + size;
        return send_out(fd, connection, out,
                        static_cast<size_t>(connection.buffer_ + connection.begin_ - out));
    }

    bool send_out(int fd, Connection& connection, const char* data, size_t size)
    {
        const ssize_t sent = send(fd, data, size, MSG_NOSIGNAL);
        if (sent == static_cast<ssize_t>(size)) {
            return true;
        }
        if (sent == -1 && errno != EAGAIN) {
            return false;
        }
        const size_t done = sent > 0 ? static_cast<size_t>(sent) : 0;
        connection.unsent_ = data + done;
        connection.unsent_size_ = size - done;
        connection.waits_to_send_ = true;
        loop_.change(fd, EPOLLOUT);
        return true;
    }

    bool send_rest(int fd, Connection& connection)
    {
        const ssize_t sent = send(fd, connection.unsent_, connection.unsent_size_, MSG_NOSIGNAL);
        if (sent == -1) {
            return errno == EAGAIN;
        }
        connection.unsent_ += sent;
        connection.unsent_size_ -= static_cast<size_t>(sent);
        if (connection.unsent_size_ == 0) {
            connection.waits_to_send_ = false;
            loop_.change(fd, EPOLLIN);
        }
        return true;
    }

    void keep_rest(Connection& connection)
    {
        const size_t rest = connection.end_ - connection.begin_;
        if (rest == 0) {
            give_back(connection);
        } else if (connection.begin_ != 0) {
            std::memmove(connection.buffer_, connection.buffer_ + connection.begin_, rest);
        }
        connection.begin_ = 0;
        connection.end_ = rest;
    }

    char* take_buffer()
    {
        if (spare_.empty()) {
            buffers_.emplace_back(capacity_);
            return buffers_.back().data();
        }
        char* const buffer = spare_.back();
        spare_.pop_back();
        return buffer;
    }

    void give_back(Connection& connection)
    {
        if (connection.buffer_ != nullptr) {
            spare_.push_back(connection.buffer_);
            connection.buffer_ = nullptr;
        }
    }

    size_t capacity_;
    Event_Loop loop_;
    std::vector<Connection> connections_; ///< by descriptor
    std::vector<Page_Buffer> buffers_;
    std::vector<char*> spare_; ///< used last, taken first
};

} // namespace

void serve_websocket(const Ceiling_Options& options)
{
    Echo_Server(options).run();
}
