#include "plugins/files/entity_tag.h"

#include <cstdio>

namespace {

void skip_blanks(std::string_view& text)
{
    while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) {
        text.remove_prefix(1);
    }
}

/// etagc: a quoted tag has neither quotes nor controls nor blanks in it (RFC 9110, 8.8.3).
bool is_tag_character(char c)
{
    const unsigned char byte = static_cast<unsigned char>(c);
    return byte > 0x20 && byte != '"' && byte != 0x7F;
}

/// Takes one tag off the front of `text`. @return false when there is none.
bool take_tag(std::string_view& text, std::string_view& opaque, bool& weak)
{
    weak = text.substr(0, 2) == "W/";
    if (weak) {
        text.remove_prefix(2);
    }
    if (text.empty() || text.front() != '"') {
        return false;
    }
    size_t end = 1;
    while (end < text.size() && is_tag_character(text[end])) {
        ++end;
    }
    if (end == text.size() || text[end] != '"') {
        return false;
    }
    opaque = text.substr(0, end + 1);
    text.remove_prefix(end + 1);
    return true;
}

} // namespace

Entity_Tag::Entity_Tag(const struct stat& status, bool encoded)
{
    const int length =
        std::snprintf(text_, sizeof(text_), "\"%llx-%llx-%llx.%lx%s\"",
                      static_cast<unsigned long long>(status.st_ino),
                      static_cast<unsigned long long>(status.st_size),
                      static_cast<unsigned long long>(status.st_mtim.tv_sec),
                      static_cast<unsigned long>(status.st_mtim.tv_nsec), encoded ? "-gz" : "");
    length_ = static_cast<size_t>(length);
}

bool entity_tag_in_list(std::string_view list, std::string_view tag, Tag_Comparison comparison)
{
    skip_blanks(list);
    if (list == "*") {
        return true;
    }
    while (true) {
        skip_blanks(list);
        while (!list.empty() && list.front() == ',') { // empty elements are allowed in a list
            list.remove_prefix(1);
            skip_blanks(list);
        }
        std::string_view opaque;
        bool weak = false;
        if (!take_tag(list, opaque, weak)) {
            return false;
        }
        if (opaque == tag && (!weak || comparison == Tag_Comparison::WEAK)) {
            return true;
        }
        skip_blanks(list);
        if (list.empty() || list.front() != ',') {
            return false;
        }
    }
}
