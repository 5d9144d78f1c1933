#include "support/http_headers.h"

#include "support/http_syntax.h"
#include "support/log.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>
#include <new>
#include <type_traits>

namespace {

bool is_known(int id)
{
    return id >= 0 && id < NUM_HTTP_HEADS;
}

// What would end the line for the peer, and let a value that came from a client add lines of its
// own to our response.
bool breaks_line(std::string_view value)
{
    for (const char c : value) {
        if (static_cast<unsigned char>(c) <= '\r' && (c == '\r' || c == '\n' || c == '\0')) {
            return true;
        }
    }
    return false;
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

HTTP_Headers::HTTP_Headers(Arena& arena) : arena_(arena) {}

const char* HTTP_Headers::get(int id, bool) const
{
    if (!is_known(id) || index_[id] == 0) {
        return nullptr;
    }
    return fields_[index_[id] - 1U].value.data();
}

const char* HTTP_Headers::get(std::string_view name) const
{
    const int id = http_header_id(name);
    if (id != HTTP_HEAD_UNKNOWN) {
        return get(id);
    }
    const Field* const field = find_by_name(name);
    return field == nullptr ? nullptr : field->value.data();
}

int HTTP_Headers::put(int id, const char* value, bool)
{
    if (!is_known(id)) {
        return refuse_number(id);
    }
    const std::string_view name = http_header_name(id);
    return value == nullptr ? remove(id, name) : put_i(id, name, value);
}

int HTTP_Headers::put(int id, std::string_view value)
{
    if (!is_known(id)) {
        return refuse_number(id);
    }
    return put_i(id, http_header_name(id), value);
}

int HTTP_Headers::put(std::string_view name, const char* value)
{
    if (value != nullptr) {
        return put(name, std::string_view(value));
    }
    const int id = http_header_id(name);
    if (id == HTTP_HEAD_UNKNOWN && !http_is_token(name)) {
        return refuse_name();
    }
    return remove(id, name);
}

int HTTP_Headers::put(std::string_view name, std::string_view value)
{
    const int id = http_header_id(name);
    if (id == HTTP_HEAD_UNKNOWN && !http_is_token(name)) {
        return refuse_name();
    }
    return put_i(id, id == HTTP_HEAD_UNKNOWN ? name : http_header_name(id), value);
}

int HTTP_Headers::put_i(int id, std::string_view name, std::string_view value)
{
    if (breaks_line(value)) {
        return refuse_value(name);
    }
    Field* const field = id == HTTP_HEAD_SET_COOKIE ? nullptr : find(id, name);
    return field == nullptr ? append(id, name, value) : replace(*field, value);
}

int HTTP_Headers::add(int id, std::string_view name, std::string_view value)
{
    if (is_known(id)) {
        const bool repeated = index_[id] != 0 && id != HTTP_HEAD_SET_COOKIE;
        return repeated ? join(fields_[index_[id] - 1U], value)
                        : append(id, http_header_name(id), value);
    }
    Field* const field = find(id, name);
    return field == nullptr ? append(id, name, value) : join(*field, value);
}

HTTP_Headers::Field* HTTP_Headers::find(int id, std::string_view name)
{
    if (is_known(id)) {
        return index_[id] == 0 ? nullptr : &fields_[index_[id] - 1U];
    }
    return const_cast<Field*>(find_by_name(name));
}

const HTTP_Headers::Field* HTTP_Headers::find_by_name(std::string_view name) const
{
    for (const Field& field : fields()) {
        if (field.id == HTTP_HEAD_UNKNOWN && http_equal_no_case(field.name, name)) {
            return &field;
        }
    }
    return nullptr;
}

int HTTP_Headers::append(int id, std::string_view name, std::string_view value)
{
    const bool known = is_known(id); // then the name is the table's, which lives for ever
    const char* const value_copy = arena_.copy(value);
    const char* const name_copy = known ? name.data() : arena_.copy(name);
    if (value_copy == nullptr || name_copy == nullptr) {
        return -1;
    }
    if (size_ == capacity_ && grow() == -1) {
        return -1;
    }
    new (&fields_[size_++]) Field{
        known ? id : HTTP_HEAD_UNKNOWN, 0, {name_copy, name.size()}, {value_copy, value.size()}};
    if (known && index_[id] == 0) {
        index_[id] = static_cast<Index>(size_);
    }
    return 0;
}

int HTTP_Headers::grow()
{
    constexpr std::uint32_t MOST = std::numeric_limits<Index>::max(); // the index counts no further
    if (size_ == MOST) {
        errno = ENOMEM;
        return -1;
    }
    const std::uint32_t capacity =
        fields_ == nullptr ? std::uint32_t{FIRST_FIELDS} : std::min(2 * capacity_, MOST);
    void* const memory = arena_.allocate(capacity * sizeof(Field));
    if (memory == nullptr) {
        return -1;
    }
    static_assert(std::is_trivially_copyable_v<Field>);
    if (size_ > 0) {
        std::memcpy(memory, fields_, size_ * sizeof(Field));
    }
    fields_ = static_cast<Field*>(memory);
    capacity_ = capacity;
    return 0;
}

int HTTP_Headers::replace(Field& field, std::string_view value)
{
    if (value.size() <= field.value.size()) { // fits; `value` may be a part of what stands there
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
    field.room = 0;
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

int HTTP_Headers::remove(int id, std::string_view name)
{
    Field* const field = find(id, name);
    if (field == nullptr) {
        return 0;
    }
    Field* const end = fields_ + size_;
    Field* const new_end =
        id == HTTP_HEAD_SET_COOKIE
            ? std::remove_if(field, end,
                             [](const Field& f) { return f.id == HTTP_HEAD_SET_COOKIE; })
            : std::move(field + 1, end, field);
    size_ = static_cast<std::uint32_t>(new_end - fields_);
    reindex();
    return 0;
}

void HTTP_Headers::reindex()
{
    std::fill(std::begin(index_), std::end(index_), Index{0});
    for (size_t i = size_; i > 0; --i) { // backwards: the first of a name stays
        const int id = fields_[i - 1].id;
        if (is_known(id)) {
            index_[id] = static_cast<Index>(i);
        }
    }
}

void HTTP_Headers::reset()
{
    fields_ = nullptr;
    size_ = 0;
    capacity_ = 0;
    std::fill(std::begin(index_), std::end(index_), Index{0});
}
