#include "support/http_date.h"

#include <gtest/gtest.h>

#include <ctime>
#include <limits>
#include <random>
#include <string>
#include <thread>

namespace {

std::string formatted(time_t when)
{
    char text[HTTP_DATE_SIZE];
    EXPECT_EQ(http_date_format(when, text), size_t{HTTP_DATE_LENGTH});
    return text;
}

constexpr time_t EXAMPLE = 784111777; // Sun, 06 Nov 1994 08:49:37 GMT

/// The time that a text stands for, or -1.
time_t parsed(const std::string& text, time_t now = EXAMPLE)
{
    time_t when = -1;
    return http_date_parse(text.c_str(), when, now) ? when : -1;
}

} // namespace

TEST(http_date_format, writes_the_preferred_form)
{
    EXPECT_EQ(formatted(EXAMPLE), "Sun, 06 Nov 1994 08:49:37 GMT");
    EXPECT_EQ(formatted(0), "Thu, 01 Jan 1970 00:00:00 GMT");
    EXPECT_EQ(formatted(-1), "Wed, 31 Dec 1969 23:59:59 GMT");
    EXPECT_EQ(formatted(951782400), "Tue, 29 Feb 2000 00:00:00 GMT");
    EXPECT_EQ(formatted(951868799), "Tue, 29 Feb 2000 23:59:59 GMT");
    EXPECT_EQ(formatted(4107542400), "Mon, 01 Mar 2100 00:00:00 GMT");
}

TEST(http_date_format, keeps_to_four_digits_of_year)
{
    EXPECT_EQ(formatted(253402300799), "Fri, 31 Dec 9999 23:59:59 GMT");
    EXPECT_EQ(formatted(253402300800), "Fri, 31 Dec 9999 23:59:59 GMT");
    EXPECT_EQ(formatted(std::numeric_limits<time_t>::max()), "Fri, 31 Dec 9999 23:59:59 GMT");
    EXPECT_EQ(formatted(std::numeric_limits<time_t>::min()), "Sat, 01 Jan 0000 00:00:00 GMT");
}

TEST(http_date_format, agrees_with_the_system_calendar)
{
    std::mt19937_64 random(19941106);
    std::uniform_int_distribution<time_t> any(-62135596800, 253402300799); // years 1 to 9999
    for (int i = 0; i < 20000; ++i) {
        const time_t when = any(random);
        tm parts{};
        ASSERT_NE(gmtime_r(&when, &parts), nullptr);
        char expected[64];
        // glibc does not pad %Y
        strftime(expected, sizeof(expected), "%a, %d %b ", &parts);
        std::string year = std::to_string(parts.tm_year + 1900);
        year.insert(0, 4 - year.size(), '0');
        char clock[32];
        strftime(clock, sizeof(clock), " %H:%M:%S GMT", &parts);
        ASSERT_EQ(formatted(when), expected + year + clock) << when;
        ASSERT_EQ(parsed(formatted(when)), when);
    }
}

TEST(http_date_parse, reads_all_three_forms)
{
    EXPECT_EQ(parsed("Sun, 06 Nov 1994 08:49:37 GMT"), EXAMPLE);
    EXPECT_EQ(parsed("Sunday, 06-Nov-94 08:49:37 GMT"), EXAMPLE);
    EXPECT_EQ(parsed("Sun Nov  6 08:49:37 1994"), EXAMPLE);
    EXPECT_EQ(parsed("Wed Nov 16 08:49:37 1994"), EXAMPLE + 10 * 86400);
}

TEST(http_date_parse, takes_the_present_time_itself)
{
    time_t when = 0;
    EXPECT_TRUE(http_date_parse("Sunday, 06-Nov-94 08:49:37 GMT", when));
    EXPECT_EQ(when, EXAMPLE); // until 2044, when 94 will mean 2094
    EXPECT_TRUE(http_date_parse("Thu, 01 Jan 1970 00:00:00 GMT", when));
    EXPECT_EQ(when, 0);
}

TEST(http_date_parse, does_not_mind_a_wrong_day_name)
{
    EXPECT_EQ(parsed("Mon, 06 Nov 1994 08:49:37 GMT"), EXAMPLE);
}

TEST(http_date_parse, accepts_a_leap_second)
{
    EXPECT_EQ(formatted(parsed("Sat, 31 Dec 2016 23:59:60 GMT")), "Sun, 01 Jan 2017 00:00:00 GMT");
}

TEST(http_date_parse, puts_two_digit_years_within_fifty_years)
{
    const time_t in_2024 = 1704067200 + 86400;
    EXPECT_EQ(formatted(parsed("Sunday, 06-Nov-24 00:00:00 GMT", in_2024)).substr(12, 4), "2024");
    EXPECT_EQ(formatted(parsed("Sunday, 06-Nov-74 00:00:00 GMT", in_2024)).substr(12, 4), "2074");
    EXPECT_EQ(formatted(parsed("Sunday, 06-Nov-75 00:00:00 GMT", in_2024)).substr(12, 4), "1975");
    EXPECT_EQ(formatted(parsed("Sunday, 06-Nov-99 00:00:00 GMT", in_2024)).substr(12, 4), "1999");
    EXPECT_EQ(formatted(parsed("Sunday, 06-Nov-00 00:00:00 GMT", in_2024)).substr(12, 4), "2000");
    const time_t in_2090 = 3786912000 + 86400;
    EXPECT_EQ(formatted(parsed("Sunday, 06-Nov-10 00:00:00 GMT", in_2090)).substr(12, 4), "2110");
    EXPECT_EQ(formatted(parsed("Sunday, 06-Nov-41 00:00:00 GMT", in_2090)).substr(12, 4), "2041");
}

TEST(http_date_parse, refuses_everything_else)
{
    const std::string good = "Sun, 06 Nov 1994 08:49:37 GMT";
    for (size_t length = 0; length < good.size(); ++length) {
        EXPECT_EQ(parsed(good.substr(0, length)), -1) << length;
    }
    for (const char* text : {"Sun, 06 Nov 1994 08:49:37 GMT ",
                             " Sun, 06 Nov 1994 08:49:37 GMT",
                             "sun, 06 Nov 1994 08:49:37 GMT",
                             "Xyz, 06 Nov 1994 08:49:37 GMT",
                             "Sun, 06 nov 1994 08:49:37 GMT",
                             "Sun, 06 Nov 1994 08:49:37 UTC",
                             "Sun, 06 Nov 1994 08:49:37 gmt",
                             "Sun, 6 Nov 1994 08:49:37 GMT",
                             "Sun, 06 Nov 94 08:49:37 GMT",
                             "Sun, 00 Nov 1994 08:49:37 GMT",
                             "Sun, 31 Nov 1994 08:49:37 GMT",
                             "Sun, 32 Dec 1994 08:49:37 GMT",
                             "Sun, 29 Feb 1900 08:49:37 GMT",
                             "Sun, 30 Feb 2000 08:49:37 GMT",
                             "Sun, 06 Nov 1994 24:00:00 GMT",
                             "Sun, 06 Nov 1994 08:60:37 GMT",
                             "Sun, 06 Nov 1994 08:49:61 GMT",
                             "Sun, +6 Nov 1994 08:49:37 GMT",
                             "Sun, 06 Nov -994 08:49:37 GMT",
                             "Sun, 06-Nov-94 08:49:37 GMT",
                             "Sunday, 06-Nov-1994 08:49:37 GMT",
                             "Sunday, 06 Nov 94 08:49:37 GMT",
                             "Sunday, 06-Nov-94 08:49:37",
                             "Sun Nov 6 08:49:37 1994",
                             "Sun Nov 06 08:49:37 94",
                             "Sun Nov  6 08:49:37 1994 GMT",
                             "Sun Nov 31 08:49:37 1994",
                             "0",
                             "784111777"}) {
        EXPECT_EQ(parsed(text), -1) << text;
    }
}

TEST(http_date_parse, leaves_the_result_alone_on_failure)
{
    time_t when = 12345;
    EXPECT_FALSE(http_date_parse("nonsense", when));
    EXPECT_FALSE(http_date_parse(nullptr, when));
    EXPECT_EQ(when, 12345);
}

TEST(http_date_line, is_the_date_field_of_now)
{
    const time_t before = time(nullptr) - 1; // its clock may lag by a tick
    const std::string line(http_date_line());
    const time_t after = time(nullptr);
    ASSERT_EQ(line.size(), size_t{HTTP_DATE_LINE_LENGTH});
    EXPECT_EQ(line.substr(0, 6), "Date: ");
    EXPECT_EQ(line.substr(line.size() - 2), "\r\n");
    const time_t when = parsed(line.substr(6, HTTP_DATE_LENGTH));
    EXPECT_GE(when, before);
    EXPECT_LE(when, after);
}

TEST(http_date_line, is_kept_per_thread)
{
    const char* const mine = http_date_line().data();
    EXPECT_EQ(http_date_line().data(), mine);
    const char* other = nullptr;
    std::thread([&other] { other = http_date_line().data(); }).join();
    EXPECT_NE(other, mine);
}
