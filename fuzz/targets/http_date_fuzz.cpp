// Dates: a time written and read is the same time, a date read is the one that the system's own
// calendar has, and it is written again as it was.

#include "fuzz/common/check.h"
#include "fuzz/common/input.h"
#include "support/http_date.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>

namespace {

constexpr std::int64_t FIRST = -62167219200; ///< 0000-01-01 00:00:00
constexpr std::int64_t LAST = 253402300799;  ///< 9999-12-31 23:59:59
constexpr std::int64_t NOW = 1792000000;     ///< in 2026

std::string write(std::int64_t when)
{
    char text[HTTP_DATE_SIZE];
    FUZZ_CHECK(http_date_format(when, text) == HTTP_DATE_LENGTH, "another length");
    FUZZ_CHECK(std::strlen(text) == HTTP_DATE_LENGTH, "no NUL where it belongs");
    return text;
}

void check_time(std::int64_t when)
{
    const std::string text = write(when);
    time_t again = 0;
    FUZZ_CHECK(http_date_parse(text.c_str(), again, NOW), "a date of our own is not read");
    FUZZ_CHECK(again == std::clamp(when, FIRST, LAST), "written and read it is another time");
    tm parts{};
    const time_t clamped = again;
    FUZZ_CHECK(gmtime_r(&clamped, &parts) != nullptr, "no date of the system's");
    char expected[64];
    std::strftime(expected, sizeof expected, "%a, %d %b ", &parts);
    std::string whole = expected;
    std::snprintf(expected, sizeof expected, "%04d ", parts.tm_year + 1900);
    whole += expected;
    std::strftime(expected, sizeof expected, "%H:%M:%S GMT", &parts);
    FUZZ_CHECK(text == whole + expected, "another date than the system's");
}

/// Reads the numbers of a date that was accepted, whatever its form. False for another count.
bool model(const std::string& text, std::int64_t& when)
{
    static constexpr const char* MONTHS[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                             "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    tm parts{};
    char month[4] = "";
    char zone[4] = "";
    int used = 0;
    const char* const rest = text.c_str() + std::strcspn(text.c_str(), " ");
    const bool is_imf =
        std::sscanf(rest, " %2d %3[A-Za-z] %4d %2d:%2d:%2d %3s%n", &parts.tm_mday, month,
                    &parts.tm_year, &parts.tm_hour, &parts.tm_min, &parts.tm_sec, zone, &used) == 7;
    const bool is_850 =
        !is_imf &&
        std::sscanf(rest, " %2d-%3[A-Za-z]-%2d %2d:%2d:%2d %3s%n", &parts.tm_mday, month,
                    &parts.tm_year, &parts.tm_hour, &parts.tm_min, &parts.tm_sec, zone, &used) == 7;
    const bool is_asctime =
        !is_imf && !is_850 &&
        std::sscanf(rest, " %3[A-Za-z] %2d %2d:%2d:%2d %4d%n", month, &parts.tm_mday,
                    &parts.tm_hour, &parts.tm_min, &parts.tm_sec, &parts.tm_year, &used) == 6;
    if ((!is_imf && !is_850 && !is_asctime) || rest[used] != '\0' ||
        (!is_asctime && std::strcmp(zone, "GMT") != 0)) {
        return false;
    }
    parts.tm_mon = -1;
    for (int i = 0; i < 12; ++i) {
        parts.tm_mon = std::strcmp(month, MONTHS[i]) == 0 ? i : parts.tm_mon;
    }
    if (is_850) { // of the years that end so, the one from 49 before to 50 after 2026
        parts.tm_year += parts.tm_year <= 76 ? 2000 : 1900;
    }
    parts.tm_year -= 1900;
    const tm asked = parts;
    when = timegm(&parts);
    const bool is_leap_second = asked.tm_sec == 60;
    return parts.tm_mon == asked.tm_mon || is_leap_second;
}

void check_text(const std::string& text)
{
    time_t when = 4711;
    if (!http_date_parse(text.c_str(), when, NOW)) {
        FUZZ_CHECK(when == 4711, "a refused date has changed the time");
        return;
    }
    std::int64_t expected = 0;
    FUZZ_CHECK(model(text, expected), "accepted, but no date");
    FUZZ_CHECK(when == expected, "read as another time");
    if (text.size() == HTTP_DATE_LENGTH && text[3] == ',' && text.substr(23, 2) != "60" &&
        text[7] == ' ') {
        FUZZ_CHECK(write(when).substr(3) == text.substr(3), "written again it is another date");
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    Fuzz_Input input(data, size);
    if (input.byte() % 4 == 0) {
        const unsigned shift = input.byte() % 64;
        check_time(static_cast<std::int64_t>(input.number()) >> shift);
    } else {
        check_text(std::string(input.until('\0')));
    }
    return 0;
}
