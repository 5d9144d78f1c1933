#include "bench/load/websocket_driver.h"

#include "bench/load/client_stream.h"
#include "bench/load/engine.h"
#include "bench/load/options.h"
#include "bench/load/request.h"

namespace {

constexpr size_t RECEIVE_BUFFER = 0x40000;

/// Bytes in which a shift or a wrong key shows.
std::string make_payload(size_t size)
{
    std::string payload(size, '\0');
    std::uint32_t state = 2463534242;
    for (char& byte : payload) {
        state ^= state << 13;
        state ^= state >> 17;
        state ^= state << 5;
        byte = static_cast<char>(state >> 24);
    }
    return payload;
}

} // namespace

bool open_websocket(Client_Stream& stream, const std::string& upgrade, std::string& why)
{
    // The answer to the key of the example in RFC 6455, section 1.3.
    constexpr const char* ACCEPT = "s3pPLMBiTxaQ9kYGzzhZRbK+xOo=";
    std::string answer;
    // One by one: a server may send a frame right behind its answer.
    char byte = 0;
    bool open = stream.send_all(upgrade);
    while (open && !answer.ends_with("\r\n\r\n")) {
        open = stream.receive(&byte, 1) == 1;
        answer.append(&byte, open ? 1 : 0);
    }
    if (!answer.starts_with("HTTP/1.1 101") || answer.find(ACCEPT) == std::string::npos) {
        why = "the server answers the upgrade with \"" + answer.substr(0, answer.find('\r')) + '"';
        return false;
    }
    return true;
}

Websocket_Driver::Websocket_Driver(const Load_Options& options, Load_Engine& engine)
    : Kept_Driver(options, engine, masked_frame(make_payload(options.message_)), RECEIVE_BUFFER),
      upgrade_(make_request(options)), payload_(make_payload(options.message_)),
      readers_(options.connections_, Echo_Reader(&payload_))
{
}

bool Websocket_Driver::greet(Client_Stream& stream, std::string& why)
{
    return open_websocket(stream, upgrade_, why);
}

void Websocket_Driver::opened(Connection& connection, Client_Stream&)
{
    readers_[key_of(connection)] = Echo_Reader(&payload_);
}

bool Websocket_Driver::take_answers(Connection& connection, const char* data, size_t size)
{
    const int messages = readers_[key_of(connection)].take(data, size);
    if (messages < 0 || static_cast<std::uint32_t>(messages) > connection.outstanding_) {
        return false;
    }
    for (int i = 0; i < messages; ++i) {
        --connection.outstanding_;
        engine().answered(connection.sent_at_);
    }
    return true;
}
