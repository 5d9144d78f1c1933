#pragma once

#include "support/arena.h"
#include "support/export.h"
#include "support/http_header_id.h"

#include <cstdint>
#include <span>
#include <string_view>

/**
 * The header fields of one message, in the order in which they were put.
 *
 * Known fields are found by number in one step (HTTP_Header_Id), all others by name without case.
 * Values are kept as C strings in the message's arena: a pointer that `get` returned is good until
 * the next `reset`, or until the same field is put again. Used by one thread at a time.
 */
class HTTPD_SUPPORT_EXPORT HTTP_Headers {
public:
    struct Field {
        int id;                 ///< HTTP_HEAD_UNKNOWN for a name that is not in the table
        std::uint32_t room;     ///< bytes that a joined value may grow to where it stands, else 0
        std::string_view name;  ///< as in the table, else as received or put; NUL-terminated
        std::string_view value; ///< NUL-terminated
    };

    explicit HTTP_Headers(Arena& arena);
    HTTP_Headers(const HTTP_Headers&) = delete;
    HTTP_Headers& operator=(const HTTP_Headers&) = delete;

    /**
     * The value of a known field, or null when the message does not have it.
     * @param id     an HTTP_HEAD_ number; any other gives null.
     * @param known  means the table of known fields; it has no other effect.
     */
    const char* get(int id, bool known = true) const;

    /// The value of the field of that name, known or not, compared without case; null when absent.
    const char* get(std::string_view name) const;

    /**
     * Sets a known field, replacing its value where it stands; null removes the field.
     * HTTP_HEAD_SET_COOKIE is added instead of replaced, since it may repeat (RFC 9110, 5.3).
     * @return 0; -1 with EINVAL and one error line when the value holds CR, LF or NUL or the
     *         number is unknown, with ENOMEM when there is no memory. Nothing is stored then.
     */
    int put(int id, const char* value, bool known = true);
    int put(int id, std::string_view value);

    /// The same by name; a name that is not a token (RFC 9110, 5.6.2) is EINVAL too.
    int put(std::string_view name, const char* value);
    int put(std::string_view name, std::string_view value);

    /**
     * Adds a received field: a repeated one is joined to the earlier with ", " (RFC 9110, 5.3), a
     * Cookie with "; ", since a comma does not separate cookies; Set-Cookie is never joined.
     * `name` and `value` are copied; they have been checked by the parser.
     * @return 0, or -1 with ENOMEM.
     */
    int add(int id, std::string_view name, std::string_view value);

    size_t size() const { return size_; }

    /// All fields; good until the next put, add or reset.
    std::span<const Field> fields() const { return {fields_, size_}; }
    const Field* begin() const { return fields_; }
    const Field* end() const { return fields_ + size_; }

    /// Removes every field. The arena is the owner's to reset.
    void reset();

    /// Fields for which there is room at first.
    enum : std::uint32_t { FIRST_FIELDS = 8 };

private:
    using Index = std::uint16_t;

    Field* find(int id, std::string_view name);
    const Field* find_by_name(std::string_view name) const;
    int put_i(int id, std::string_view name, std::string_view value);
    int append(int id, std::string_view name, std::string_view value);
    int replace(Field& field, std::string_view value);
    int join(Field& field, std::string_view value);
    int remove(int id, std::string_view name);
    int grow();
    void reindex();

    Arena& arena_;
    Field* fields_ = nullptr; ///< in the arena
    std::uint32_t size_ = 0;
    std::uint32_t capacity_ = 0;
    Index index_[NUM_HTTP_HEADS] = {}; ///< 1 + position of the first in fields_, 0 = absent
};
