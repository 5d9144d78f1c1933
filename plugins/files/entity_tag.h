#pragma once

#include <sys/stat.h>

#include <string_view>

/// The entity tag of a file as it was when its status was read: quoted, strong.
class Entity_Tag {
public:
    /**
     * Made of inode, size and modification time, so that a file written anew or replaced has
     * another tag.
     * @param encoded  for the compressed form of a file, which never shares a tag with the plain
     *                 one (RFC 9110, section 8.8.3.3)
     */
    Entity_Tag(const struct stat& status, bool encoded);

    const char* c_str() const { return text_; }
    std::string_view view() const { return {text_, length_}; }

private:
    char text_[80];
    size_t length_;
};

/// RFC 9110, section 8.8.3.2.
enum class Tag_Comparison {
    STRONG, ///< a weak tag equals nothing
    WEAK    ///< `W/` is disregarded
};

/**
 * True when `tag` is in the list of an If-None-Match or If-Match field, or the list is "*". Text
 * that is not an entity tag ends the list.
 * @param tag  a strong tag with its quotes
 */
bool entity_tag_in_list(std::string_view list, std::string_view tag, Tag_Comparison comparison);
