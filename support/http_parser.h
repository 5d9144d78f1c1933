#pragma once

#include "support/export.h"
#include "support/http_message.h"

#include <cstddef>

class ACE_Message_Block;

enum HTTP_Parser_State {
    HTTP_PARSER_STATE_ERROR = -1,          ///< malformed; final until reset()
    HTTP_PARSER_STATE_LINE_EXPECTED = 0,   ///< the start line is not complete
    HTTP_PARSER_STATE_HEADERS_PARSING = 1, ///< the empty line has not arrived
    HTTP_PARSER_STATE_HEADERS_DONE = 2     ///< the header was consumed; the body begins
};

/**
 * Incremental parser of a message header (RFC 9112), one per connection.
 *
 * It reads complete lines as they arrive and remembers how far it has looked, so that no byte is
 * scanned twice however the input is cut. It consumes nothing from the block until the empty line
 * has arrived, and then the whole header at once: a header that outgrows the block is the caller's
 * to notice. Between two calls the block may be crunched and may grow at its end.
 */
class HTTPD_SUPPORT_EXPORT HTTP_Parser {
public:
    HTTP_Parser() = default;
    virtual ~HTTP_Parser() = default;

    /**
     * Looks at the unread bytes of `block` and stores what it finds in `message`.
     * @return HTTP_PARSER_STATE_HEADERS_DONE: the read pointer stands at the first body byte;
     *         HTTP_PARSER_STATE_ERROR: malformed input, nothing is consumed.
     */
    HTTP_Parser_State parse(ACE_Message_Block& block, HTTP_Request& message);

    /// Ready for the next header. The message is the caller's to reset.
    void reset()
    {
        state_ = HTTP_PARSER_STATE_LINE_EXPECTED;
        line_ = 0;
        scanned_ = 0;
        field_lines_ = 0;
        empty_lines_ = 0;
    }

    enum : size_t { MAX_HEADER_LINES = 128, MAX_EMPTY_LINES = 2 };

protected:
    /// Reads the start line (without its CR LF) into `message`; false when it is malformed. The
    /// line lies in the message's arena, for the message to keep, with CGI_Request::PADDING behind
    /// it.
    virtual bool parse_start_line(char* begin, char* end, HTTP_Request& message) = 0;

private:
    struct Lines;

    bool find_lines(const char* text, size_t size, Lines& lines);
    bool parse_lines(const char* begin, const Lines& lines, HTTP_Request& message);
    HTTP_Parser_State parse_empty_line(HTTP_Request& message);
    HTTP_Parser_State fail();

    HTTP_Parser_State state_ = HTTP_PARSER_STATE_LINE_EXPECTED;
    size_t line_ = 0;    ///< offset from the read pointer of the line being read
    size_t scanned_ = 0; ///< offset from the read pointer of the first byte not looked at
    size_t field_lines_ = 0;
    size_t empty_lines_ = 0; ///< skipped before the start line
};

/// HTTP_Parser whose start line is a request line (RFC 9112, section 3).
class HTTPD_SUPPORT_EXPORT HTTP_Request_Parser : public HTTP_Parser {
protected:
    bool parse_start_line(char* begin, char* end, HTTP_Request& message) override;
};
