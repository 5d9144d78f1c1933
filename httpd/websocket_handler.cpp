#include "httpd/websocket_handler.h"

#include <cerrno>
#include <new>
#include <string_view>

namespace {

/// Splits at commas. Empty pieces are dropped, and so are the blanks behind a comma; all other
/// blanks stay.
std::vector<std::string> split_offers(std::string_view header)
{
    std::vector<std::string> offers;
    size_t start = 0;
    while (start != std::string_view::npos) {
        const size_t comma = header.find(',', start);
        const std::string_view offer = header.substr(start, comma - start);
        if (!offer.empty()) {
            offers.emplace_back(offer);
        }
        start = comma == std::string_view::npos ? comma : header.find_first_not_of(" ,", comma);
    }
    return offers;
}

} // namespace

WebSocket_Handler::~WebSocket_Handler() = default;

int WebSocket_Handler::init(int, char**)
{
    return 0;
}

int WebSocket_Handler::fini()
{
    return 0;
}

const char* WebSocket_Handler::select_protocol(const char* header)
{
    if (header == nullptr) {
        return nullptr;
    }
    try {
        const std::vector<std::string> offers = split_offers(header);
        const char* const choice = select_protocol(offers);
        if (choice == nullptr) {
            return nullptr;
        }
        subprotocol_ = choice;
        return subprotocol_.c_str();
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
        return nullptr;
    }
}

const char* WebSocket_Handler::select_protocol(const std::vector<std::string>& protocols)
{
    return protocols.empty() ? nullptr : protocols.front().c_str();
}

int WebSocket_Handler::handle_handshaking(WebSocket_IO&)
{
    return 0;
}

int WebSocket_Handler::handle_handshaked()
{
    return 0;
}

int WebSocket_Handler::handle_close(WebSocket_Data_Frame::Close_Status, const char*, size_t)
{
    return 0;
}

int WebSocket_Handler::handle_ping()
{
    return 0;
}

WebSocket_Handler::CONCURRENCY WebSocket_Handler::concurrency() const
{
    return INHERITED;
}
