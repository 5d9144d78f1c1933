#include "support/yajl_handler.h"

#include "support/scoped_deleter.h"
#include "support/utf8_check.h"

#include <cerrno>
#include <charconv>
#include <cstdint>
#include <new>
#include <system_error>
#include <yajl/yajl_parse.h>

namespace {

constexpr std::string_view BYTE_ORDER_MARK = "\xEF\xBB\xBF";

// With this reason alone the parser steps back from where it found the error, as far as the piece
// reaches; the end of the value that lacks the comma is a better place, whatever the pieces.
constexpr std::string_view NO_COMMA = "parse error: after key and value";

/// The parser's text ends in a newline, sometimes in a full stop before it.
std::string_view one_line(std::string_view text)
{
    const size_t last = text.find_last_not_of(".\n ");
    return last == std::string_view::npos ? std::string_view() : text.substr(0, last + 1);
}

/// The parser's own check sees the form of the bytes only.
bool is_utf8(std::string_view text)
{
    std::uint8_t state = UTF8_Check::COMPLETE;
    return UTF8_Check::feed(state, text.data(), text.size()) && state == UTF8_Check::COMPLETE;
}

} // namespace

/// The parser's C callbacks: no exception may unwind through its frames.
struct YAJL_Callbacks {
    template <class Call>
    static int run(void* context, Call call)
    {
        YAJL_Handler& handler = *static_cast<YAJL_Handler*>(context);
        handler.note_token();
        try {
            return call(handler);
        } catch (const std::bad_alloc&) {
            handler.out_of_memory_ = true;
        } catch (...) {
        }
        return 0;
    }

    static bool enter(YAJL_Handler& handler)
    {
        if (handler.depth_ == YAJL_Handler::MAX_DEPTH) {
            handler.error_ = "nested deeper than " + std::to_string(handler.depth_) + " levels";
            return false;
        }
        ++handler.depth_;
        return true;
    }

    static std::string_view view(const unsigned char* text, size_t length)
    {
        return {reinterpret_cast<const char*>(text), length};
    }

    static bool check_text(YAJL_Handler& handler, std::string_view text)
    {
        if (!is_utf8(text)) {
            handler.error_ = "lexical error: invalid bytes in UTF8 string";
            return false;
        }
        return true;
    }

    static int null(void* context)
    {
        return run(context, [](YAJL_Handler& handler) { return handler.handle_null_i(); });
    }

    static int boolean(void* context, int value)
    {
        return run(context,
                   [=](YAJL_Handler& handler) { return handler.handle_boolean_i(value != 0); });
    }

    static int number(void* context, const char* text, size_t length)
    {
        return run(context,
                   [=](YAJL_Handler& handler) { return handler.handle_number_i(text, length); });
    }

    static int string(void* context, const unsigned char* text, size_t length)
    {
        return run(context, [=](YAJL_Handler& handler) {
            return check_text(handler, view(text, length))
                       ? handler.handle_string_i(view(text, length).data(), length)
                       : 0;
        });
    }

    static int map_key(void* context, const unsigned char* text, size_t length)
    {
        return run(context, [=](YAJL_Handler& handler) {
            return check_text(handler, view(text, length))
                       ? handler.handle_map_key_i(view(text, length).data(), length)
                       : 0;
        });
    }

    static int start_map(void* context)
    {
        return run(context, [](YAJL_Handler& handler) {
            return enter(handler) ? handler.handle_start_map_i() : 0;
        });
    }

    static int end_map(void* context)
    {
        return run(context, [](YAJL_Handler& handler) {
            --handler.depth_;
            return handler.handle_end_map_i();
        });
    }

    static int start_array(void* context)
    {
        return run(context, [](YAJL_Handler& handler) {
            return enter(handler) ? handler.handle_start_array_i() : 0;
        });
    }

    static int end_array(void* context)
    {
        return run(context, [](YAJL_Handler& handler) {
            --handler.depth_;
            return handler.handle_end_array_i();
        });
    }

    static const yajl_callbacks TABLE;
};

// With a number callback the parser converts no number itself, and so refuses none for its size.
const yajl_callbacks YAJL_Callbacks::TABLE = {null,    boolean,     nullptr,   nullptr,
                                              number,  string,      start_map, map_key,
                                              end_map, start_array, end_array};

YAJL_Handler::YAJL_Handler() = default;

YAJL_Handler::~YAJL_Handler()
{
    drop_parser();
}

void YAJL_Handler::drop_parser()
{
    if (parser_ != nullptr) {
        yajl_free(parser_);
        parser_ = nullptr;
    }
}

int YAJL_Handler::begin(const char* source)
{
    drop_parser();
    line_ = 1;
    column_ = 0;
    depth_ = 0;
    mark_seen_ = 0;
    at_start_ = true;
    out_of_memory_ = false;
    try {
        source_ = source;
        error_.clear();
        parser_ =
            handle_begin_i() == 0 ? nullptr : yajl_alloc(&YAJL_Callbacks::TABLE, nullptr, this);
    } catch (const std::bad_alloc&) {
    }
    if (parser_ == nullptr || yajl_config(parser_, yajl_allow_comments, 1) == 0) {
        drop_parser();
        errno = ENOMEM;
        return -1;
    }
    return 0;
}

int YAJL_Handler::feed(std::string_view piece)
{
    while (at_start_ && !piece.empty()) {
        if (piece[0] == BYTE_ORDER_MARK[mark_seen_]) {
            piece.remove_prefix(1);
            at_start_ = ++mark_seen_ < BYTE_ORDER_MARK.size();
        } else {
            at_start_ = false;
            if (parse_piece(BYTE_ORDER_MARK.substr(0, mark_seen_)) == -1) {
                return -1;
            }
        }
    }
    return parse_piece(piece);
}

int YAJL_Handler::parse_piece(std::string_view piece)
{
    if (parser_ == nullptr) {
        errno = EINVAL;
        return -1;
    }
    if (piece.empty()) {
        return 0;
    }
    piece_ = piece;
    counted_ = 0;
    const auto* const text = reinterpret_cast<const unsigned char*>(piece.data());
    if (yajl_parse(parser_, text, piece.size()) != yajl_status_ok) {
        return fail();
    }
    advance(piece.size());
    return 0;
}

int YAJL_Handler::finish()
{
    if (at_start_ && parse_piece(BYTE_ORDER_MARK.substr(0, mark_seen_)) == -1) {
        return -1; // the text is a piece of a byte order mark
    }
    if (parser_ == nullptr) {
        errno = EINVAL;
        return -1;
    }
    piece_ = {};
    counted_ = 0;
    if (yajl_complete_parse(parser_) != yajl_status_ok) {
        return fail();
    }
    drop_parser();
    return 0;
}

/// Keeps the reason and the place of a failure; the parser is of no more use.
int YAJL_Handler::fail()
{
    const bool out_of_memory = out_of_memory_;
    try {
        if (error_.empty()) {
            unsigned char* const text = yajl_get_error(parser_, 0, nullptr, 0);
            if (text != nullptr) {
                const auto free_text = make_deleter([=, this] { yajl_free_error(parser_, text); });
                error_ = one_line(reinterpret_cast<const char*>(text));
            }
        }
    } catch (const std::bad_alloc&) {
    }
    if (error_.starts_with(NO_COMMA)) {
        line_ = token_line_;
        column_ = token_column_;
    } else {
        advance(yajl_get_bytes_consumed(parser_));
    }
    drop_parser();
    errno = out_of_memory ? ENOMEM : EINVAL;
    return -1;
}

/// Remembers where the token ends that the parser reports now.
void YAJL_Handler::note_token()
{
    advance(yajl_get_bytes_consumed(parser_));
    token_line_ = line_;
    token_column_ = column_;
}

/// Counts lines and characters up to `offset` in the current piece.
void YAJL_Handler::advance(size_t offset)
{
    for (; counted_ < offset && counted_ < piece_.size(); ++counted_) {
        const char c = piece_[counted_];
        if (c == '\n') {
            ++line_;
            column_ = 0;
        } else if ((static_cast<unsigned char>(c) & 0xC0U) != 0x80U) { // not within a character
            ++column_;
        }
    }
}

int YAJL_Handler::handle_number_i(const char* text, size_t length)
{
    const char* const end = text + length;
    long long integer = 0;
    std::from_chars_result result = std::from_chars(text, end, integer);
    if (result.ec == std::errc() && result.ptr == end) {
        return handle_integer_i(integer);
    }
    double number = 0;
    result = std::from_chars(text, end, number);
    if (result.ec == std::errc() && result.ptr == end) {
        return handle_double_i(number);
    }
    error_ = "number out of range";
    return 0;
}
