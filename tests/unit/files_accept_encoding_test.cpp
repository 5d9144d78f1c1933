#include "plugins/files/accept_encoding.h"

#include <gtest/gtest.h>

namespace {

struct Row {
    const char* value;
    bool accepted;
};

const Row ROWS[] = {
    {"gzip", true},
    {"GZip", true},
    {"x-gzip", true},
    {"gzip, deflate, br", true},
    {"deflate,gzip", true},
    {" deflate , gzip ", true},
    {"deflate,\tgzip\t;\tq=1", true},
    {"gzip;q=1", true},
    {"gzip;q=1.0", true},
    {"gzip;q=1.000", true},
    {"gzip;q=1.", true},
    {"gzip;q=0.001", true},
    {"gzip;Q=0.5", true},
    {"gzip; q=0.5", true},
    {"gzip ;q=0.5", true},
    {"gzip;level=9;q=0.5", true},
    {"*", true},
    {"br, *;q=0.1", true},
    {"gzip;q=0.5, identity;q=0.5", true},
    {"gzip;q=0.5, identity;q=0", true},
    {"gzip;q=0, x-gzip;q=1", true},
    {",,gzip", true},
    {"gzip;q=0", false},
    {"gzip;q=0.0", false},
    {"gzip;q=0.000", false},
    {"gzip;q=0, *", false},
    {"*, gzip;q=0", false},
    {"*;q=0", false},
    {"gzip;q=0.5, identity", false},
    {"gzip;q=0.5, identity;q=0.501", false},
    {"*;q=0.2, identity;q=0.3", false},
    {"gzip;q=2", false},
    {"gzip;q=1.001", false},
    {"gzip;q=0.1234", false},
    {"gzip;q=.5", false},
    {"gzip;q=-1", false},
    {"gzip;q=0,5", false},
    {"gzip;q=1a", false},
    {"gzip;q=0.x", false},
    {"gzip;q=", false},
    {"gzip;level=9;q=0", false},
    {"deflate", false},
    {"gzipped", false},
    {"agzip", false},
    {"gzi", false},
    {"identity", false},
    {";q=1", false},
    {",", false},
    {"", false},
};

TEST(Accept_Encoding, takes_gzip_as_the_table_says)
{
    for (const Row& row : ROWS) {
        EXPECT_EQ(accepts_gzip(row.value), row.accepted) << '"' << row.value << '"';
    }
}

} // namespace
