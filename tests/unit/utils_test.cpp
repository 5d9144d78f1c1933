#include "httpd/utils.h"

#include "tests/support/log_capture.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <string>
#include <vector>

namespace {

/// What a parser gave: the value, errno, and how far it read.
template <typename T>
struct Reading {
    T value;
    int error;
    ptrdiff_t stop;

    bool operator==(const Reading&) const = default;
};

template <typename T>
std::ostream& operator<<(std::ostream& out, const Reading<T>& reading)
{
    return out << "{value " << reading.value << ", errno " << reading.error << ", stop at "
               << reading.stop << "}";
}

constexpr int UNTOUCHED = 4711;

template <typename T>
Reading<T> natoi_of(const char* text)
{
    errno = UNTOUCHED;
    const char* stop = nullptr;
    const T value = natoi<T, const char*>(text, nullptr, &stop);
    return {value, errno, stop - text};
}

template <typename T>
Reading<T> size_of(const char* text)
{
    errno = UNTOUCHED;
    const char* stop = nullptr;
    const T value = parse_size<T>(text, nullptr, &stop);
    return {value, errno, stop - text};
}

/// The same text, not ended by a NUL but by `end`.
template <typename T>
Reading<T> size_up_to(const std::string& text, size_t length)
{
    errno = UNTOUCHED;
    const char* stop = nullptr;
    const T value = parse_size<T>(text.data(), text.data() + length, &stop);
    return {value, errno, stop - text.data()};
}

template <typename T>
struct Row {
    const char* text;
    Reading<T> expected;
};

template <typename T>
void expect_natoi(const std::vector<Row<T>>& rows)
{
    for (const Row<T>& row : rows) {
        SCOPED_TRACE(row.text);
        EXPECT_EQ(natoi_of<T>(row.text), row.expected);

        // The type of pointer makes no difference, nor does leaving out the stop.
        std::string copy(row.text);
        EXPECT_EQ((natoi<T, char*>(copy.data(), nullptr, nullptr)), row.expected.value);

        // A text that `end` cuts reads like one that a NUL ends.
        const std::string longer = copy + "123";
        const char* stop = nullptr;
        errno = UNTOUCHED;
        const T value = natoi<T, const char*>(longer.data(), longer.data() + copy.size(), &stop);
        EXPECT_EQ((Reading<T>{value, errno, stop - longer.data()}), row.expected);
    }
}

template <typename T>
void expect_size(const std::vector<Row<T>>& rows)
{
    for (const Row<T>& row : rows) {
        SCOPED_TRACE(row.text);
        EXPECT_EQ(size_of<T>(row.text), row.expected);
        EXPECT_EQ(parse_size<T>(row.text, nullptr, nullptr), row.expected.value);
        EXPECT_EQ(size_up_to<T>(std::string(row.text) + "9ib", std::strlen(row.text)),
                  row.expected);
    }
}

} // namespace

TEST(Utils, natoi_reads_an_int)
{
    expect_natoi<int>({
        {"0", {0, 0, 1}},
        {"7", {7, 0, 1}},
        {"+7", {7, 0, 2}},
        {"-7", {-7, 0, 2}},
        {"007", {7, 0, 3}},
        {"30s", {30, 0, 2}},
        {"30 ", {30, 0, 2}},
        {"1.5", {1, 0, 1}},
        {"1/", {1, 0, 1}},
        {"1:", {1, 0, 1}},
        {"2147483647", {INT_MAX, 0, 10}},
        {"-2147483647", {-INT_MAX, 0, 11}},
        {"-2147483648", {INT_MIN, 0, 11}},
    });
}

TEST(Utils, natoi_takes_a_text_without_digits_for_zero)
{
    expect_natoi<int>({
        {"", {0, EINVAL, 0}},
        {" 5", {0, EINVAL, 0}},
        {"abc", {0, EINVAL, 0}},
        {"+", {0, EINVAL, 1}},
        {"-", {0, EINVAL, 1}},
        {"--5", {0, EINVAL, 1}},
        {"+-5", {0, EINVAL, 1}},
        {"-x", {0, EINVAL, 1}},
        {"/", {0, EINVAL, 0}},
        {":", {0, EINVAL, 0}},
    });
}

TEST(Utils, natoi_takes_null_for_zero)
{
    errno = 0;
    const char* stop = "";
    EXPECT_EQ((natoi<int, const char*>(nullptr, nullptr, &stop)), 0);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(stop, nullptr);
}

TEST(Utils, natoi_gives_the_maximum_on_overflow_whatever_the_sign)
{
    expect_natoi<int>({
        {"2147483648", {INT_MAX, ERANGE, 9}},
        {"21474836470", {INT_MAX, ERANGE, 10}},
        {"99999999999", {INT_MAX, ERANGE, 9}},
        {"-2147483649", {INT_MAX, ERANGE, 10}},
        {"-99999999999", {INT_MAX, ERANGE, 10}},
    });
    expect_natoi<unsigned int>({{"4294967296", {UINT_MAX, ERANGE, 9}}});
    expect_natoi<long>({{"9223372036854775808", {LONG_MAX, ERANGE, 18}}});
    expect_natoi<unsigned long>({{"18446744073709551616", {ULONG_MAX, ERANGE, 19}}});
}

TEST(Utils, natoi_reaches_both_ends_of_a_long)
{
    expect_natoi<long>({
        {"9223372036854775807", {LONG_MAX, 0, 19}},
        {"-9223372036854775808", {LONG_MIN, 0, 20}},
    });
}

TEST(Utils, natoi_refuses_a_minus_for_an_unsigned_type)
{
    expect_natoi<unsigned int>({
        {"-1", {0, EINVAL, 0}},
        {"-", {0, EINVAL, 0}},
        {"-0", {0, EINVAL, 0}},
        {"+1", {1, 0, 2}},
        {"4294967295", {UINT_MAX, 0, 10}},
    });
    expect_natoi<unsigned long>({
        {"-1", {0, EINVAL, 0}},
        {"18446744073709551615", {ULONG_MAX, 0, 20}},
    });
}

TEST(Utils, parse_size_accepts_every_spelling_of_a_unit)
{
    expect_size<int>({
        {"10k", {10240, 0, 3}},
        {"10K", {10240, 0, 3}},
        {"10kb", {10240, 0, 4}},
        {"10KB", {10240, 0, 4}},
        {"10ki", {10240, 0, 4}},
        {"10KiB", {10240, 0, 5}},
        {"10kIb", {10240, 0, 5}},
        {"10 k", {10240, 0, 4}},
        {" \t10 \t k", {10240, 0, 8}},
        {"  64k", {65536, 0, 5}},
        {"-1k", {-1024, 0, 3}},
        {"+1k", {1024, 0, 3}},
        {"1m", {1048576, 0, 2}},
        {"1g", {1073741824, 0, 2}},
    });
    expect_size<unsigned long>({
        {"4KiB", {4096, 0, 4}},
        {"1M", {1UL << 20, 0, 2}},
        {"1G", {1UL << 30, 0, 2}},
        {"1T", {1UL << 40, 0, 2}},
        {"1P", {1UL << 50, 0, 2}},
        {"1E", {1UL << 60, 0, 2}},
        {"15e", {15UL << 60, 0, 3}},
        {"0e", {0, 0, 2}},
    });
}

TEST(Utils, parse_size_leaves_the_rest_unread)
{
    expect_size<int>({
        {"12", {12, 0, 2}},
        {"12  ", {12, 0, 2}},
        {"12x", {12, 0, 2}},
        {"12 x", {12, 0, 3}},
        {"12b", {12, 0, 2}},
        {"12i", {12, 0, 2}},
        {"1.5m", {1, 0, 1}},
        {"1kk", {1024, 0, 2}},
        {"1kx", {1024, 0, 2}},
        {"1kbb", {1024, 0, 3}},
        {"1kbi", {1024, 0, 3}},
        {"1kibx", {1024, 0, 4}},
        {"1k b", {1024, 0, 2}},
        {"1j", {1, 0, 1}},
        {"1l", {1, 0, 1}},
        {"1f", {1, 0, 1}},
        {"1d", {1, 0, 1}},
    });
}

TEST(Utils, parse_size_without_a_number_is_zero)
{
    expect_size<int>({
        {"", {0, UNTOUCHED, 0}},
        {"   ", {0, UNTOUCHED, 3}},
        {"k", {0, EINVAL, 0}},
        {"  k", {0, EINVAL, 2}},
        {"-", {0, EINVAL, 0}},
        {" +k", {0, EINVAL, 1}},
    });
    expect_size<unsigned long>({{"-1", {0, EINVAL, 0}}, {" -1k", {0, EINVAL, 1}}});

    const char* stop = "";
    EXPECT_EQ(parse_size<int>(nullptr, nullptr, &stop), 0);
    EXPECT_EQ(stop, nullptr);
}

TEST(Utils, parse_size_overflow_gives_the_maximum_and_reads_no_unit)
{
    expect_size<int>({
        {"2147483648", {INT_MAX, ERANGE, 0}},
        {" 2147483648k", {INT_MAX, ERANGE, 1}},
        {"-2147483649", {INT_MAX, ERANGE, 0}},
    });
}

TEST(Utils, parse_size_saturates)
{
    expect_size<int>({
        {"2147483647k", {INT_MAX, 0, 11}},
        {"2097151k", {2147482624, 0, 8}},
        {"2097152k", {INT_MAX, 0, 8}},
        {"2g", {INT_MAX, 0, 2}},
        {"-2g", {INT_MIN, 0, 3}},
        {"-3g", {INT_MIN, 0, 3}},
        {"-2097152k", {INT_MIN, 0, 9}},
        {"-2147483648k", {INT_MIN, 0, 12}},
    });
    expect_size<long>({
        {"7e", {7L << 60, 0, 2}},
        {"8e", {LONG_MAX, 0, 2}},
        {"-7e", {-(7L << 60), 0, 3}},
        {"-8e", {LONG_MIN, 0, 3}},
        {"-9223372036854775808k", {LONG_MIN, 0, 21}},
        {"-2", {-2, 0, 2}},
        {"0e", {0, 0, 2}},
    });
    expect_size<unsigned long>({{"16e", {ULONG_MAX, 0, 3}}});
}

TEST(Utils, parse_size_saturates_an_int_for_units_too_wide_even_for_zero)
{
    expect_size<int>({
        {"0t", {INT_MAX, 0, 2}},
        {"0p", {INT_MAX, 0, 2}},
        {"0e", {INT_MAX, 0, 2}},
        {"1t", {INT_MAX, 0, 2}},
        {"-1t", {INT_MIN, 0, 3}},
        {"0g", {0, 0, 2}},
    });
}

TEST(Utils, parse_size_never_reads_behind_its_end)
{
    const std::string text = " 10 KiB";
    const Reading<int> expected[] = {
        {0, UNTOUCHED, 0}, // nothing
        {0, UNTOUCHED, 1}, // " "
        {1, 0, 2},         // " 1"
        {10, 0, 3},        // " 10"
        {10, 0, 3},        // " 10 "
        {10240, 0, 5},     // " 10 K"
        {10240, 0, 6},     // " 10 Ki"
        {10240, 0, 7},     // " 10 KiB"
    };
    for (size_t length = 0; length <= text.size(); ++length) {
        SCOPED_TRACE(length);
        EXPECT_EQ(size_up_to<int>(text, length), expected[length]);
    }
}

TEST(Utils, parse_unit_scales_in_place)
{
    const char* const letter = "mb";
    const char* stop = nullptr;
    long value = 3;
    EXPECT_TRUE(parse_unit<long>(letter, value, &stop));
    EXPECT_EQ(value, 3L << 20);
    EXPECT_EQ(stop, nullptr);
    EXPECT_TRUE(parse_unit<long>(letter, value, nullptr));
    EXPECT_EQ(value, 3L << 40);
}

TEST(Utils, parse_unit_leaves_the_value_when_there_is_no_unit)
{
    const char* const letter = "xm";
    const char* stop = nullptr;
    int value = 3;
    EXPECT_FALSE(parse_unit<int>(letter, value, &stop));
    EXPECT_EQ(value, 3);
    EXPECT_EQ(stop, letter);
    EXPECT_FALSE(parse_unit<int>("", value, nullptr));
    EXPECT_EQ(value, 3);
}

TEST(Utils, to_lower_changes_capital_letters_only)
{
    for (int code = 0; code < 256; ++code) {
        const char c = static_cast<char>(code);
        const bool capital = code >= 'A' && code <= 'Z';
        EXPECT_EQ(to_lower(c), capital ? static_cast<char>(code + 32) : c) << code;
    }
}

TEST(Utils, skip_space_stops_at_its_end_at_a_nul_and_at_text)
{
    const char text[] = " \t\n\v\f\rx";
    EXPECT_EQ(skip_space(text, nullptr), text + 6);
    EXPECT_EQ(skip_space(text, text + 3), text + 3);
    EXPECT_EQ(skip_space(text, text), text);
    const char blanks[] = "  ";
    EXPECT_EQ(skip_space(blanks, nullptr), blanks + 2);
    EXPECT_EQ(skip_space(blanks, blanks + 3), blanks + 2);
}

TEST(Utils, to_time_value_reads_whole_seconds)
{
    const struct {
        const char* text;
        int seconds;
    } rows[] = {{"30", 30}, {"0", 0},   {"+5", 5}, {"1m", 1},
                {"1.9", 1}, {"abc", 0}, {"", 0},   {"2147483646", INT_MAX - 1}};
    const Log_Capture log;
    for (const auto& row : rows) {
        SCOPED_TRACE(row.text);
        const boost::optional<ACE_Time_Value> time = to_time_value("idle", row.text, 0);
        ASSERT_TRUE(time.has_value());
        EXPECT_EQ(*time, ACE_Time_Value(row.seconds, 0));
    }
    EXPECT_TRUE(log.lines().empty());
}

TEST(Utils, to_time_value_refuses_what_is_out_of_range)
{
    const struct {
        const char* text;
        int minimum;
        const char* line;
    } rows[] = {
        {"-5", 0, "Invalid idle value -5, mininum 0.\n"},
        {"9", 10, "Invalid idle value 9, mininum 10.\n"},
        {"abc", 1, "Invalid idle value 0, mininum 1.\n"},
        {"2147483647", 0, "Invalid idle value 2147483647, mininum 0.\n"},
        {"99999999999", 0, "Invalid idle value 2147483647, mininum 0.\n"},
        {"-99999999999", 0, "Invalid idle value 2147483647, mininum 0.\n"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.text);
        const Log_Capture log;
        EXPECT_FALSE(to_time_value("idle", row.text, row.minimum).has_value());
        EXPECT_EQ(log.texts(LM_ERROR), std::vector<std::string>{row.line});
        EXPECT_EQ(log.lines().size(), 1U);
    }
}

TEST(Utils, to_time_value_accepts_its_minimum)
{
    EXPECT_EQ(to_time_value("idle", "10", 10).value(), ACE_Time_Value(10, 0));
    EXPECT_EQ(to_time_value("idle", "-3", -3).value(), ACE_Time_Value(-3, 0));
}
