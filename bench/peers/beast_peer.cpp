// Boost.Beast in one thread, answers and WebSocket echo: bench_peer_beast PORT
//
// Sockets of the context's own executor type and without Beast's time-outs, handlers recycled by
// Asio: the way of the library that costs least.

#include "bench/peers/peer_text.h"

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/signal_set.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/websocket.hpp>

#include <array>
#include <cstddef>
#include <ctime>
#include <limits>
#include <memory>
#include <optional>
#include <utility>

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
namespace websocket = beast::websocket;

namespace {

using Executor = asio::io_context::executor_type;
using Socket = asio::basic_stream_socket<asio::ip::tcp, Executor>;
using Acceptor = asio::basic_socket_acceptor<asio::ip::tcp, Executor>;
using Error = beast::error_code;

/// The Date field's value, written once a second.
boost::string_view date_now()
{
    static std::time_t written = 0;
    static char text[32];
    static size_t length = 0;
    const std::time_t now = std::time(nullptr);
    if (now != written) {
        std::tm parts;
        length =
            std::strftime(text, sizeof text, "%a, %d %b %Y %H:%M:%S GMT", ::gmtime_r(&now, &parts));
        written = now;
    }
    return {text, length};
}

class Echo_Session : public std::enable_shared_from_this<Echo_Session> {
public:
    explicit Echo_Session(Socket socket) : stream_(std::move(socket)) {}

    void run(const http::request<http::empty_body>& request)
    {
        stream_.binary(true);
        stream_.auto_fragment(false);
        stream_.read_message_max(0);
        stream_.async_accept(request, [self = shared_from_this()](Error error) {
            if (!error) {
                self->read();
            }
        });
    }

private:
    void read()
    {
        stream_.async_read(buffer_, [self = shared_from_this()](Error error, size_t) {
            if (!error) {
                self->write();
            }
        });
    }

    void write()
    {
        stream_.async_write(buffer_.data(), [self = shared_from_this()](Error error, size_t) {
            if (!error) {
                self->buffer_.clear();
                self->read();
            }
        });
    }

    websocket::stream<Socket> stream_;
    beast::flat_buffer buffer_;
};

class Session : public std::enable_shared_from_this<Session> {
public:
    explicit Session(Socket socket) : socket_(std::move(socket)) {}

    void read_header()
    {
        parser_.emplace();
        parser_->body_limit(std::numeric_limits<std::uint64_t>::max());
        http::async_read_header(socket_, buffer_, *parser_,
                                [self = shared_from_this()](Error error, size_t) {
                                    if (!error) {
                                        self->header_read();
                                    }
                                });
    }

private:
    void header_read()
    {
        if (websocket::is_upgrade(parser_->get())) {
            http::request<http::empty_body> request;
            request.base() = std::move(parser_->get().base());
            std::make_shared<Echo_Session>(std::move(socket_))->run(request);
        } else if (parser_->is_done()) {
            this->answer();
        } else {
            this->read_body();
        }
    }

    void read_body()
    {
        if (sink_ == nullptr) {
            sink_ = std::make_unique<Sink>();
            buffer_.reserve(SINK_SIZE);
        }
        parser_->get().body().data = sink_->data();
        parser_->get().body().size = sink_->size();
        http::async_read(socket_, buffer_, *parser_,
                         [self = shared_from_this()](Error error, size_t) {
                             if (error == http::error::need_buffer) {
                                 self->read_body();
                             } else if (!error) {
                                 self->answer();
                             }
                         });
    }

    void answer()
    {
        const bool keep = parser_->get().keep_alive();
        response_ = {};
        response_.version(11);
        response_.result(http::status::ok);
        response_.set(http::field::content_type, PEER_TYPE);
        response_.set(http::field::date, date_now());
        response_.keep_alive(keep);
        response_.body() = {PEER_TEXT.data(), PEER_TEXT.size()};
        response_.prepare_payload();
        http::async_write(socket_, response_,
                          [self = shared_from_this(), keep](Error error, size_t) {
                              if (!error && keep) {
                                  self->read_header();
                              }
                          });
    }

    static constexpr size_t SINK_SIZE = 64 * 1024;
    using Sink = std::array<char, SINK_SIZE>;

    Socket socket_;
    beast::flat_buffer buffer_;
    std::unique_ptr<Sink> sink_; ///< only a connection that uploads has one
    std::optional<http::request_parser<http::buffer_body>> parser_;
    http::response<http::span_body<const char>> response_;
};

class Listener {
public:
    Listener(asio::io_context& context, unsigned short port)
        : acceptor_(context, {asio::ip::address_v4::loopback(), port})
    {
        acceptor_.listen(511);
    }

    void accept()
    {
        acceptor_.async_accept([this](Error error, Socket socket) {
            if (!error) {
                socket.set_option(asio::ip::tcp::no_delay(true), error);
                std::make_shared<Session>(std::move(socket))->read_header();
            }
            if (error != asio::error::operation_aborted) {
                this->accept();
            }
        });
    }

private:
    Acceptor acceptor_;
};

} // namespace

int main(int argc, char** argv)
{
    const unsigned short port = peer_port(argc, argv);
    try {
        asio::io_context context(1);
        asio::signal_set stop(context, SIGTERM, SIGINT);
        stop.async_wait([&context](Error, int) { context.stop(); });
        Listener listener(context, port);
        listener.accept();
        peer_ready();
        context.run();
    } catch (const std::exception& error) {
        std::fprintf(stderr, "bench_peer_beast: %s\n", error.what());
        return 1;
    }
    return 0;
}
