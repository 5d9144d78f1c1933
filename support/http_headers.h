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
        std::uint32_t room;     ///< bytes for another value where it stands, 0 = not to be changed
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
    const char* get(int id, [[maybe_unused]] bool known = true) const
    {
        return this->value(id).data();
    }

    /// The same with its length.
    std::string_view value(int id) const
    {
        if (!this->has(id)) {
            return {};
        }
        const Position position = position_[id];
        return (position != FAR ? fields_[position] : *find_far(id)).value;
    }

    /// True when the message has that known field.
    bool has(int id) const
    {
        return static_cast<unsigned>(id) < NUM_HTTP_HEADS && (present_ >> id & 1U) != 0;
    }

    /// The value of the field of that name, known or not, compared without case; null when absent.
    const char* get(std::string_view name) const;

    /**
     * Sets a known field, replacing its value where it stands; null removes the field.
     * HTTP_HEAD_SET_COOKIE is added instead of replaced, since it may repeat (RFC 9110, 5.3).
     * @return 0; -1 with EINVAL and one error line when the value holds CR, LF or NUL or the
     *         number is unknown, with ENOMEM when there is no memory. Nothing is stored then.
     */
    int put(int id, const char* value, [[maybe_unused]] bool known = true)
    {
        return value != nullptr ? this->put(id, std::string_view(value)) : this->remove(id);
    }
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

    /**
     * The same without a copy, for a known field that the message does not have yet.
     * @param name   that of the table.
     * @param value  a C string in the message's arena.
     */
    int add_placed(int id, std::string_view name, std::string_view value)
    {
        return this->append(id, NOT_OURS, name, value);
    }

    /// The same for a field that is not in the table, whether the message has it or not.
    int add_placed(std::string_view name, std::string_view value);

    /**
     * Before the first field: room for `count` of them, and for `text` bytes that the next
     * allocation of the arena asks for, in one block.
     * @return false when there is no memory (ENOMEM).
     */
    bool reserve(std::uint32_t count, size_t text);

    size_t size() const { return size_; }

    /// All fields; good until the next put, add or reset.
    std::span<const Field> fields() const { return {fields_, size_}; }
    const Field* begin() const { return fields_; }
    const Field* end() const { return fields_ + size_; }

    /// Removes every field. The arena is the owner's to reset.
    void reset()
    {
        fields_ = nullptr;
        present_ = 0;
        size_ = 0;
        capacity_ = 0;
    }

    /// Fields for which there is room at first.
    enum : std::uint32_t { FIRST_FIELDS = 8 };

private:
    using Position = std::uint8_t;
    static constexpr Position FAR = 255; ///< at this position or behind it

    template <typename T>
    friend class HTTP_Base;

    /// Room of a text that is not to be changed where it stands.
    static constexpr std::uint32_t NOT_OURS = 0;

    /// put() for a value of the library's own, which cannot break the line.
    int put_clean(int id, std::string_view value);
    int put_anywhere(int id, std::string_view value);

    /// The same for a NUL-terminated text that lives for ever: it is not copied.
    int put_constant(int id, std::string_view value);

    /// Adds a field at the end: a known one that the message does not have yet.
    int append(int id, std::uint32_t room, std::string_view name, std::string_view value)
    {
        if (size_ == capacity_ && this->grow() == -1) {
            return -1;
        }
        this->note_position(id, size_);
        fields_[size_++] = {id, room, name, value};
        return 0;
    }

    /// Adds any field at the end.
    int append(const Field& field);

    void note_position(int id, std::uint32_t position)
    {
        present_ |= std::uint64_t{1} << id;
        position_[id] = static_cast<Position>(position < FAR ? position : FAR);
    }

    Field* find(int id);
    const Field* find_far(int id) const;
    Field* find_by_name(std::string_view name);
    Field* find_to_join(int id, std::string_view name);
    int copy_and_append(int id, std::string_view name, std::string_view value);
    int replace(Field& field, std::string_view value);
    int join(Field& field, std::string_view value);
    int remove(int id);
    void erase(Field* field);
    int grow();
    bool take_room(std::uint32_t capacity);
    void reindex();

    Arena& arena_;
    Field* fields_ = nullptr;   ///< in the arena
    std::uint64_t present_ = 0; ///< one bit for each known field
    std::uint32_t size_ = 0;
    std::uint32_t capacity_ = 0;
    Position position_[NUM_HTTP_HEADS]; ///< of the first in fields_, where present_ has its bit
};
