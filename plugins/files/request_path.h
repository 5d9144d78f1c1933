#pragma once

#include <climits>
#include <string_view>

/**
 * The name of a file below the root as a request spells it: decoded, and checked so that nothing in
 * it can mean another place than the letters say.
 */
class Request_Path {
public:
    /**
     * @param path    of the request, from its first slash on
     * @param offset  where the part below the plug-in's own URI begins
     * @return false for a path that names no file: malformed percent-encoding; a control character,
     *         slash or backslash written as an encoding; a raw backslash or `#`; an empty name; a
     *         name that begins with "." (`.`, `..` and hidden files) except `.well-known`; or one
     *         that is too long.
     */
    bool decode(std::string_view path, size_t offset);

    /**
     * What of a request's path stands below the plug-in's own URI, as it is spelt.
     * @return false when the offset is at no border of a name.
     */
    static bool below(std::string_view path, size_t offset, std::string_view& names);

    /// Relative to the root; "" is the root itself. No slash at either end.
    const char* c_str() const { return text_; }

    /// The request's path ended with a slash: it names a directory.
    bool ends_with_slash() const { return slash_; }

    /**
     * The request spells the name the one way that this server uses: characters that a path may
     * hold (RFC 3986, 3.3) as they are, all others encoded with capital digits. A name must not
     * have two spellings, since an authenticator is bound to a URI by its spelling.
     */
    bool is_canonical() const { return canonical_; }

    /// Goes down to `name` in the directory. @return false when that is too long.
    bool enter(std::string_view name);

    /// Adds to the last name. @return false when that is too long.
    bool append(std::string_view suffix);

    /// What stands behind the last "." of the last name; "" when there is none.
    const char* extension() const;

private:
    bool decode_names(std::string_view names);

    char text_[PATH_MAX];
    size_t length_ = 0;
    bool slash_ = false;
    bool canonical_ = true;
};

/// The most bytes that encode_path_byte() writes.
constexpr size_t MAX_ENCODED_SIZE = 3;

/// Writes one byte of a path in its canonical spelling. @return behind what was written
char* encode_path_byte(char byte, char* text);
