#include "support/mime_type.h"

#include <gtest/gtest.h>

#include <string>

namespace {

TEST(mime_type, knows_the_files_of_the_web)
{
    struct Row {
        const char* extension;
        const char* type;
    };
    const Row rows[] = {
        {"html", "text/html"},
        {"htm", "text/html"},
        {"css", "text/css"},
        {"js", "text/javascript"},
        {"mjs", "text/javascript"},
        {"json", "application/json"},
        {"map", "application/json"},
        {"webmanifest", "application/manifest+json"},
        {"svg", "image/svg+xml"},
        {"png", "image/png"},
        {"jpg", "image/jpeg"},
        {"jpeg", "image/jpeg"},
        {"gif", "image/gif"},
        {"webp", "image/webp"},
        {"avif", "image/avif"},
        {"ico", "image/vnd.microsoft.icon"},
        {"woff", "font/woff"},
        {"woff2", "font/woff2"},
        {"ttf", "font/ttf"},
        {"otf", "font/otf"},
        {"wasm", "application/wasm"},
        {"pdf", "application/pdf"},
        {"txt", "text/plain"},
        {"md", "text/markdown"},
        {"xml", "application/xml"},
        {"csv", "text/csv"},
        {"mp4", "video/mp4"},
        {"webm", "video/webm"},
        {"mp3", "audio/mpeg"},
        {"ogg", "audio/ogg"},
        {"wav", "audio/vnd.wave"},
        {"zip", "application/zip"},
        {"gz", "application/gzip"},
        {"3g2", "video/3gpp2"}, // the first and the last ones of the table
        {"3gp", "video/3gpp"},
        {"zst", "application/zstd"},
    };
    for (const Row& row : rows) {
        EXPECT_STREQ(mime_type(row.extension), row.type) << row.extension;
    }
}

TEST(mime_type, does_not_mind_the_case)
{
    EXPECT_STREQ(mime_type("HTML"), "text/html");
    EXPECT_STREQ(mime_type("Png"), "image/png");
    EXPECT_STREQ(mime_type("7Z"), "application/x-7z-compressed");
}

TEST(mime_type, is_octet_stream_for_what_it_does_not_know)
{
    for (const char* extension : {"", "unknown", "htm1", "ht", "htmlx", "html ", ".html",
                                  "Makefile", "b/readme", "\xC3\xA4", "~", "\x01"}) {
        EXPECT_STREQ(mime_type(extension), "application/octet-stream") << extension;
    }
    EXPECT_STREQ(mime_type(nullptr), "application/octet-stream");
}

TEST(mime_type, carries_no_charset)
{
    for (const char* extension : {"html", "txt", "css", "js", "csv", "md", "xml"}) {
        EXPECT_EQ(std::string(mime_type(extension)).find(';'), std::string::npos) << extension;
    }
}

} // namespace
