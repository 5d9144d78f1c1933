#pragma once

#include <string_view>

/// What a text is as UTF-8 (RFC 3629), judged by the code points that it can stand for.
enum class Plain_UTF8 { COMPLETE, UNFINISHED, MALFORMED };

/// UNFINISHED: well-formed up to a last character of which bytes are missing.
Plain_UTF8 plain_utf8(std::string_view text);
