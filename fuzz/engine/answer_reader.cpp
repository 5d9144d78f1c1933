#include "fuzz/engine/answer_reader.h"

#include "fuzz/engine/failure.h"
#include "fuzz/engine/frame_reader.h"

#include <algorithm>
#include <string_view>
#include <utility>
#include <vector>

namespace {

constexpr std::string_view LINE_END = "\r\n";

bool is_digit(char c)
{
    return c >= '0' && c <= '9';
}

bool is_token(std::string_view text)
{
    static constexpr std::string_view SYMBOLS = "!#$%&'*+-.^_`|~";
    return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) {
        return is_digit(c) || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
               SYMBOLS.find(c) != std::string_view::npos;
    });
}

bool is_field_value(std::string_view text)
{
    return std::all_of(text.begin(), text.end(), [](char c) {
        const auto byte = static_cast<unsigned char>(c);
        return (byte >= 0x20 && byte != 0x7F) || c == '\t';
    });
}

bool equal_names(std::string_view left, std::string_view right)
{
    const auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; };
    return left.size() == right.size() &&
           std::equal(left.begin(), left.end(), right.begin(),
                      [lower](char a, char b) { return lower(a) == lower(b); });
}

struct Answer {
    int status_ = 0;
    std::vector<std::pair<std::string_view, std::string_view>> fields_;
    std::string body_;
    bool whole_ = true; ///< false: the end of the connection has cut it off

    /// The only field of this name; null when there is none.
    const std::string_view* field(std::string_view name) const
    {
        const std::string_view* found = nullptr;
        for (const auto& [field_name, value] : fields_) {
            if (equal_names(field_name, name)) {
                if (found != nullptr) {
                    fail("a field that may stand once stands twice: " + std::string(name));
                }
                found = &value;
            }
        }
        return found;
    }

    bool is_field(std::string_view name, std::string_view value) const
    {
        const std::string_view* const found = this->field(name);
        return found != nullptr && equal_names(*found, value);
    }
};

class Reader {
public:
    explicit Reader(const Conversation& conversation)
        : conversation_(conversation), left_(conversation.received_)
    {
    }

    std::string read();

private:
    [[noreturn]] void wrong(const std::string& what) const
    {
        fail(what + ", " + std::to_string(conversation_.received_.size() - left_.size()) +
                 " bytes into",
             conversation_.received_);
    }

    bool take_line(std::string_view& line);
    bool read_head(Answer& answer);
    void read_status_line(std::string_view line, Answer& answer) const;
    bool read_body(Answer& answer, bool& closes);
    bool read_counted(std::string_view length, Answer& answer);
    bool read_chunked(Answer& answer);
    void check_upgrade(const Answer& answer) const;
    void check_refusal(const Answer& answer) const;
    void note(const Answer& answer);

    /// The connection ended within an answer. @return false
    bool is_cut(const std::string& where) const;

    const Conversation& conversation_;
    std::string_view left_;
    size_t answers_ = 0;
    std::string text_;
};

std::string Reader::read()
{
    while (!left_.empty()) {
        Answer answer;
        if (!this->read_head(answer)) {
            return text_;
        }
        if (answer.status_ == 100) { // whether it is sent depends on when the body comes
            if (!answer.fields_.empty()) {
                this->wrong("a 100 with fields");
            }
            continue;
        }
        if (answer.status_ == 101) {
            this->check_upgrade(answer);
            this->note(answer);
            return text_ + read_frames(conversation_, left_);
        }
        if (answer.status_ < 200) {
            this->wrong("an unknown interim answer");
        }
        bool closes = false;
        if (!this->read_body(answer, closes)) {
            return text_;
        }
        if (closes && !left_.empty()) {
            this->wrong("bytes behind an answer that closes the connection");
        }
        this->note(answer);
        ++answers_;
    }
    return text_;
}

bool Reader::is_cut(const std::string& where) const
{
    const bool may_break =
        answers_ < conversation_.requests_.size() && conversation_.requests_[answers_].may_break_;
    if (!conversation_.interrupted_ && !may_break) {
        this->wrong("the connection ended within " + where);
    }
    return false;
}

bool Reader::take_line(std::string_view& line)
{
    const size_t end = left_.find(LINE_END);
    if (end == std::string_view::npos) {
        return false;
    }
    line = left_.substr(0, end);
    left_.remove_prefix(end + LINE_END.size());
    return true;
}

void Reader::read_status_line(std::string_view line, Answer& answer) const
{
    static constexpr std::string_view FORM = "HTTP/1.1 200 ";
    static constexpr std::string_view VERSION = "HTTP/1.";
    if (line.size() < FORM.size() || !line.starts_with(VERSION) ||
        (line[7] != '0' && line[7] != '1') || line[8] != ' ' || line[12] != ' ' ||
        !is_field_value(line)) {
        this->wrong("no status line");
    }
    for (size_t i = 9; i < 12; ++i) {
        if (!is_digit(line[i])) {
            this->wrong("no status");
        }
        answer.status_ = answer.status_ * 10 + (line[i] - '0');
    }
}

/// @return false when the connection ended before.
bool Reader::read_head(Answer& answer)
{
    std::string_view line;
    if (!this->take_line(line)) {
        return this->is_cut("a status line");
    }
    this->read_status_line(line, answer);
    for (;;) {
        if (!this->take_line(line)) {
            return this->is_cut("a head");
        }
        if (line.empty()) {
            return true;
        }
        const size_t colon = line.find(':');
        const std::string_view name = line.substr(0, colon);
        if (colon == std::string_view::npos || !is_token(name)) {
            this->wrong("no field line: " + std::string(line));
        }
        std::string_view value = line.substr(colon + 1);
        if (value.starts_with(' ')) {
            value.remove_prefix(1);
        }
        if (!is_field_value(value)) {
            this->wrong("a control character in a field's value");
        }
        answer.fields_.emplace_back(name, value);
    }
}

/// @param closes  receives whether nothing may follow
/// @return false when the connection ended before the body did.
bool Reader::read_body(Answer& answer, bool& closes)
{
    const std::string_view* const length = answer.field("Content-Length");
    const std::string_view* const coding = answer.field("Transfer-Encoding");
    closes = answer.is_field("Connection", "close");
    if (length != nullptr && coding != nullptr) {
        this->wrong("both Content-Length and Transfer-Encoding");
    }
    if (answers_ >= conversation_.requests_.size()) {
        this->check_refusal(answer);
        closes = true;
    } else if (conversation_.requests_[answers_].head_) {
        return true;
    }
    if (answer.status_ == 204 || answer.status_ == 304) {
        return true;
    }
    if (coding != nullptr) {
        if (*coding != "chunked") {
            this->wrong("an unknown transfer coding");
        }
        return this->read_chunked(answer);
    }
    if (length != nullptr) {
        return this->read_counted(*length, answer);
    }
    if (!closes) {
        this->wrong("an answer without an end");
    }
    answer.body_ = left_;
    left_ = {};
    return true;
}

/// One that no plug-in was asked for: the server's own.
void Reader::check_refusal(const Answer& answer) const
{
    if (answer.status_ < 400 || !answer.is_field("Content-Length", "0")) {
        this->wrong("an answer to no request");
    }
}

bool Reader::read_counted(std::string_view length, Answer& answer)
{
    constexpr size_t MOST_DIGITS = 18;
    if (length.empty() || length.size() > MOST_DIGITS ||
        !std::all_of(length.begin(), length.end(), is_digit)) {
        this->wrong("no length");
    }
    const size_t size = std::stoul(std::string(length));
    if (left_.size() < size) {
        return this->is_cut("a counted body");
    }
    answer.body_ = left_.substr(0, size);
    left_.remove_prefix(size);
    return true;
}

bool Reader::read_chunked(Answer& answer)
{
    constexpr size_t MOST_DIGITS = 8;
    for (;;) {
        std::string_view line;
        if (!this->take_line(line)) {
            return this->is_cut("a chunk's size");
        }
        const bool hexadecimal = std::all_of(line.begin(), line.end(), [](char c) {
            return is_digit(c) || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
        });
        if (line.empty() || line.size() > MOST_DIGITS || !hexadecimal) {
            this->wrong("no chunk size");
        }
        const size_t size = std::stoul(std::string(line), nullptr, 16);
        if (left_.size() < size + LINE_END.size()) {
            return this->is_cut("a chunk");
        }
        if (left_.substr(size, LINE_END.size()) != LINE_END) {
            this->wrong("no line end behind a chunk");
        }
        answer.body_ += left_.substr(0, size);
        left_.remove_prefix(size + LINE_END.size());
        if (size == 0) {
            return true; // this server sends no trailer
        }
    }
}

void Reader::check_upgrade(const Answer& answer) const
{
    constexpr size_t ACCEPT_SIZE = 28; // of SHA-1 in base64
    const std::string_view* const accept = answer.field("Sec-WebSocket-Accept");
    if (!conversation_.websocket_.taken_) {
        this->wrong("a 101 that no plug-in was asked for");
    }
    if (!answer.is_field("Upgrade", "websocket") || !answer.is_field("Connection", "Upgrade") ||
        accept == nullptr || accept->size() != ACCEPT_SIZE) {
        this->wrong("a 101 without its fields");
    }
    if (answer.field("Content-Length") != nullptr || answer.field("Transfer-Encoding") != nullptr) {
        this->wrong("a 101 with a body");
    }
}

void Reader::note(const Answer& answer)
{
    text_ += std::to_string(answer.status_) + "\n";
    for (const auto& [name, value] : answer.fields_) {
        const bool clock = equal_names(name, "Date");
        text_ += std::string(name) + ": " + (clock ? "now" : std::string(value)) + "\n";
    }
    text_ += "\n" + answer.body_ + "\n";
}

/// Header ends that the client sent: no more requests than these.
size_t most_requests(std::string_view sent)
{
    static constexpr std::string_view END = "\n\r\n";
    size_t count = 0;
    for (size_t at = sent.find(END); at != std::string_view::npos; at = sent.find(END, at + 1)) {
        ++count;
    }
    return count;
}

} // namespace

std::string read_answers(const Conversation& conversation)
{
    if (conversation.requests_.size() > most_requests(conversation.sent_)) {
        fail("more requests than were sent", conversation.sent_);
    }
    return Reader(conversation).read();
}
