#include "support/http_header_id.h"

#include "support/http_syntax.h"

#include <cstdint>
#include <cstring>

namespace {

constexpr std::string_view NAMES[NUM_HTTP_HEADS] = {
    "Accept",
    "Accept-Encoding",
    "Accept-Language",
    "Accept-Ranges",
    "Age",
    "Allow",
    "Authorization",
    "Cache-Control",
    "Connection",
    "Content-Disposition",
    "Content-Encoding",
    "Content-Language",
    "Content-Length",
    "Content-Location",
    "Content-MD5",
    "Content-Range",
    "Content-Type",
    "Cookie",
    "Date",
    "ETag",
    "Expect",
    "Expires",
    "From",
    "Host",
    "If-Match",
    "If-Modified-Since",
    "If-None-Match",
    "If-Range",
    "If-Unmodified-Since",
    "Last-Modified",
    "Location",
    "Origin",
    "Range",
    "Referer",
    "Sec-WebSocket-Accept",
    "Sec-WebSocket-Key",
    "Sec-WebSocket-Protocol",
    "Sec-WebSocket-Version",
    "Server",
    "Set-Cookie",
    "Transfer-Encoding",
    "Upgrade",
    "Upgrade-Insecure-Requests",
    "User-Agent",
    "Vary",
    "Via",
    "Warning",
    "WWW-Authenticate",
    "X-Cache",
    "X-Content-Type-Options",
    "X-Correlation-ID",
    "X-CSRF-Token",
    "X-DNS-Prefetch-Control",
    "X-Forwarded-For",
    "X-Forwarded-Host",
    "X-Forwarded-Proto",
    "X-Frame-Options",
    "X-Real-IP",
    "X-Request-ID",
    "X-Requested-With",
};

constexpr size_t LONGEST_NAME = 25;
constexpr size_t SHORTEST_NAME = 3;

// Length, first and last character tell all names apart; the factors are the smallest that send
// each name to a slot of its own, which make_slots() proves while it compiles.
constexpr size_t slot_of(std::string_view name)
{
    const auto lower = [](char c) { return static_cast<unsigned char>(c) | 0x20U; };
    return (name.size() * 18 + lower(name.front()) * 35 + lower(name.back())) & 0xFF;
}

struct Slots {
    std::uint8_t id[256]; ///< NUM_HTTP_HEADS where no name belongs
};

constexpr Slots make_slots()
{
    Slots slots{};
    for (std::uint8_t& id : slots.id) {
        id = NUM_HTTP_HEADS;
    }
    for (std::uint8_t id = 0; id < NUM_HTTP_HEADS; ++id) {
        std::uint8_t& slot = slots.id[slot_of(NAMES[id])];
        if (slot != NUM_HTTP_HEADS) {
            throw "two names share a slot";
        }
        slot = id;
    }
    return slots;
}

constexpr Slots SLOTS = make_slots();

// The names in lower case, zero-padded so that they can be read in words of eight bytes.
struct Lower_Names {
    char text[NUM_HTTP_HEADS][32];
};

constexpr Lower_Names make_lower_names()
{
    Lower_Names lower{};
    for (size_t id = 0; id < NUM_HTTP_HEADS; ++id) {
        if (NAMES[id].size() < SHORTEST_NAME || NAMES[id].size() > LONGEST_NAME) {
            throw "LONGEST_NAME or SHORTEST_NAME is wrong";
        }
        for (size_t i = 0; i < NAMES[id].size(); ++i) {
            lower.text[id][i] = http_lower(NAMES[id][i]);
        }
    }
    return lower;
}

constexpr Lower_Names LOWER_NAMES = make_lower_names();

template <typename Word>
bool same_word(const char* text, const char* lower)
{
    Word read;
    Word expected;
    std::memcpy(&read, text, sizeof(Word));
    std::memcpy(&expected, lower, sizeof(Word));
    // Of the characters in names only letters have bit 6; shifted down it is the bit that a letter
    // in upper case lacks. So letters compare without case and '-' and digits exactly.
    constexpr Word BIT_6 = static_cast<Word>(0x4040404040404040U);
    return (read | static_cast<Word>((expected & BIT_6) >> 1U)) == expected;
}

// Words that overlap cover a name of any length without reading beyond it.
bool same_name(const char* text, const char* lower, size_t size)
{
    if (size >= sizeof(std::uint64_t)) {
        const size_t last = size - sizeof(std::uint64_t);
        for (size_t i = 0; i < last; i += sizeof(std::uint64_t)) {
            if (!same_word<std::uint64_t>(text + i, lower + i)) {
                return false;
            }
        }
        return same_word<std::uint64_t>(text + last, lower + last);
    }
    if (size >= sizeof(std::uint32_t)) {
        const size_t last = size - sizeof(std::uint32_t);
        return same_word<std::uint32_t>(text, lower) &&
               same_word<std::uint32_t>(text + last, lower + last);
    }
    return same_word<std::uint16_t>(text, lower) && same_word<std::uint16_t>(text + 1, lower + 1);
}

} // namespace

std::string_view http_header_name(int id)
{
    return id >= 0 && id < NUM_HTTP_HEADS ? NAMES[id] : std::string_view();
}

int http_header_id(std::string_view name)
{
    if (name.size() < SHORTEST_NAME || name.size() > LONGEST_NAME) {
        return HTTP_HEAD_UNKNOWN;
    }
    const size_t id = SLOTS.id[slot_of(name)];
    if (id == NUM_HTTP_HEADS || NAMES[id].size() != name.size() ||
        !same_name(name.data(), LOWER_NAMES.text[id], name.size())) {
        return HTTP_HEAD_UNKNOWN;
    }
    return static_cast<int>(id);
}
