#pragma once

#include "support/export.h"

#include <string>

/// Tests whether a whole text is of one kind. No locale plays a part; an empty text never passes.
class HTTPD_SUPPORT_EXPORT String_Checker {
public:
    enum SC_Type {
        SC_DIGITS = 0,     ///< 0 to 9
        SC_LETTERS = 1,    ///< A to Z, a to z
        SC_ALNUM = 2,      ///< letters and digits
        SC_HEX_DIGITS = 3, ///< digits, A to F, a to f
        SC_TOKEN = 4,      ///< token characters (RFC 9110, section 5.6.2)
        SC_PRINTABLE = 5,  ///< visible ASCII and the blank
        SC_IP_ADDRESS = 6, ///< an IPv4 or IPv6 address literal, without brackets, port or zone
    };

    /// False also for a type that is none of the enumerators.
    static bool check(const std::string& text, SC_Type type);
};
