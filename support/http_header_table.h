#pragma once

#include "support/http_header_id.h"
#include "support/http_syntax.h"

#include <cstdint>

/// The table of known field names and the searches in it. Not part of the interface.

inline constexpr std::string_view HTTP_HEADER_NAMES[NUM_HTTP_HEADS] = {
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

namespace http_header_table {

constexpr size_t LONGEST_NAME = 25;
constexpr size_t SHORTEST_NAME = 3;

// Length, first and last character tell all names apart; the factors are the smallest that send
// each name to a slot of its own, which make_slots() proves while it compiles.
constexpr size_t slot_of(const char* name, size_t size)
{
    const auto lower = [](char c) { return static_cast<unsigned char>(c) | 0x20U; };
    return (size * 18 + lower(name[0]) * 35 + lower(name[size - 1])) & 0xFF;
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
        const std::string_view name = HTTP_HEADER_NAMES[id];
        std::uint8_t& slot = slots.id[slot_of(name.data(), name.size())];
        if (slot != NUM_HTTP_HEADS) {
            throw "two names share a slot";
        }
        slot = id;
    }
    return slots;
}

inline constexpr Slots SLOTS = make_slots();

constexpr size_t ROOM = 32;

/// Names padded so that they can be read in chunks, or written in two, whatever their length.
struct Padded_Names {
    alignas(16) char text[NUM_HTTP_HEADS + 1][ROOM]; ///< the last is empty
};

/// Each name in lower case, and the colon.
constexpr Padded_Names make_lower_names()
{
    Padded_Names lower{};
    for (size_t id = 0; id < NUM_HTTP_HEADS; ++id) {
        const std::string_view name = HTTP_HEADER_NAMES[id];
        if (name.size() < SHORTEST_NAME || name.size() > LONGEST_NAME) {
            throw "LONGEST_NAME or SHORTEST_NAME is wrong";
        }
        for (size_t i = 0; i < name.size(); ++i) {
            lower.text[id][i] = http_lower(name[i]);
        }
        lower.text[id][name.size()] = ':';
    }
    return lower;
}

/// Each name as it is written, the colon and the blank.
constexpr Padded_Names make_line_starts()
{
    Padded_Names starts{};
    for (size_t id = 0; id < NUM_HTTP_HEADS; ++id) {
        const std::string_view name = HTTP_HEADER_NAMES[id];
        for (size_t i = 0; i < name.size(); ++i) {
            starts.text[id][i] = name[i];
        }
        starts.text[id][name.size()] = ':';
        starts.text[id][name.size() + 1] = ' ';
    }
    return starts;
}

static_assert(LONGEST_NAME + 2 <= ROOM);
inline constexpr Padded_Names LOWER_NAMES = make_lower_names();
inline constexpr Padded_Names LINE_STARTS = make_line_starts();

} // namespace http_header_table

/**
 * The number of the field whose line begins at `line`, or HTTP_HEAD_UNKNOWN.
 * @param size  of the name: the first colon is at line[size]. Up to the next full chunk behind it
 *              all bytes must be readable.
 */
inline int http_header_id_of_line(const char* line, size_t size)
{
    using namespace http_header_table;
    constexpr size_t CHUNK = Text_Chunk::SIZE;
    if (size < SHORTEST_NAME || size > LONGEST_NAME) {
        return HTTP_HEAD_UNKNOWN;
    }
    const size_t id = SLOTS.id[slot_of(line, size)];
    const char* const lower = LOWER_NAMES.text[id];
    // A name holds no colon: one at the same place means that the lengths are the same, too.
    const unsigned same = Text_Chunk(line).same_name(lower);
    if (size < CHUNK) {
        return (~same & ((2U << size) - 1)) == 0 ? static_cast<int>(id) : HTTP_HEAD_UNKNOWN;
    }
    const unsigned same_end = Text_Chunk(line + CHUNK).same_name(lower + CHUNK);
    return same == Text_Chunk::ALL && (~same_end & ((2U << (size - CHUNK)) - 1)) == 0
               ? static_cast<int>(id)
               : HTTP_HEAD_UNKNOWN;
}
