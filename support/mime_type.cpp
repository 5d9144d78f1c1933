#include "support/mime_type.h"

#include <algorithm>
#include <compare>
#include <iterator>
#include <string_view>

namespace {

struct Entry {
    std::string_view extension_; ///< in lower case
    const char* type_;
};

// The registered types (IANA), and for widespread formats without one the type that is in use.
// text/javascript: RFC 9239. Sorted by extension.
constexpr Entry ENTRIES[] = {
    {"3g2", "video/3gpp2"},
    {"3gp", "video/3gpp"},
    {"3mf", "model/3mf"},
    {"7z", "application/x-7z-compressed"},
    {"aac", "audio/aac"},
    {"ai", "application/postscript"},
    {"amr", "audio/AMR"},
    {"apk", "application/vnd.android.package-archive"},
    {"apng", "image/apng"},
    {"asc", "application/pgp-signature"},
    {"atom", "application/atom+xml"},
    {"atomcat", "application/atomcat+xml"},
    {"avi", "video/x-msvideo"},
    {"avif", "image/avif"},
    {"bin", "application/octet-stream"},
    {"bmp", "image/bmp"},
    {"bz2", "application/x-bzip2"},
    {"c", "text/plain"},
    {"cab", "application/vnd.ms-cab-compressed"},
    {"cer", "application/pkix-cert"},
    {"cjs", "text/javascript"},
    {"conf", "text/plain"},
    {"cpp", "text/plain"},
    {"crl", "application/pkix-crl"},
    {"crt", "application/pkix-cert"},
    {"css", "text/css"},
    {"csv", "text/csv"},
    {"dat", "application/octet-stream"},
    {"deb", "application/octet-stream"},
    {"der", "application/pkix-cert"},
    {"djv", "image/vnd.djvu"},
    {"djvu", "image/vnd.djvu"},
    {"dll", "application/octet-stream"},
    {"dmg", "application/octet-stream"},
    {"doc", "application/msword"},
    {"docx", "application/vnd.openxmlformats-officedocument.wordprocessingml.document"},
    {"dot", "application/msword"},
    {"dotx", "application/vnd.openxmlformats-officedocument.wordprocessingml.template"},
    {"dtd", "application/xml-dtd"},
    {"ear", "application/java-archive"},
    {"emf", "image/emf"},
    {"eml", "message/rfc822"},
    {"eot", "application/vnd.ms-fontobject"},
    {"eps", "application/postscript"},
    {"epub", "application/epub+zip"},
    {"exe", "application/octet-stream"},
    {"flac", "audio/flac"},
    {"flv", "video/x-flv"},
    {"geojson", "application/geo+json"},
    {"gif", "image/gif"},
    {"glb", "model/gltf-binary"},
    {"gltf", "model/gltf+json"},
    {"gpx", "application/gpx+xml"},
    {"gz", "application/gzip"},
    {"h", "text/plain"},
    {"heic", "image/heic"},
    {"heif", "image/heif"},
    {"htm", "text/html"},
    {"html", "text/html"},
    {"ico", "image/vnd.microsoft.icon"},
    {"ics", "text/calendar"},
    {"ifb", "text/calendar"},
    {"img", "application/octet-stream"},
    {"ini", "text/plain"},
    {"iso", "application/octet-stream"},
    {"jar", "application/java-archive"},
    {"jfif", "image/jpeg"},
    {"jp2", "image/jp2"},
    {"jpe", "image/jpeg"},
    {"jpeg", "image/jpeg"},
    {"jpg", "image/jpeg"},
    {"js", "text/javascript"},
    {"json", "application/json"},
    {"jsonld", "application/ld+json"},
    {"jxl", "image/jxl"},
    {"kml", "application/vnd.google-earth.kml+xml"},
    {"kmz", "application/vnd.google-earth.kmz"},
    {"ktx", "image/ktx"},
    {"ktx2", "image/ktx2"},
    {"latex", "application/x-latex"},
    {"log", "text/plain"},
    {"m2ts", "video/mp2t"},
    {"m3u8", "application/vnd.apple.mpegurl"},
    {"m4a", "audio/mp4"},
    {"m4s", "video/iso.segment"},
    {"m4v", "video/mp4"},
    {"map", "application/json"},
    {"markdown", "text/markdown"},
    {"mathml", "application/mathml+xml"},
    {"mbox", "application/mbox"},
    {"md", "text/markdown"},
    {"mid", "audio/midi"},
    {"midi", "audio/midi"},
    {"mjs", "text/javascript"},
    {"mka", "audio/matroska"},
    {"mkv", "video/matroska"},
    {"mml", "application/mathml+xml"},
    {"mov", "video/quicktime"},
    {"mp2", "audio/mpeg"},
    {"mp3", "audio/mpeg"},
    {"mp4", "video/mp4"},
    {"mp4v", "video/mp4"},
    {"mpd", "application/dash+xml"},
    {"mpe", "video/mpeg"},
    {"mpeg", "video/mpeg"},
    {"mpg", "video/mpeg"},
    {"mpga", "audio/mpeg"},
    {"msi", "application/octet-stream"},
    {"mtl", "model/mtl"},
    {"n3", "text/n3"},
    {"obj", "model/obj"},
    {"odf", "application/vnd.oasis.opendocument.formula"},
    {"odg", "application/vnd.oasis.opendocument.graphics"},
    {"odp", "application/vnd.oasis.opendocument.presentation"},
    {"ods", "application/vnd.oasis.opendocument.spreadsheet"},
    {"odt", "application/vnd.oasis.opendocument.text"},
    {"oga", "audio/ogg"},
    {"ogg", "audio/ogg"},
    {"ogv", "video/ogg"},
    {"ogx", "application/ogg"},
    {"opus", "audio/ogg"},
    {"otf", "font/otf"},
    {"p10", "application/pkcs10"},
    {"p12", "application/pkcs12"},
    {"p7s", "application/pkcs7-signature"},
    {"pdf", "application/pdf"},
    {"pem", "application/x-pem-file"},
    {"pfx", "application/pkcs12"},
    {"pgp", "application/pgp-encrypted"},
    {"png", "image/png"},
    {"pps", "application/vnd.ms-powerpoint"},
    {"ppsx", "application/vnd.openxmlformats-officedocument.presentationml.slideshow"},
    {"ppt", "application/vnd.ms-powerpoint"},
    {"pptx", "application/vnd.openxmlformats-officedocument.presentationml.presentation"},
    {"ps", "application/postscript"},
    {"psd", "image/vnd.adobe.photoshop"},
    {"qt", "video/quicktime"},
    {"rar", "application/vnd.rar"},
    {"rdf", "application/rdf+xml"},
    {"rpm", "application/x-rpm"},
    {"rss", "application/rss+xml"},
    {"rtf", "application/rtf"},
    {"sgml", "text/sgml"},
    {"sh", "application/x-sh"},
    {"shtml", "text/html"},
    {"smi", "application/smil+xml"},
    {"smil", "application/smil+xml"},
    {"so", "application/octet-stream"},
    {"sql", "application/sql"},
    {"step", "model/step"},
    {"stl", "model/stl"},
    {"stp", "model/step"},
    {"svg", "image/svg+xml"},
    {"svgz", "image/svg+xml"},
    {"swf", "application/vnd.adobe.flash.movie"},
    {"tar", "application/x-tar"},
    {"tex", "application/x-tex"},
    {"text", "text/plain"},
    {"tif", "image/tiff"},
    {"tiff", "image/tiff"},
    {"toml", "application/toml"},
    {"torrent", "application/x-bittorrent"},
    {"ts", "video/mp2t"},
    {"tsv", "text/tab-separated-values"},
    {"ttc", "font/collection"},
    {"ttf", "font/ttf"},
    {"ttl", "text/turtle"},
    {"txt", "text/plain"},
    {"uri", "text/uri-list"},
    {"uris", "text/uri-list"},
    {"vcard", "text/vcard"},
    {"vcf", "text/vcard"},
    {"vsd", "application/vnd.visio"},
    {"vtt", "text/vtt"},
    {"war", "application/java-archive"},
    {"wasm", "application/wasm"},
    {"wav", "audio/vnd.wave"},
    {"weba", "audio/webm"},
    {"webm", "video/webm"},
    {"webmanifest", "application/manifest+json"},
    {"webp", "image/webp"},
    {"wma", "audio/x-ms-wma"},
    {"wmf", "image/wmf"},
    {"wmv", "video/x-ms-wmv"},
    {"woff", "font/woff"},
    {"woff2", "font/woff2"},
    {"wsdl", "application/wsdl+xml"},
    {"xht", "application/xhtml+xml"},
    {"xhtml", "application/xhtml+xml"},
    {"xls", "application/vnd.ms-excel"},
    {"xlsx", "application/vnd.openxmlformats-officedocument.spreadsheetml.sheet"},
    {"xml", "application/xml"},
    {"xsd", "application/xml"},
    {"xsl", "application/xslt+xml"},
    {"xslt", "application/xslt+xml"},
    {"xz", "application/x-xz"},
    {"yaml", "application/yaml"},
    {"yml", "application/yaml"},
    {"zip", "application/zip"},
    {"zst", "application/zstd"},
};

constexpr char lower(char c)
{
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

/// Whether the extension of an entry comes before `key`, whatever the key's case.
constexpr bool is_before(std::string_view extension, std::string_view key)
{
    return std::lexicographical_compare(extension.begin(), extension.end(), key.begin(), key.end(),
                                        [](char a, char b) { return lower(a) < lower(b); });
}

constexpr bool is_sorted()
{
    for (size_t i = 1; i < std::size(ENTRIES); ++i) {
        if (!is_before(ENTRIES[i - 1].extension_, ENTRIES[i].extension_)) {
            return false;
        }
    }
    return true;
}

static_assert(is_sorted(), "the search needs sorted extensions, each once");

} // namespace

const char* mime_type(const char* extension)
{
    constexpr const char* UNKNOWN = "application/octet-stream";
    if (extension == nullptr) {
        return UNKNOWN;
    }
    const std::string_view key(extension);
    const Entry* const found = std::lower_bound(std::begin(ENTRIES), std::end(ENTRIES), key,
                                                [](const Entry& entry, std::string_view text) {
                                                    return is_before(entry.extension_, text);
                                                });
    if (found == std::end(ENTRIES) || is_before(key, found->extension_)) {
        return UNKNOWN;
    }
    return found->type_;
}
