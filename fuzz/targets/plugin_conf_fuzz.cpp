// Plug-in configuration files. Any text gives the same records and the same error, at the same
// place, whole and in pieces; and records written into each of the layouts are read as they were.

#include "fuzz/common/check.h"
#include "fuzz/common/input.h"
#include "fuzz/common/plain_utf8.h"
#include "support/json_base_conf.h"

#include <array>
#include <cstdio>
#include <string>
#include <vector>

namespace {

struct Record {
    std::string uri_;
    std::string dll_;
    std::string init_;
    std::string params_;

    bool operator==(const Record&) const = default;
};

/// Takes records and loads nothing.
class Recorder : public JSON_Base_Conf {
public:
    Recorder() : JSON_Base_Conf(URI_Base_Conf_Traits::key, URI_Base_Conf_Traits::KEY_LEN) {}

    int handle_record() override
    {
        records_.push_back({uri(), dll(), init(), params()});
        return records_.size() % 3 == 0 ? 0 : 1; // some cannot be loaded
    }

    std::vector<Record> records_;
};

struct Outcome {
    bool good_ = false;
    std::vector<Record> records_;
    unsigned loaded_ = 0;
    std::string error_;
    unsigned long line_ = 0;
    unsigned long column_ = 0;

    bool operator==(const Outcome&) const = default;
};

Outcome read(std::string_view text, Pieces* pieces)
{
    Recorder recorder;
    Outcome outcome;
    FUZZ_CHECK(recorder.begin("conf") == 0, "reading cannot begin");
    bool good = true;
    while (good && !text.empty()) {
        const size_t size = pieces != nullptr ? pieces->next(text.size()) : text.size();
        // Copied, so that a look behind the piece is seen.
        const std::vector<char> piece(text.begin(), text.begin() + static_cast<ptrdiff_t>(size));
        good = recorder.feed({piece.data(), piece.size()}) == 0;
        text.remove_prefix(size);
    }
    outcome.good_ = good && recorder.finish() == 0;
    outcome.records_ = recorder.records_;
    outcome.loaded_ = recorder.loaded();
    outcome.error_ = recorder.error();
    outcome.line_ = outcome.good_ ? 0 : recorder.line();
    outcome.column_ = outcome.good_ ? 0 : recorder.column();
    FUZZ_CHECK(outcome.good_ == outcome.error_.empty(), "an error without a reason, or a reason "
                                                        "without an error");
    FUZZ_CHECK(outcome.loaded_ == outcome.records_.size() - outcome.records_.size() / 3,
               "loaded() is wrong");
    for (const Record& record : outcome.records_) {
        for (const std::string* text_of :
             {&record.uri_, &record.dll_, &record.init_, &record.params_}) {
            FUZZ_CHECK(text_of->find('\0') == std::string::npos, "a NUL in a record");
            FUZZ_CHECK(plain_utf8(*text_of) == Plain_UTF8::COMPLETE, "a record is not UTF-8");
        }
    }
    return outcome;
}

/// A JSON string; `style` chooses how much of it is escaped.
std::string quoted(std::string_view text, unsigned style)
{
    std::string result = "\"";
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (c == '"' || c == '\\') {
            result += std::string("\\") + c;
        } else if (byte < 0x20 || (byte < 0x80 && (byte + style) % 5 == 0)) {
            std::array<char, 8> escape{};
            std::snprintf(escape.data(), escape.size(), "\\u%04x", byte);
            result += escape.data();
        } else {
            result += c;
        }
    }
    return result + "\"";
}

std::string member(std::string_view name, std::string_view value, unsigned style)
{
    return quoted(name, style + 1) + (style % 2 == 0 ? ":" : " : ") + quoted(value, style);
}

std::string object(const Record& record, bool with_uri, unsigned style)
{
    std::string text = "{" + member("dll", record.dll_, style) + ",";
    if (with_uri) {
        text += member("uri", record.uri_, style) + ", /* comment */";
    }
    if (!record.params_.empty() || style % 3 == 0) {
        text += member("params", record.params_, style) + ",";
    }
    return text + "\n" + member("init", record.init_, style) + "}";
}

/// One of the layouts that a file may have.
std::string document(const std::vector<Record>& records, unsigned layout)
{
    const bool is_table = layout % 3 == 1; // members that name the records
    const bool is_outer = layout % 2 == 1;
    if (records.size() == 1 && layout % 3 == 2) {
        return object(records[0], true, layout);
    }
    std::string text;
    for (const Record& record : records) {
        text += text.empty() ? "" : ",";
        text += is_table ? quoted(record.uri_, layout) + ": " : "";
        text += object(record, !is_table, layout);
    }
    text = is_table ? "{" + text + "}" : "[" + text + "]";
    return is_outer ? "{\"handlers\": " + text + "}" : text;
}

std::string text_of(Fuzz_Input& input)
{
    std::string text(input.until('\n'));
    std::erase(text, '\0');
    return plain_utf8(text) == Plain_UTF8::COMPLETE ? text : "plain";
}

void check_written(Fuzz_Input& input, std::uint16_t choice)
{
    const unsigned layout = input.byte();
    std::vector<Record> records;
    while (!input.empty() && records.size() < 4) {
        Record record{"/" + text_of(input), text_of(input), text_of(input), text_of(input)};
        records.push_back(record);
    }
    if (records.empty()) {
        return;
    }
    const std::string text = (layout % 7 == 0 ? "\xEF\xBB\xBF" : "") + document(records, layout);
    Pieces pieces(choice);
    const Outcome outcome = read(text, &pieces);
    FUZZ_CHECK(outcome.good_, "a file that was written by the rules is refused");
    FUZZ_CHECK(outcome.records_ == records, "other records are read than were written");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    fuzz_quiet_log();
    Fuzz_Input input(data, size);
    const std::uint16_t choice = input.word();
    if (choice >> 14 == 3) {
        check_written(input, choice);
        return 0;
    }
    const std::string_view text = input.rest();
    Pieces pieces(choice);
    FUZZ_CHECK(read(text, nullptr) == read(text, &pieces), "pieces give another outcome");
    return 0;
}
