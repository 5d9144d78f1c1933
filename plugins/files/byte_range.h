#pragma once

#include <cstdint>
#include <string_view>

/// The part of a file that a request asks for.
struct Byte_Range {
    enum Kind {
        WHOLE,        ///< no usable range: the whole file is sent
        PART,         ///< first_ and length_ lie within the file
        UNSATISFIABLE ///< nothing of the file lies in the range
    };

    Kind kind_;
    std::uint64_t first_;  ///< offset of the first byte
    std::uint64_t length_; ///< bytes, more than 0 for PART
};

/**
 * Reads a Range field (RFC 9110, section 14.2): `bytes=A-B`, `bytes=A-` or `bytes=-N`.
 *
 * Several ranges, another unit and malformed text give WHOLE, since a server may ignore the field;
 * so does a suffix of an empty file, which no Content-Range can describe. Numbers beyond 64 bits
 * count as the largest.
 * @param size  of the file, bytes
 */
Byte_Range parse_byte_range(std::string_view value, std::uint64_t size);
