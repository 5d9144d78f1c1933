#include "bench/ceilings/answer.h"

#include <ctime>

std::string answer_head(size_t content_length, bool keep_alive)
{
    char date[64];
    const std::time_t now = std::time(nullptr);
    std::tm parts = {};
    gmtime_r(&now, &parts);
    if (std::strftime(date, sizeof date, "%a, %d %b %Y %H:%M:%S GMT", &parts) == 0) {
        date[0] = '\0';
    }
    return "HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\nContent-Length: " +
           std::to_string(content_length) +
           (keep_alive ? "\r\nConnection: Keep-Alive" : "\r\nConnection: close") +
           "\r\nDate: " + date + "\r\n\r\n";
}

std::string constant_answer(bool keep_alive)
{
    const std::string body = "Hello, World!";
    return answer_head(body.size(), keep_alive) + body;
}
