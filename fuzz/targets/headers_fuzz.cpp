// Header fields that a plug-in puts: what is stored is what a plain list of fields has after the
// same calls, and serialised and read back it is the same set, with nothing added to it.

#include "fuzz/common/check.h"
#include "fuzz/common/input.h"
#include "fuzz/common/plain_head.h"
#include "fuzz/common/plain_text.h"
#include "support/http_message.h"

#include <algorithm>
#include <string>

namespace {

using Fields = Plain_Head::Fields;

int id_of(std::string_view name)
{
    for (int id = 0; id < NUM_HTTP_HEADS; ++id) {
        if (plain::same(http_header_name(id), name)) {
            return id;
        }
    }
    return HTTP_HEAD_UNKNOWN;
}

/// The same calls on a plain list.
class Model {
public:
    const Fields& fields() const { return fields_; }

    /// @return whether the field may be put.
    bool put(std::string_view name, std::string_view value)
    {
        if (!plain::is_token(name) ||
            value.find_first_of(std::string_view("\r\n\0", 3)) != std::string_view::npos) {
            return false;
        }
        const int id = id_of(name);
        const auto found = this->find(name);
        if (found != fields_.end() && id != HTTP_HEAD_SET_COOKIE) {
            found->second = value;
        } else {
            fields_.emplace_back(id == HTTP_HEAD_UNKNOWN ? name : http_header_name(id), value);
        }
        return true;
    }

    bool remove(std::string_view name)
    {
        if (!plain::is_token(name)) {
            return false;
        }
        std::erase_if(fields_,
                      [name](const auto& field) { return plain::same(field.first, name); });
        return true;
    }

private:
    Fields::iterator find(std::string_view name)
    {
        return std::find_if(fields_.begin(), fields_.end(),
                            [name](const auto& field) { return plain::same(field.first, name); });
    }

    Fields fields_;
};

Fields fields_of(const HTTP_Headers& headers)
{
    Fields fields;
    for (const HTTP_Headers::Field& field : headers) {
        fields.emplace_back(field.name, field.value);
    }
    return fields;
}

void put_known(HTTP_Response& response, Model& model, Fuzz_Input& input)
{
    const int id = input.byte() % (NUM_HTTP_HEADS + 1);
    const std::string value(input.until('\n'));
    const int result = response.headers().put(id, std::string_view(value));
    FUZZ_CHECK((result == 0) == (id < NUM_HTTP_HEADS && model.put(http_header_name(id), value)),
               "a known field is put or refused against the rules");
}

void put_by_name(HTTP_Response& response, Model& model, Fuzz_Input& input)
{
    const std::string name(input.until(':'));
    const std::string value(input.until('\n'));
    const int result = response.headers().put(name, std::string_view(value));
    FUZZ_CHECK((result == 0) == model.put(name, value),
               "a field is put or refused against the rules");
}

void remove_by_name(HTTP_Response& response, Model& model, Fuzz_Input& input)
{
    const std::string name(input.until('\n'));
    const char* const none = nullptr;
    const int result = response.headers().put(name, none);
    FUZZ_CHECK((result == 0) == model.remove(name), "a field is removed against the rules");
}

/// Puts a part of what a field has in place of it: both lie in the message's memory.
void cut_value(HTTP_Response& response, Model& model, Fuzz_Input& input)
{
    const int id = input.byte() % NUM_HTTP_HEADS;
    const std::string_view value = response.headers().value(id);
    if (value.data() == nullptr || id == HTTP_HEAD_SET_COOKIE) {
        return;
    }
    const std::string_view part = value.substr(input.byte() % (value.size() + 1));
    const std::string copy(part);
    FUZZ_CHECK(response.headers().put(id, part) == 0, "a part of a value is refused");
    model.put(http_header_name(id), copy);
}

void put_framing(HTTP_Response& response, Model& model, Fuzz_Input& input)
{
    const std::uint8_t kind = input.byte();
    switch (kind % 6) {
    case 0:
    case 1:
        response.keep_alive(kind % 6 == 0);
        model.put("Connection", kind % 6 == 0 ? "Keep-Alive" : "close");
        break;
    case 2:
        response.chunked_transfer_encoding(true);
        model.put("Transfer-Encoding", "chunked");
        break;
    case 3:
        response.chunked_transfer_encoding(false);
        model.remove("Transfer-Encoding");
        break;
    default: {
        const std::uint64_t length = input.number() >> kind % 64;
        response.content_length(length);
        model.put("Content-Length", std::to_string(length));
        FUZZ_CHECK(response.content_length() == length, "another length is read back");
    }
    }
}

void take_step(HTTP_Response& response, Model& model, Fuzz_Input& input)
{
    switch (input.byte() % 6) {
    case 0:
        put_known(response, model, input);
        break;
    case 1:
    case 2:
        put_by_name(response, model, input);
        break;
    case 3:
        remove_by_name(response, model, input);
        break;
    case 4:
        cut_value(response, model, input);
        break;
    default:
        put_framing(response, model, input);
        break;
    }
}

void check_stored(const HTTP_Headers& headers, const Fields& fields)
{
    FUZZ_CHECK(fields_of(headers) == fields, "other fields are stored");
    for (const auto& [name, value] : fields) {
        const char* const found = headers.get(name);
        FUZZ_CHECK(found != nullptr, "a stored field is not found");
        const int id = id_of(name);
        FUZZ_CHECK(id == HTTP_HEAD_UNKNOWN || headers.get(id) == found,
                   "name and number give different values");
        FUZZ_CHECK(id == HTTP_HEAD_SET_COOKIE || found == value, "another value is found");
    }
}

/// Takes a serialised head apart without any leniency.
Fields read_back(std::string_view wire)
{
    constexpr std::string_view START = "HTTP/1.1 200 OK\r\n";
    FUZZ_CHECK(wire.starts_with(START), "another status line");
    wire.remove_prefix(START.size());
    Fields fields;
    while (!wire.starts_with("\r\n")) {
        const size_t end = wire.find("\r\n");
        FUZZ_CHECK(end != std::string_view::npos, "a line without an end");
        const std::string_view line = wire.substr(0, end);
        const size_t colon = line.find(": ");
        FUZZ_CHECK(colon != std::string_view::npos, "a line without a colon");
        fields.emplace_back(line.substr(0, colon), line.substr(colon + 2));
        wire.remove_prefix(end + 2);
    }
    FUZZ_CHECK(wire.size() == 2, "something behind the empty line");
    return fields;
}

void check_serialised(HTTP_Response& response, Fields fields)
{
    iovec part{};
    FUZZ_CHECK(response.to_iovec(&part, 1) == 1, "the head cannot be serialised");
    Fields read = read_back({static_cast<const char*>(part.iov_base), part.iov_len});
    if (!response.headers().has(HTTP_HEAD_DATE)) {
        FUZZ_CHECK(!read.empty() && read.back().first == "Date", "no date was added");
        read.pop_back();
    }
    FUZZ_CHECK(read == fields, "other fields are sent");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    fuzz_quiet_log();
    Fuzz_Input input(data, size);
    static HTTP_Response response; // that of a connection: one serves all answers
    for (int answer = 0; answer < 2; ++answer) {
        response.reset();
        Model model;
        for (int steps = input.byte() % 32; steps > 0 && !input.empty(); --steps) {
            take_step(response, model, input);
        }
        check_stored(response.headers(), model.fields());
        check_serialised(response, model.fields());
    }
    return 0;
}
