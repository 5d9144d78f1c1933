#include "tests/support/wire_client.h"

#include <openssl/err.h>
#include <openssl/ssl.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>

namespace {

using Clock = std::chrono::steady_clock;

bool wait_readable(int handle, std::chrono::milliseconds limit)
{
    const Clock::time_point end = Clock::now() + limit;
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now());
        pollfd input = {handle, POLLIN, 0};
        const int ready =
            ::poll(&input, 1, static_cast<int>(std::max<long>(0, static_cast<long>(left.count()))));
        if (ready >= 0 || errno != EINTR) {
            return ready > 0;
        }
    }
}

class Socket_Client : public Wire_Client {
public:
    explicit Socket_Client(int handle) : Wire_Client(handle) {}

    bool send(const std::string& bytes) override
    {
        size_t sent = 0;
        while (sent < bytes.size()) {
            const ssize_t count =
                ::send(handle_, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
            if (count == -1 && errno == EINTR) {
                continue;
            }
            if (count <= 0) {
                return false;
            }
            sent += static_cast<size_t>(count);
        }
        return true;
    }

    std::string receive(std::chrono::milliseconds limit) override
    {
        if (!wait_readable(handle_, limit)) {
            return "";
        }
        std::string bytes(65536, '\0');
        const ssize_t count = ::recv(handle_, bytes.data(), bytes.size(), 0);
        at_end_ = count <= 0;
        bytes.resize(count > 0 ? static_cast<size_t>(count) : 0U);
        return bytes;
    }

    void half_close() override { ::shutdown(handle_, SHUT_WR); }
};

class Tls_Client : public Wire_Client {
public:
    Tls_Client(int handle, SSL_CTX* context, SSL* ssl)
        : Wire_Client(handle), context_(context), ssl_(ssl)
    {
    }

    ~Tls_Client() override
    {
        SSL_free(ssl_);
        SSL_CTX_free(context_);
    }

    bool send(const std::string& bytes) override
    {
        ERR_clear_error();
        size_t written = 0;
        return bytes.empty() || SSL_write_ex(ssl_, bytes.data(), bytes.size(), &written) == 1;
    }

    std::string receive(std::chrono::milliseconds limit) override
    {
        if (SSL_pending(ssl_) == 0 && !wait_readable(handle_, limit)) {
            return "";
        }
        ERR_clear_error();
        std::string bytes(65536, '\0');
        size_t count = 0;
        at_end_ = SSL_read_ex(ssl_, bytes.data(), bytes.size(), &count) != 1;
        bytes.resize(at_end_ ? 0U : count);
        return bytes;
    }

    void half_close() override
    {
        SSL_shutdown(ssl_);
        ::shutdown(handle_, SHUT_WR);
    }

private:
    SSL_CTX* context_;
    SSL* ssl_;
};

int connect_to(int family, const sockaddr* address, socklen_t length)
{
    const int handle = ::socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (handle == -1 || ::connect(handle, address, length) == -1) {
        std::perror("connect");
        if (handle != -1) {
            ::close(handle);
        }
        return -1;
    }
    return handle;
}

int connect_tcp(const std::string& host, unsigned short port)
{
    if (host.find(':') != std::string::npos) {
        sockaddr_in6 address = {};
        address.sin6_family = AF_INET6;
        address.sin6_port = htons(port);
        ::inet_pton(AF_INET6, host.c_str(), &address.sin6_addr);
        return connect_to(AF_INET6, reinterpret_cast<const sockaddr*>(&address), sizeof address);
    }
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    ::inet_pton(AF_INET, host.c_str(), &address.sin_addr);
    return connect_to(AF_INET, reinterpret_cast<const sockaddr*>(&address), sizeof address);
}

std::string lower(std::string text)
{
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

void parse_head(Wire_Response& response)
{
    const std::string& head = response.raw_head;
    size_t line_end = head.find("\r\n");
    response.status_line = head.substr(0, line_end);
    if (response.status_line.size() > 12) {
        response.status = std::atoi(response.status_line.c_str() + 9);
    }
    for (size_t begin = line_end + 2; begin + 2 < head.size(); begin = line_end + 2) {
        line_end = head.find("\r\n", begin);
        const std::string line = head.substr(begin, line_end - begin);
        const size_t colon = line.find(':');
        if (colon == std::string::npos) {
            break;
        }
        const size_t value = line.find_first_not_of(" \t", colon + 1);
        response.fields.emplace(lower(line.substr(0, colon)),
                                value == std::string::npos ? "" : line.substr(value));
    }
}

} // namespace

std::string Wire_Response::field(const std::string& name) const
{
    const auto found = fields.find(name);
    return found == fields.end() ? "" : found->second;
}

Wire_Client::~Wire_Client()
{
    ::close(handle_);
}

std::unique_ptr<Wire_Client> Wire_Client::tcp(const std::string& host, unsigned short port)
{
    const int handle = connect_tcp(host, port);
    return handle == -1 ? nullptr : std::make_unique<Socket_Client>(handle);
}

std::unique_ptr<Wire_Client> Wire_Client::unix_domain(const std::string& path)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    const int handle =
        connect_to(AF_UNIX, reinterpret_cast<const sockaddr*>(&address), sizeof address);
    return handle == -1 ? nullptr : std::make_unique<Socket_Client>(handle);
}

std::unique_ptr<Wire_Client> Wire_Client::over_socket(int handle)
{
    return std::make_unique<Socket_Client>(handle);
}

std::unique_ptr<Wire_Client> Wire_Client::tls(const std::string& host, unsigned short port)
{
    const int handle = connect_tcp(host, port);
    if (handle == -1) {
        return nullptr;
    }
    // OpenSSL writes without MSG_NOSIGNAL: a server that has gone is an error, not the end of us.
    std::signal(SIGPIPE, SIG_IGN);
    // A server that never answers must not hold the test for ever.
    const timeval limit = {20, 0};
    ::setsockopt(handle, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    SSL_CTX* const context = SSL_CTX_new(TLS_client_method());
    SSL_CTX_set_verify(context, SSL_VERIFY_NONE, nullptr);
    SSL_CTX_set_options(context, SSL_OP_IGNORE_UNEXPECTED_EOF);
    SSL* const ssl = SSL_new(context);
    SSL_set_fd(ssl, handle);
    if (SSL_connect(ssl) != 1) {
        ERR_print_errors_fp(stderr);
        SSL_free(ssl);
        SSL_CTX_free(context);
        ::close(handle);
        return nullptr;
    }
    return std::make_unique<Tls_Client>(handle, context, ssl);
}

std::string Wire_Client::read_exactly(size_t count, std::chrono::milliseconds limit)
{
    const Clock::time_point end = Clock::now() + limit;
    while (kept_.size() < count) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now());
        const std::string bytes = this->receive(std::max(left, std::chrono::milliseconds(0)));
        if (bytes.empty()) {
            break;
        }
        kept_ += bytes;
    }
    const std::string taken = kept_.substr(0, count);
    kept_.erase(0, taken.size());
    return taken;
}

std::string Wire_Client::read_to_end(std::chrono::milliseconds limit)
{
    std::string all = this->read_exactly(std::string::npos / 2, limit);
    return all;
}

bool Wire_Client::is_closed_by_peer(std::chrono::milliseconds limit)
{
    return kept_.empty() && this->receive(limit).empty() && at_end_;
}

bool Wire_Client::is_silent(std::chrono::milliseconds limit)
{
    if (!kept_.empty()) {
        return false;
    }
    kept_ = this->receive(limit);
    return kept_.empty() && !at_end_;
}

Wire_Response Wire_Client::read_response(bool head_only, std::chrono::milliseconds limit)
{
    const Clock::time_point end = Clock::now() + limit;
    const auto left = [&end] {
        return std::max(std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now()),
                        std::chrono::milliseconds(0));
    };
    const auto read_until = [this, &left](const std::string& mark) {
        size_t at;
        while ((at = kept_.find(mark)) == std::string::npos) {
            const std::string bytes = this->receive(left());
            if (bytes.empty()) {
                return std::string();
            }
            kept_ += bytes;
        }
        const std::string taken = kept_.substr(0, at + mark.size());
        kept_.erase(0, taken.size());
        return taken;
    };

    Wire_Response response;
    response.raw_head = read_until("\r\n\r\n");
    if (response.raw_head.empty()) {
        return response;
    }
    parse_head(response);
    if (head_only || response.status / 100 == 1 || response.status == 204 ||
        response.status == 304) {
        response.complete = true;
    } else if (response.field("transfer-encoding") == "chunked") {
        for (;;) {
            const std::string line = read_until("\r\n");
            if (line.empty()) {
                return response;
            }
            const size_t size = std::stoul(line, nullptr, 16);
            const std::string data = this->read_exactly(size + 2, left());
            if (data.size() != size + 2 || data.substr(size) != "\r\n") {
                return response;
            }
            response.body += data.substr(0, size);
            if (size == 0) {
                response.complete = true;
                break;
            }
        }
    } else if (response.has("content-length")) {
        const size_t length = std::stoul(response.field("content-length"));
        response.body = this->read_exactly(length, left());
        response.complete = response.body.size() == length;
    } else {
        response.body = this->read_to_end(left());
        response.complete = at_end_;
    }
    return response;
}

Wire_Response Wire_Client::exchange(const std::string& request, bool head_only)
{
    this->send(request);
    return this->read_response(head_only);
}

std::string get_request(const std::string& target, const std::vector<std::string>& fields)
{
    std::string text = "GET " + target + " HTTP/1.1\r\nHost: test\r\n";
    for (const std::string& field : fields) {
        text += field + "\r\n";
    }
    return text + "\r\n";
}

std::string body_request(const std::string& method, const std::string& target,
                         const std::string& body, const std::vector<std::string>& fields)
{
    std::string text = method + " " + target + " HTTP/1.1\r\nHost: test\r\n";
    for (const std::string& field : fields) {
        text += field + "\r\n";
    }
    return text + "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

std::string chunked_request(const std::string& method, const std::string& target,
                            const std::vector<std::string>& pieces,
                            const std::vector<std::string>& fields)
{
    std::string text = method + " " + target + " HTTP/1.1\r\nHost: test\r\n";
    for (const std::string& field : fields) {
        text += field + "\r\n";
    }
    text += "Transfer-Encoding: chunked\r\n\r\n";
    for (const std::string& piece : pieces) {
        char size[32];
        std::snprintf(size, sizeof size, "%zx\r\n", piece.size());
        text += size + piece + "\r\n";
    }
    return text + "0\r\n\r\n";
}
