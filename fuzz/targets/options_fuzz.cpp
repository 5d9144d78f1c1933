// The command line of the service: one option's value becomes the number that a plain reading
// gives, and a whole line gives the same settings each time and only such as can be used.

#include "fuzz/common/check.h"
#include "fuzz/common/input.h"
#include "fuzz/common/plain_text.h"
#include "httpd/http_options.h"

#include <unistd.h>

#include <algorithm>
#include <limits>
#include <string>
#include <vector>

namespace {

using Wide = plain::Wide;

int parse(HTTP_Options& options, std::vector<std::string>& words)
{
    std::vector<char*> argv;
    for (std::string& word : words) {
        argv.push_back(word.data());
    }
    argv.push_back(nullptr);
    return options.parse_args(static_cast<int>(words.size()), argv.data());
}

/// An optional sign and digits at the front; what is beyond the type becomes its largest number.
template <typename T>
Wide integer(std::string_view text, bool& has_digits, bool& too_large, size_t& used)
{
    const bool negative = text.starts_with('-');
    const size_t sign = negative || text.starts_with('+') ? 1 : 0;
    constexpr auto MOST = static_cast<plain::Unsigned_Wide>(1) << 100;
    plain::Unsigned_Wide digits = 0;
    const size_t count = plain::leading_number(text.substr(sign), MOST, digits);
    has_digits = count > 0 && !(negative && !std::numeric_limits<T>::is_signed);
    used = sign + count;
    const Wide value = negative ? -static_cast<Wide>(digits) : static_cast<Wide>(digits);
    too_large = has_digits &&
                (value > std::numeric_limits<T>::max() || value < std::numeric_limits<T>::min());
    if (!has_digits) {
        return 0;
    }
    return too_large ? std::numeric_limits<T>::max() : value;
}

Wide whole_number(std::string_view text)
{
    bool has_digits = false;
    bool too_large = false;
    size_t used = 0;
    return integer<int>(text, has_digits, too_large, used);
}

std::string_view skip_space(std::string_view text)
{
    const size_t begin = text.find_first_not_of(" \t\n\v\f\r");
    return begin == std::string_view::npos ? std::string_view() : text.substr(begin);
}

/// A number with a unit of a power of 1024.
template <typename T>
Wide size_of(std::string_view text)
{
    bool has_digits = false;
    bool too_large = false;
    size_t used = 0;
    text = skip_space(text);
    const Wide value = integer<T>(text, has_digits, too_large, used);
    if (!has_digits || too_large) {
        return value;
    }
    text = skip_space(text.substr(used));
    const size_t unit =
        text.empty() ? std::string::npos : std::string_view("kmgtpe").find(plain::lower(text[0]));
    if (unit == std::string::npos) {
        return value;
    }
    const unsigned shift = 10 * (static_cast<unsigned>(unit) + 1);
    constexpr Wide MOST = std::numeric_limits<T>::max();
    constexpr Wide LEAST = std::numeric_limits<T>::min();
    const bool too_wide = shift >= static_cast<unsigned>(std::numeric_limits<T>::digits);
    const Wide scaled = value * (static_cast<Wide>(1) << shift);
    // A negative number is held to the same magnitude as a positive one.
    return too_wide || scaled > MOST || scaled < -MOST ? (value < 0 ? LEAST : MOST) : scaled;
}

/// Whole pages, where the number is above 0.
Wide pages(Wide size)
{
    const Wide page = sysconf(_SC_PAGESIZE);
    if (size <= 0) {
        return size;
    }
    const Wide last = std::numeric_limits<off_t>::max() / page * page;
    return std::min((size + page - 1) / page * page, last);
}

Wide seconds(const ACE_Time_Value* time)
{
    return time == nullptr ? -1 : static_cast<Wide>(time->sec());
}

/// Below 0, and the largest number, are no durations: absent.
Wide duration(std::string_view text)
{
    const Wide value = whole_number(text);
    return value < 0 || value == std::numeric_limits<int>::max() ? -1 : value;
}

struct Option {
    const char* name_;
    Wide (*value_)(const HTTP_Options&);
    Wide (*model_)(std::string_view);
};

const Option OPTIONS[] = {
    {"listen-backlog", [](const HTTP_Options& o) { return Wide{o.listen_backlog()}; },
     whole_number},
    {"idle", [](const HTTP_Options& o) { return seconds(o.idle_timeout()); }, duration},
    {"ping-interval", [](const HTTP_Options& o) { return seconds(o.ping_interval()); }, duration},
    {"ping-timeout", [](const HTTP_Options& o) { return seconds(o.ping_timeout()); }, duration},
    {"accept-timeout", [](const HTTP_Options& o) { return Wide{o.accept_timeout()}; },
     [](std::string_view text) {
         const Wide value = whole_number(text);
         return value == 0 ? Wide{HTTP_Options::DEFAULT_ACCEPTOR_TIMEOUT} : value;
     }},
    {"file-read-buffer-size", [](const HTTP_Options& o) { return Wide{o.file_read_buffer_size()}; },
     size_of<size_t>},
    {"file-write-buffer-size",
     [](const HTTP_Options& o) { return Wide{o.file_write_buffer_size()}; }, size_of<size_t>},
    {"http-receive-buffer-size",
     [](const HTTP_Options& o) { return Wide{o.http_receive_buffer_size()}; }, size_of<size_t>},
    {"socket-receive-buffer-size",
     [](const HTTP_Options& o) { return Wide{o.socket_receive_buffer_size()}; }, size_of<int>},
    {"socket-send-buffer-size",
     [](const HTTP_Options& o) { return Wide{o.socket_send_buffer_size()}; }, size_of<int>},
    {"socket-receive-timeout",
     [](const HTTP_Options& o) { return Wide{o.socket_receive_timeout()}; }, size_of<int>},
    {"socket-send-timeout", [](const HTTP_Options& o) { return Wide{o.socket_send_timeout()}; },
     size_of<int>},
    {"write-sync-close", [](const HTTP_Options& o) { return Wide{o.write_sync_close()}; },
     size_of<int>},
    {"read-discard-cache", [](const HTTP_Options& o) { return Wide{o.read_discard_cache()}; },
     [](std::string_view text) { return pages(size_of<off_t>(text)); }},
    {"write-sync", [](const HTTP_Options& o) { return Wide{o.write_sync()}; },
     [](std::string_view text) { return pages(size_of<off_t>(text)); }},
    {"write-discard-cache", [](const HTTP_Options& o) { return Wide{o.write_discard_cache()}; },
     [](std::string_view text) { return pages(size_of<off_t>(text)); }},
};

void check_value(Fuzz_Input& input)
{
    const Option& option = OPTIONS[input.byte() % std::size(OPTIONS)];
    const std::string value(input.until('\0'));
    if (value.empty()) {
        return; // an option without its value: that is the command line's matter
    }
    std::vector<std::string> words{"--" + std::string(option.name_) + "=" + value};
    const std::string text = words[0].substr(words[0].find('=') + 1);
    HTTP_Options options;
    FUZZ_CHECK(parse(options, words) == 0, "a value makes the service fail");
    FUZZ_CHECK(option.value_(options) == option.model_(text), "another number");
}

/// Files that the fuzzer names are neither read nor written: the letters of those options go.
std::string without_files(std::string word)
{
    if (word.starts_with('-') && !word.starts_with("--")) {
        std::erase_if(word, [](char c) {
            return std::string_view("fwal").find(c) != std::string_view::npos;
        });
    }
    return word;
}

void check_line(Fuzz_Input& input)
{
    constexpr size_t MOST_WORDS = 16;
    std::vector<std::string> words;
    while (!input.empty() && words.size() < MOST_WORDS) {
        words.push_back(without_files(std::string(input.until('\0'))));
    }
    std::vector<std::string> again = words;
    HTTP_Options first;
    HTTP_Options second;
    FUZZ_CHECK(parse(first, words) == 0 && parse(second, again) == 0,
               "a command line makes the service fail");
    FUZZ_CHECK(first.loops() >= 1, "no event loop");
    FUZZ_CHECK(first.accept_timeout() != 0, "no time to accept in");
    FUZZ_CHECK(first.concurrency() >= HTTP_Options::REACTIVE &&
                   first.concurrency() <= HTTP_Options::THREAD_POOL,
               "an unknown model of concurrency");
    for (const Option& option : OPTIONS) {
        FUZZ_CHECK(option.value_(first) == option.value_(second), "two readings of one line");
    }
    FUZZ_CHECK(first.servers() == second.servers(), "two readings of the server names");
    for (int i = 0;; ++i) {
        const auto* const address = first.listen_address(i);
        FUZZ_CHECK((address == nullptr) == (second.listen_address(i) == nullptr),
                   "two readings of the addresses");
        if (address == nullptr) {
            break;
        }
        FUZZ_CHECK(address->sap != nullptr, "an address without one");
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    fuzz_quiet_log();
    Fuzz_Input input(data, size);
    if (input.byte() % 2 == 0) {
        check_value(input);
    } else {
        check_line(input);
    }
    return 0;
}
