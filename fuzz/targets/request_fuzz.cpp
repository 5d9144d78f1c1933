// The head of a request: it arrives in pieces that the input chooses, in a buffer that is moved in
// between, and must give what it gives as a whole and what a plain reading of the rules gives.

#include "fuzz/common/check.h"
#include "fuzz/common/growing_block.h"
#include "fuzz/common/input.h"
#include "fuzz/common/plain_head.h"
#include "support/http_message.h"
#include "support/http_parser.h"

#include <cstring>

namespace {

/// The message is that of a connection: one serves all requests.
HTTP_Request& message()
{
    static HTTP_Request request;
    request.reset();
    return request;
}

HTTP_Parser_State expected_state(Plain_Head::Verdict verdict, HTTP_Parser_State state)
{
    switch (verdict) {
    case Plain_Head::MALFORMED:
        return HTTP_PARSER_STATE_ERROR;
    case Plain_Head::COMPLETE:
        return HTTP_PARSER_STATE_HEADERS_DONE;
    case Plain_Head::UNFINISHED:
        break;
    }
    FUZZ_CHECK(state == HTTP_PARSER_STATE_LINE_EXPECTED ||
                   state == HTTP_PARSER_STATE_HEADERS_PARSING,
               "an unfinished head must leave the parser waiting");
    return state;
}

void check_request_line(const HTTP_Request& request, const Plain_Head& head)
{
    FUZZ_CHECK(request.method_text() == head.method_, "another method");
    FUZZ_CHECK(request.uri(false) == head.target_, "another target");
    FUZZ_CHECK(request.uri(true) == head.path_, "another path");
    FUZZ_CHECK((request.query() != nullptr) == head.has_query_, "a query gained or lost");
    FUZZ_CHECK(!head.has_query_ || request.query() == head.query_, "another query");
    FUZZ_CHECK(request.authority() == head.authority_, "another authority");
    FUZZ_CHECK(request.minor_version() == head.minor_version_, "another version");
}

void check_fields(const HTTP_Request& request, const Plain_Head& head)
{
    const HTTP_Headers& headers = request.headers();
    FUZZ_CHECK(headers.size() == head.fields_.size(), "another number of fields");
    size_t i = 0;
    for (const HTTP_Headers::Field& field : headers) {
        const auto& [name, value] = head.fields_[i++];
        FUZZ_CHECK(field.name == name, "another field name");
        FUZZ_CHECK(field.value == value, "another field value");
        FUZZ_CHECK(field.value.data()[field.value.size()] == '\0', "a value without its NUL");
        FUZZ_CHECK(field.name.data()[field.name.size()] == '\0', "a name without its NUL");
        const char* const found = headers.get(name);
        FUZZ_CHECK(found != nullptr, "a field that is there is not found by its name");
        FUZZ_CHECK(name == "Set-Cookie" || found == value, "another field is found by the name");
    }
}

void check_result(HTTP_Parser_State state, const HTTP_Request& request, size_t consumed,
                  const Plain_Head& head)
{
    FUZZ_CHECK(state == expected_state(head.verdict_, state), "another verdict");
    if (state != HTTP_PARSER_STATE_HEADERS_DONE) {
        FUZZ_CHECK(consumed == 0, "bytes were consumed before the head was complete");
        return;
    }
    FUZZ_CHECK(consumed == head.size_, "another number of bytes left over");
    check_request_line(request, head);
    check_fields(request, head);
}

void parse_whole(std::string_view text, const Plain_Head& head)
{
    Growing_Block input(text);
    input.append(text.size());
    HTTP_Request& request = message();
    HTTP_Request_Parser parser;
    const HTTP_Parser_State state = parser.parse(input.block(), request);
    check_result(state, request, input.consumed(text), head);
}

void parse_in_pieces(std::string_view text, std::uint16_t choice, const Plain_Head& head)
{
    const size_t lead = choice >> 8 & 0x3F;
    Growing_Block input(text, lead);
    HTTP_Request& request = message();
    HTTP_Request_Parser parser;
    Pieces pieces(choice);
    HTTP_Parser_State state = HTTP_PARSER_STATE_LINE_EXPECTED;
    for (unsigned count = 0; input.left() > 0; ++count) {
        if (count == (choice >> 2 & 0x0FU)) {
            input.crunch();
        }
        input.append(pieces.next(input.left()));
        state = parser.parse(input.block(), request);
        if (state == HTTP_PARSER_STATE_ERROR || state == HTTP_PARSER_STATE_HEADERS_DONE) {
            break;
        }
    }
    check_result(state, request, input.consumed(text), head);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    fuzz_quiet_log();
    Fuzz_Input input(data, size);
    const std::uint16_t choice = input.word();
    const std::string_view text = input.rest();
    const Plain_Head head = plain_head(text);
    parse_whole(text, head);
    parse_in_pieces(text, choice, head);
    return 0;
}
