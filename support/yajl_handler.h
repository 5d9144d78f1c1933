#pragma once

#include "support/export.h"

#include <cstddef>
#include <string>
#include <string_view>

struct yajl_handle_t;

/**
 * Receives a JSON text (RFC 8259, with comments and a leading byte order mark) as calls, one per
 * element, while it is fed in pieces of any size. Texts given to the calls live until they return.
 *
 * A call returns 1 to go on and 0 to end the parse with an error. An exception that leaves a call
 * ends the parse as well. Used by one thread at a time.
 */
class HTTPD_SUPPORT_EXPORT YAJL_Handler {
public:
    YAJL_Handler();
    virtual ~YAJL_Handler();
    YAJL_Handler(const YAJL_Handler&) = delete;
    YAJL_Handler& operator=(const YAJL_Handler&) = delete;

    /// Containers may be nested as deep as this; deeper is an error.
    enum : unsigned int { MAX_DEPTH = 64 };

    /**
     * Starts a new text and forgets the one before.
     * @param source  what the text is called in log lines, a file's path.
     * @return 0, or -1 with errno ENOMEM.
     */
    int begin(const char* source);

    /// Takes the next piece. 0, or -1 with errno (EINVAL: see error(); ENOMEM); then only begin()
    /// helps.
    int feed(std::string_view piece);

    /// Ends the text. Results as of feed().
    int finish();

    /// Why the parse ended: one line, without a full stop.
    const std::string& error() const { return error_; }

    /// Where it ended, counted from 1, in characters: the last one that the parser took, or the
    /// last one of the value behind which a comma is missing.
    unsigned long line() const { return line_; }
    unsigned long column() const { return column_ == 0 ? 1 : column_; }

    const std::string& source() const { return source_; }

    virtual int handle_begin_i() { return 1; } ///< a new text begins: forget the old one's state
    virtual int handle_null_i() = 0;
    virtual int handle_boolean_i(bool value) = 0;
    virtual int handle_integer_i(long long value) = 0;
    virtual int handle_double_i(double value) = 0;

    /// Every number, as it is written. Gives it on as an integer when it is one of 64 bits, else as
    /// a double.
    virtual int handle_number_i(const char* text, size_t length);

    virtual int handle_string_i(const char* text, size_t length) = 0;
    virtual int handle_map_key_i(const char* text, size_t length) = 0;
    virtual int handle_start_map_i() = 0;
    virtual int handle_end_map_i() = 0;
    virtual int handle_start_array_i() = 0;
    virtual int handle_end_array_i() = 0;

private:
    friend struct YAJL_Callbacks;

    int parse_piece(std::string_view piece);
    int fail();
    void note_token();
    void advance(size_t offset);
    void drop_parser();

    yajl_handle_t* parser_ = nullptr;
    std::string source_;
    std::string error_;
    unsigned long line_ = 1;
    unsigned long column_ = 0;     ///< characters of this line so far
    unsigned long token_line_ = 1; ///< where the last complete token ends
    unsigned long token_column_ = 0;
    std::string_view piece_; ///< that the parser works on
    size_t counted_ = 0;     ///< bytes of it that line_ and column_ include
    unsigned int depth_ = 0;
    size_t mark_seen_ = 0; ///< bytes of the byte order mark that were skipped
    bool at_start_ = true; ///< a byte order mark may still come
    bool out_of_memory_ = false;
};
