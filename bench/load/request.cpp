#include "bench/load/request.h"

#include "bench/load/options.h"

#include <algorithm>
#include <cstdio>

namespace {

/// A body of `size` bytes that is neither constant nor what a parser could take for its framing.
std::string make_body(size_t size)
{
    std::string body(size, '\0');
    for (size_t i = 0; i < size; ++i) {
        body[i] = static_cast<char>('a' + i % 26);
    }
    return body;
}

std::string in_chunks(const std::string& body, size_t chunk)
{
    std::string result;
    for (size_t begin = 0; begin < body.size(); begin += chunk) {
        const size_t length = std::min(chunk, body.size() - begin);
        char size_line[32];
        std::snprintf(size_line, sizeof size_line, "%zx\r\n", length);
        result.append(size_line).append(body, begin, length).append("\r\n");
    }
    return result + "0\r\n\r\n";
}

std::string upload(const Load_Options& options, const std::string& host)
{
    const std::string body = make_body(options.body_);
    const bool chunked = options.chunk_ != 0;
    const std::string framing =
        chunked ? "Transfer-Encoding: chunked" : "Content-Length: " + std::to_string(body.size());
    const std::string head = !options.head_.empty()
                                 ? options.head_
                                 : "POST " + options.path_ + " HTTP/1.1\r\n" + host +
                                       "Content-Type: application/octet-stream\r\n" + framing +
                                       "\r\n\r\n";
    return head + (chunked ? in_chunks(body, options.chunk_) : body);
}

} // namespace

std::string make_request(const Load_Options& options)
{
    const std::string host = "Host: 127.0.0.1\r\n";
    if (options.mode_ == "upload") {
        return upload(options, host);
    }
    if (!options.head_.empty()) {
        return options.head_;
    }
    const std::string begin = "GET " + options.path_ + " HTTP/1.1\r\n" + host;
    if (options.mode_ == "websocket" || options.websocket_) {
        // The example of RFC 6455, section 1.3: its answer is known.
        return begin + "Upgrade: websocket\r\nConnection: Upgrade\r\nSec-WebSocket-Version: 13\r\n"
                       "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n\r\n";
    }
    return begin + (options.mode_.ends_with("close") ? "Connection: close\r\n\r\n" : "\r\n");
}
