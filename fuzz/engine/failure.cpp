#include "fuzz/engine/failure.h"

#include <cstdio>
#include <cstdlib>

void fail(const std::string& what, std::string_view bytes)
{
    std::fprintf(stderr, "engine_fuzz: %s\n", what.c_str());
    for (const char c : bytes) {
        const auto byte = static_cast<unsigned char>(c);
        if (c == '\n') {
            std::fputs("\\n\n", stderr);
        } else if (byte >= 0x20 && byte < 0x7F) {
            std::fputc(c, stderr);
        } else {
            std::fprintf(stderr, "\\x%02x", byte);
        }
    }
    if (!bytes.empty()) {
        std::fputc('\n', stderr);
    }
    std::abort();
}
