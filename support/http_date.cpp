#include "support/http_date.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

namespace {

constexpr char DAYS[7][4] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
constexpr std::string_view LONG_DAYS[7] = {"Sunday",   "Monday", "Tuesday", "Wednesday",
                                           "Thursday", "Friday", "Saturday"};
constexpr char MONTHS[12][4] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

constexpr std::int64_t SECONDS_PER_DAY = 86400;
constexpr std::int64_t DAYS_PER_ERA = 146097; ///< days in 400 years, after which all repeats
constexpr std::int64_t EPOCH_FROM_MARCH_0000 = 719468; ///< days from 0000-03-01 to 1970-01-01

struct Civil {
    std::int64_t year;
    int month; ///< 1 to 12
    int day;
};

// Years are counted from March, so that the leap day is the last of its year and the months'
// lengths follow one pattern: 153 days in every five months.
constexpr std::int64_t days_from_civil(Civil date)
{
    const std::int64_t year = date.month <= 2 ? date.year - 1 : date.year;
    const std::int64_t era = (year >= 0 ? year : year - 399) / 400;
    const std::int64_t year_of_era = year - era * 400;
    const std::int64_t month = (date.month + 9) % 12; // March is 0
    const std::int64_t day_of_year = (153 * month + 2) / 5 + date.day - 1;
    const std::int64_t day_of_era =
        year_of_era * 365 + year_of_era / 4 - year_of_era / 100 + day_of_year;
    return era * DAYS_PER_ERA + day_of_era - EPOCH_FROM_MARCH_0000;
}

constexpr Civil civil_from_days(std::int64_t days)
{
    days += EPOCH_FROM_MARCH_0000;
    const std::int64_t era = (days >= 0 ? days : days - (DAYS_PER_ERA - 1)) / DAYS_PER_ERA;
    const std::int64_t day_of_era = days - era * DAYS_PER_ERA;
    const std::int64_t year_of_era =
        (day_of_era - day_of_era / 1460 + day_of_era / 36524 - day_of_era / 146096) / 365;
    const std::int64_t day_of_year =
        day_of_era - (365 * year_of_era + year_of_era / 4 - year_of_era / 100);
    const int month = static_cast<int>((5 * day_of_year + 2) / 153); // March is 0
    const int day = static_cast<int>(day_of_year) - (153 * month + 2) / 5 + 1;
    const std::int64_t year = year_of_era + era * 400 + (month >= 10 ? 1 : 0);
    return {year, month < 10 ? month + 3 : month - 9, day};
}

constexpr time_t EARLIEST = days_from_civil({0, 1, 1}) * SECONDS_PER_DAY;
constexpr time_t LATEST = days_from_civil({10000, 1, 1}) * SECONDS_PER_DAY - 1;

char* put_digits(char* text, int value, int digits)
{
    for (int i = digits - 1; i >= 0; --i) {
        text[i] = static_cast<char>('0' + value % 10);
        value /= 10;
    }
    return text + digits;
}

char* put_name(char* text, const char (&name)[4])
{
    std::memcpy(text, name, 3);
    return text + 3;
}

/// Reads a date from the front; every step answers whether the text agreed.
class Date_Reader {
public:
    explicit Date_Reader(std::string_view text) : text_(text) {}

    bool literal(std::string_view expected)
    {
        if (!text_.starts_with(expected)) {
            return false;
        }
        text_.remove_prefix(expected.size());
        return true;
    }

    bool number(size_t digits, int& value)
    {
        if (text_.size() < digits) {
            return false;
        }
        value = 0;
        for (const char c : text_.substr(0, digits)) {
            if (c < '0' || c > '9') {
                return false;
            }
            value = value * 10 + (c - '0');
        }
        text_.remove_prefix(digits);
        return true;
    }

    bool month(int& value)
    {
        for (value = 1; value <= 12; ++value) {
            if (literal(MONTHS[value - 1])) {
                return true;
            }
        }
        return false;
    }

    bool short_day()
    {
        return std::any_of(std::begin(DAYS), std::end(DAYS),
                           [this](const char* day) { return literal(day); });
    }

    bool long_day()
    {
        return std::any_of(std::begin(LONG_DAYS), std::end(LONG_DAYS),
                           [this](std::string_view day) { return literal(day); });
    }

    bool at_end() const { return text_.empty(); }

private:
    std::string_view text_;
};

struct Date_Time {
    int year = 0;
    int month = 0;
    int day = 0;
    int hour = 0;
    int minute = 0;
    int second = 0;
};

bool read_time(Date_Reader& in, Date_Time& out)
{
    return in.number(2, out.hour) && in.literal(":") && in.number(2, out.minute) &&
           in.literal(":") && in.number(2, out.second);
}

// Sun, 06 Nov 1994 08:49:37 GMT
bool read_imf_fixdate(Date_Reader in, Date_Time& out)
{
    return in.short_day() && in.literal(", ") && in.number(2, out.day) && in.literal(" ") &&
           in.month(out.month) && in.literal(" ") && in.number(4, out.year) && in.literal(" ") &&
           read_time(in, out) && in.literal(" GMT") && in.at_end();
}

int year_of(time_t when)
{
    return static_cast<int>(
        civil_from_days(std::clamp(when, EARLIEST, LATEST) / SECONDS_PER_DAY).year);
}

// Sunday, 06-Nov-94 08:49:37 GMT
bool read_rfc850_date(Date_Reader in, Date_Time& out, time_t now)
{
    if (!(in.long_day() && in.literal(", ") && in.number(2, out.day) && in.literal("-") &&
          in.month(out.month) && in.literal("-") && in.number(2, out.year) && in.literal(" ") &&
          read_time(in, out) && in.literal(" GMT") && in.at_end())) {
        return false;
    }
    const int this_year = year_of(now);
    out.year += this_year - this_year % 100;
    if (out.year > this_year + 50) {
        out.year -= 100;
    } else if (out.year <= this_year - 50) {
        out.year += 100;
    }
    return true;
}

// Sun Nov  6 08:49:37 1994
bool read_asctime_date(Date_Reader in, Date_Time& out)
{
    if (!(in.short_day() && in.literal(" ") && in.month(out.month) && in.literal(" "))) {
        return false;
    }
    const size_t day_digits = in.literal(" ") ? 1 : 2;
    return in.number(day_digits, out.day) && in.literal(" ") && read_time(in, out) &&
           in.literal(" ") && in.number(4, out.year) && in.at_end();
}

// A date that the calendar has; second 60 is a leap second.
bool is_real(const Date_Time& at)
{
    if (at.hour > 23 || at.minute > 59 || at.second > 60 || at.day < 1 || at.day > 31) {
        return false;
    }
    const Civil normal = civil_from_days(days_from_civil({at.year, at.month, at.day}));
    return normal.month == at.month && normal.day == at.day; // not the 31st of a shorter month
}

struct Date_Line {
    time_t second;
    char text[HTTP_DATE_LINE_LENGTH + 1];
};

// Initialized before the thread begins, so that no call has to look whether it is, and reached in
// one instruction: the loader keeps room in each thread for a few such bytes of libraries.
constinit thread_local Date_Line date_line [[gnu::tls_model("initial-exec")]]{-1, "Date: "};

} // namespace

size_t http_date_format(time_t when, char* text)
{
    when = std::clamp(when, EARLIEST, LATEST);
    std::int64_t days = when / SECONDS_PER_DAY;
    int second = static_cast<int>(when % SECONDS_PER_DAY);
    if (second < 0) {
        second += static_cast<int>(SECONDS_PER_DAY);
        --days;
    }
    const Civil date = civil_from_days(days);
    const std::int64_t weekday = ((days + 4) % 7 + 7) % 7; // 1970-01-01 was a Thursday

    text = put_name(text, DAYS[weekday]);
    *text++ = ',';
    *text++ = ' ';
    text = put_digits(text, date.day, 2);
    *text++ = ' ';
    text = put_name(text, MONTHS[date.month - 1]);
    *text++ = ' ';
    text = put_digits(text, static_cast<int>(date.year), 4);
    *text++ = ' ';
    text = put_digits(text, second / 3600, 2);
    *text++ = ':';
    text = put_digits(text, second / 60 % 60, 2);
    *text++ = ':';
    text = put_digits(text, second % 60, 2);
    std::memcpy(text, " GMT", 5);
    return HTTP_DATE_LENGTH;
}

bool http_date_parse(const char* text, time_t& when)
{
    return http_date_parse(text, when, time(nullptr));
}

bool http_date_parse(const char* text, time_t& when, time_t now)
{
    if (text == nullptr) {
        return false;
    }
    const Date_Reader in{std::string_view(text)};
    Date_Time at;
    if (!read_imf_fixdate(in, at) && !read_rfc850_date(in, at, now) && !read_asctime_date(in, at)) {
        return false;
    }
    if (!is_real(at)) {
        return false;
    }
    when = days_from_civil({at.year, at.month, at.day}) * SECONDS_PER_DAY + at.hour * 3600 +
           at.minute * 60 + at.second;
    return true;
}

std::string_view http_date_line()
{
    Date_Line& line = date_line;
    const time_t now = time(nullptr); // the clock of the last tick: nothing but a read of memory
    if (now != line.second) {
        line.second = now;
        http_date_format(now, line.text + 6);
        std::memcpy(line.text + 6 + HTTP_DATE_LENGTH, "\r\n", 3);
    }
    return {line.text, HTTP_DATE_LINE_LENGTH};
}
