#include "plugins/files/byte_range.h"

#include <gtest/gtest.h>

namespace {

struct Row {
    const char* value;
    std::uint64_t size;
    Byte_Range::Kind kind;
    std::uint64_t first;
    std::uint64_t length;
};

constexpr std::uint64_t MAX = ~std::uint64_t{0};

const Row ROWS[] = {
    {"bytes=0-0", 10, Byte_Range::PART, 0, 1},
    {"bytes=0-9", 10, Byte_Range::PART, 0, 10},
    {"bytes=0-10", 10, Byte_Range::PART, 0, 10},
    {"bytes=3-5", 10, Byte_Range::PART, 3, 3},
    {"bytes=9-9", 10, Byte_Range::PART, 9, 1},
    {"bytes=9-", 10, Byte_Range::PART, 9, 1},
    {"bytes=0-", 10, Byte_Range::PART, 0, 10},
    {"bytes=-1", 10, Byte_Range::PART, 9, 1},
    {"bytes=-10", 10, Byte_Range::PART, 0, 10},
    {"bytes=-11", 10, Byte_Range::PART, 0, 10},
    {"bytes=-99999999999999999999999", 10, Byte_Range::PART, 0, 10},
    {"bytes=2-99999999999999999999999", 10, Byte_Range::PART, 2, 8},
    {"bytes=2-18446744073709551615", 10, Byte_Range::PART, 2, 8},
    {"bytes=0000000000000000000000001-2", 10, Byte_Range::PART, 1, 2},
    {"Bytes=1-2", 10, Byte_Range::PART, 1, 2},
    {"bytes=18446744073709551614-", MAX, Byte_Range::PART, MAX - 1, 1},
    {"bytes=10-", 10, Byte_Range::UNSATISFIABLE, 0, 0},
    {"bytes=10-20", 10, Byte_Range::UNSATISFIABLE, 0, 0},
    {"bytes=99999999999999999999999-", 10, Byte_Range::UNSATISFIABLE, 0, 0},
    {"bytes=18446744073709551616-18446744073709551617", 10, Byte_Range::UNSATISFIABLE, 0, 0},
    {"bytes=-0", 10, Byte_Range::UNSATISFIABLE, 0, 0},
    {"bytes=0-", 0, Byte_Range::UNSATISFIABLE, 0, 0},
    {"bytes=0-0", 0, Byte_Range::UNSATISFIABLE, 0, 0},
    {"bytes=-5", 0, Byte_Range::WHOLE, 0, 0},
    {"bytes=5-4", 10, Byte_Range::WHOLE, 0, 0},
    {"bytes=0-1,3-4", 10, Byte_Range::WHOLE, 0, 0},
    {"bytes=0-1,", 10, Byte_Range::WHOLE, 0, 0},
    {"bytes=,0-1", 10, Byte_Range::WHOLE, 0, 0},
    {"bytes=", 10, Byte_Range::WHOLE, 0, 0},
    {"bytes=-", 10, Byte_Range::WHOLE, 0, 0},
    {"bytes=5", 10, Byte_Range::WHOLE, 0, 0},
    {"bytes=a-5", 10, Byte_Range::WHOLE, 0, 0},
    {"bytes=1-b", 10, Byte_Range::WHOLE, 0, 0},
    {"bytes=+1-5", 10, Byte_Range::WHOLE, 0, 0},
    {"bytes=1-+5", 10, Byte_Range::WHOLE, 0, 0},
    {"bytes=--5", 10, Byte_Range::WHOLE, 0, 0},
    {"bytes=1--5", 10, Byte_Range::WHOLE, 0, 0},
    {"bytes= 1-5", 10, Byte_Range::WHOLE, 0, 0},
    {"bytes=1 -5", 10, Byte_Range::WHOLE, 0, 0},
    {"bytes=0x1-5", 10, Byte_Range::WHOLE, 0, 0},
    {"bytes=/-:", 10, Byte_Range::WHOLE, 0, 0},
    {"bytes 1-5", 10, Byte_Range::WHOLE, 0, 0},
    {"items=1-5", 10, Byte_Range::WHOLE, 0, 0},
    {"bytes", 10, Byte_Range::WHOLE, 0, 0},
    {"", 10, Byte_Range::WHOLE, 0, 0},
};

TEST(Byte_Range, is_read_as_the_table_says)
{
    for (const Row& row : ROWS) {
        SCOPED_TRACE(testing::Message() << row.value << " of " << row.size);
        const Byte_Range range = parse_byte_range(row.value, row.size);
        EXPECT_EQ(range.kind_, row.kind);
        EXPECT_EQ(range.first_, row.first);
        EXPECT_EQ(range.length_, row.length);
    }
}

} // namespace
