#pragma once

#include "support/export.h"

#include <cstddef>
#include <cstdint>

/**
 * Checks UTF-8 (RFC 3629) as it arrives in pieces: no overlong form, no surrogate, nothing above
 * U+10FFFF. Remembers in one byte what the last piece left open.
 */
class HTTPD_SUPPORT_EXPORT UTF8_Check {
public:
    enum : std::uint8_t { COMPLETE = 0 }; ///< state at the start and between two characters

    /**
     * @param state  COMPLETE at the start of a text; updated
     * @return false when the text is malformed; state is then of no use.
     */
    static bool feed(std::uint8_t& state, const char* data, size_t length);
};
