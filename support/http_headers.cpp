#include "support/http_headers.h"

#include "support/http_header_table.h"
#include "support/http_syntax.h"
#include "support/log.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>
#include <type_traits>

namespace {

bool is_known(int id)
{
    return id >= 0 && id < NUM_HTTP_HEADS;
}

/// A copy's room: what its size and the NUL take, or less where a number of 32 bits cannot tell.
std::uint32_t room_of(std::string_view copy)
{
    return static_cast<std::uint32_t>(copy.size() + 1);
}

int refuse_number(int id)
{
    errno = EINVAL;
    HTTPD_ERROR("HTTP header number %d is unknown.", id);
    return -1;
}

int refuse_name()
{
    errno = EINVAL;
    HTTPD_ERROR("HTTP header name is not a token.");
    return -1;
}

int refuse_value(std::string_view name)
{
    errno = EINVAL;
    HTTPD_ERROR("The value of HTTP header '%.*s' holds a line end or a NUL.",
                static_cast<int>(std::min<size_t>(name.size(), 128)), name.data());
    return -1;
}

} // namespace

// Where present_ lacks a field's bit its position is not looked at, so the table needs no value.
HTTP_Headers::HTTP_Headers(Arena& arena) : arena_(arena) {}

const char* HTTP_Headers::get(std::string_view name) const
{
    const int id = http_header_id(name);
    if (id != HTTP_HEAD_UNKNOWN) {
        return get(id);
    }
    const Field* const field = const_cast<HTTP_Headers*>(this)->find_by_name(name);
    return field == nullptr ? nullptr : field->value.data();
}

int HTTP_Headers::put(int id, std::string_view value)
{
    if (!is_known(id)) {
        return refuse_number(id);
    }
    if (http_breaks_line(value)) {
        return refuse_value(HTTP_HEADER_NAMES[id]);
    }
    return put_clean(id, value);
}

int HTTP_Headers::put_clean(int id, std::string_view value)
{
    constexpr size_t SHORT = 4 * Text_Chunk::SIZE;
    if (this->has(id) || size_ == capacity_ || value.size() > SHORT ||
        !arena_.has_text(value.size() + 1)) {
        return put_anywhere(id, value);
    }
    // The text last: as far as the compiler knows, writing characters may change anything.
    char* const copy = arena_.allocate_text(value.size() + 1);
    note_position(id, size_);
    fields_[size_++] = {id, room_of(value), HTTP_HEADER_NAMES[id], {copy, value.size()}};
    *copy_short(copy, value) = '\0';
    return 0;
}

/// put_clean() for whatever has no entry or no memory waiting for it. Not inline, so that
/// put_clean() needs no frame.
[[gnu::noinline]] int HTTP_Headers::put_anywhere(int id, std::string_view value)
{
    if (fields_ == nullptr && grow() == 0 && arena_.has_text(value.size() + 1)) {
        return put_clean(id, value); // the first of a message
    }
    return this->has(id) && id != HTTP_HEAD_SET_COOKIE
               ? replace(*find(id), value)
               : copy_and_append(id, HTTP_HEADER_NAMES[id], value);
}

int HTTP_Headers::put_constant(int id, std::string_view value)
{
    if (!this->has(id)) {
        return add_placed(id, HTTP_HEADER_NAMES[id], value);
    }
    Field& field = *find(id);
    field.value = value;
    field.room = NOT_OURS;
    return 0;
}

int HTTP_Headers::put(std::string_view name, const char* value)
{
    if (value != nullptr) {
        return put(name, std::string_view(value));
    }
    const int id = http_header_id(name);
    if (id != HTTP_HEAD_UNKNOWN) {
        return remove(id);
    }
    if (!http_is_token(name)) {
        return refuse_name();
    }
    if (Field* const field = find_by_name(name)) {
        erase(field);
    }
    return 0;
}

int HTTP_Headers::put(std::string_view name, std::string_view value)
{
    const int id = http_header_id(name);
    if (id != HTTP_HEAD_UNKNOWN) {
        return put(id, value);
    }
    if (!http_is_token(name)) {
        return refuse_name();
    }
    if (http_breaks_line(value)) {
        return refuse_value(name);
    }
    Field* const field = find_by_name(name);
    return field == nullptr ? copy_and_append(id, name, value) : replace(*field, value);
}

int HTTP_Headers::add(int id, std::string_view name, std::string_view value)
{
    if (is_known(id)) {
        name = HTTP_HEADER_NAMES[id];
    }
    Field* const earlier = find_to_join(id, name);
    return earlier == nullptr ? copy_and_append(id, name, value) : join(*earlier, value);
}

int HTTP_Headers::add_placed(std::string_view name, std::string_view value)
{
    Field* const earlier = find_by_name(name);
    return earlier == nullptr ? append({HTTP_HEAD_UNKNOWN, NOT_OURS, name, value})
                              : join(*earlier, value);
}

/// The field that one more value of that name is joined to.
HTTP_Headers::Field* HTTP_Headers::find_to_join(int id, std::string_view name)
{
    if (!is_known(id)) {
        return find_by_name(name);
    }
    return id == HTTP_HEAD_SET_COOKIE ? nullptr : find(id);
}

HTTP_Headers::Field* HTTP_Headers::find(int id)
{
    if (!this->has(id)) {
        return nullptr;
    }
    return position_[id] != FAR ? &fields_[position_[id]] : const_cast<Field*>(find_far(id));
}

const HTTP_Headers::Field* HTTP_Headers::find_far(int id) const
{
    const Field* field = fields_ + FAR;
    while (field->id != id) {
        ++field;
    }
    return field;
}

HTTP_Headers::Field* HTTP_Headers::find_by_name(std::string_view name)
{
    for (Field* field = fields_; field != fields_ + size_; ++field) {
        if (field->id == HTTP_HEAD_UNKNOWN && http_equal_no_case(field->name, name)) {
            return field;
        }
    }
    return nullptr;
}

int HTTP_Headers::copy_and_append(int id, std::string_view name, std::string_view value)
{
    const bool known = is_known(id); // then the name is the table's, which lives for ever
    const char* const value_copy = arena_.copy(value);
    const char* const name_copy = known ? name.data() : arena_.copy(name);
    if (value_copy == nullptr || name_copy == nullptr) {
        return -1;
    }
    return append({known ? id : HTTP_HEAD_UNKNOWN,
                   room_of(value),
                   {name_copy, name.size()},
                   {value_copy, value.size()}});
}

int HTTP_Headers::append(const Field& field)
{
    if (size_ == capacity_ && grow() == -1) {
        return -1;
    }
    if (field.id != HTTP_HEAD_UNKNOWN && !this->has(field.id)) {
        note_position(field.id, size_);
    }
    fields_[size_++] = field;
    return 0;
}

bool HTTP_Headers::reserve(std::uint32_t count, size_t text)
{
    if (capacity_ != 0) {
        return true;
    }
    constexpr size_t PADDING = alignof(std::max_align_t) - 1;
    return arena_.reserve(PADDING + count * sizeof(Field) + text) && take_room(count);
}

int HTTP_Headers::grow()
{
    constexpr std::uint32_t MOST = std::numeric_limits<std::uint16_t>::max();
    if (size_ == MOST) {
        errno = ENOMEM;
        return -1;
    }
    return take_room(fields_ == nullptr ? std::uint32_t{FIRST_FIELDS}
                                        : std::min(2 * capacity_, MOST))
               ? 0
               : -1;
}

/// Moves the fields into room for `capacity` of them.
bool HTTP_Headers::take_room(std::uint32_t capacity)
{
    void* const memory = arena_.allocate(capacity * sizeof(Field));
    if (memory == nullptr) {
        return false;
    }
    static_assert(std::is_trivially_copyable_v<Field>);
    if (size_ > 0) {
        std::memcpy(memory, fields_, size_ * sizeof(Field));
    }
    fields_ = static_cast<Field*>(memory);
    capacity_ = capacity;
    return true;
}

int HTTP_Headers::replace(Field& field, std::string_view value)
{
    if (value.size() < field.room) { // fits; `value` may be a part of what stands there
        char* const text = const_cast<char*>(field.value.data());
        if (!value.empty()) {
            std::memmove(text, value.data(), value.size());
        }
        text[value.size()] = '\0';
        field.value = {text, value.size()};
        return 0;
    }
    const char* const copy = arena_.copy(value);
    if (copy == nullptr) {
        return -1;
    }
    field.value = {copy, value.size()};
    field.room = room_of(value);
    return 0;
}

// A joined value gets twice the room that it needs: copying it anew for each of many repetitions
// would let a header of n bytes take memory and time in the order of n times its lines.
int HTTP_Headers::join(Field& field, std::string_view value)
{
    const size_t size = field.value.size() + 2 + value.size();
    char* text = const_cast<char*>(field.value.data());
    if (size >= field.room) {
        const size_t room = 2 * (size + 1);
        if (room > std::numeric_limits<std::uint32_t>::max()) {
            errno = ENOMEM;
            return -1;
        }
        text = arena_.allocate_text(room);
        if (text == nullptr) {
            return -1;
        }
        std::memcpy(text, field.value.data(), field.value.size());
        field.room = static_cast<std::uint32_t>(room);
    }
    char* end = text + field.value.size();
    *end++ = field.id == HTTP_HEAD_COOKIE ? ';' : ',';
    *end++ = ' ';
    if (!value.empty()) {
        std::memcpy(end, value.data(), value.size());
    }
    text[size] = '\0';
    field.value = {text, size};
    return 0;
}

int HTTP_Headers::remove(int id)
{
    if (!is_known(id)) {
        return refuse_number(id);
    }
    if (!this->has(id)) {
        return 0;
    }
    if (id != HTTP_HEAD_SET_COOKIE) {
        erase(find(id));
        return 0;
    }
    const Field* const rest = std::remove_if(find(id), fields_ + size_, [](const Field& field) {
        return field.id == HTTP_HEAD_SET_COOKIE;
    });
    size_ = static_cast<std::uint32_t>(rest - fields_);
    reindex();
    return 0;
}

void HTTP_Headers::erase(Field* field)
{
    std::move(field + 1, fields_ + size_, field);
    --size_;
    reindex();
}

void HTTP_Headers::reindex()
{
    present_ = 0;
    for (std::uint32_t i = size_; i > 0; --i) { // backwards: the first of a name stays
        if (fields_[i - 1].id != HTTP_HEAD_UNKNOWN) {
            note_position(fields_[i - 1].id, i - 1);
        }
    }
}
