#include "support/http_chunk_iovec.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

namespace {

std::string joined(const std::vector<iovec>& iov)
{
    std::string text;
    for (const iovec& entry : iov) {
        text.append(static_cast<const char*>(entry.iov_base), entry.iov_len);
    }
    return text;
}

struct Framed {
    std::string wire;
    size_t payload;
};

Framed frame(const void* data, size_t length, bool last)
{
    std::vector<iovec> iov(static_cast<size_t>(HTTP_Chunk_iovec::iovec_count(data, length, last)));
    HTTP_Chunk_iovec chunk(iov.data());
    EXPECT_EQ(chunk.to_iovec(data, length, last), static_cast<int>(iov.size()));
    return {joined(iov), chunk.payload_size_};
}

Framed frame(const iovec* pieces, int count, bool last)
{
    std::vector<iovec> iov(static_cast<size_t>(HTTP_Chunk_iovec::iovec_count(pieces, count, last)));
    HTTP_Chunk_iovec chunk(iov.data());
    EXPECT_EQ(chunk.to_iovec(pieces, count, last), static_cast<int>(iov.size()));
    return {joined(iov), chunk.payload_size_};
}

iovec piece(const char* text)
{
    return {const_cast<char*>(text), std::string_view(text).size()};
}

} // namespace

TEST(HTTP_Chunk_iovec, frames_a_piece_with_size_line_and_line_end)
{
    const Framed framed = frame("hello", 5, false);
    EXPECT_EQ(framed.wire, "5\r\nhello\r\n");
    EXPECT_EQ(framed.payload, 5U);
}

TEST(HTTP_Chunk_iovec, puts_the_last_chunk_behind_the_last_piece)
{
    const Framed framed = frame("hello", 5, true);
    EXPECT_EQ(framed.wire, "5\r\nhello\r\n0\r\n\r\n");
    EXPECT_EQ(framed.payload, 5U);
}

TEST(HTTP_Chunk_iovec, gives_no_chunk_for_no_bytes)
{
    EXPECT_EQ(frame(nullptr, size_t{0}, false).wire, "");
    EXPECT_EQ(frame(nullptr, size_t{5}, false).wire, "");
    EXPECT_EQ(frame("hello", 0, false).wire, "");
    EXPECT_EQ(frame("hello", 0, false).payload, 0U);
}

TEST(HTTP_Chunk_iovec, gives_only_the_last_chunk_for_no_bytes_at_the_end)
{
    EXPECT_EQ(frame(nullptr, size_t{0}, true).wire, "0\r\n\r\n");
    EXPECT_EQ(frame(nullptr, size_t{5}, true).wire, "0\r\n\r\n");
    EXPECT_EQ(frame("hello", 0, true).wire, "0\r\n\r\n");
    EXPECT_EQ(frame(nullptr, size_t{5}, true).payload, 0U);
}

TEST(HTTP_Chunk_iovec, writes_sizes_in_hexadecimal)
{
    const std::string data(0x12345, 'x');
    for (const auto& [size, line] :
         std::vector<std::pair<size_t, std::string>>{{1, "1"},
                                                     {9, "9"},
                                                     {10, "a"},
                                                     {15, "f"},
                                                     {16, "10"},
                                                     {255, "ff"},
                                                     {0x12345, "12345"}}) {
        EXPECT_EQ(frame(data.data(), size, false).wire,
                  line + "\r\n" + data.substr(0, size) + "\r\n");
    }
}

TEST(HTTP_Chunk_iovec, has_room_for_the_longest_size_line)
{
    iovec iov[3];
    HTTP_Chunk_iovec chunk(iov);
    char byte = 0; // never read: only its address is framed
    ASSERT_EQ(chunk.to_iovec(&byte, ~size_t{0}, false), 3);
    EXPECT_EQ(std::string(static_cast<char*>(iov[0].iov_base), iov[0].iov_len),
              "ffffffffffffffff\r\n");
    EXPECT_EQ(chunk.payload_size_, ~size_t{0});
}

TEST(HTTP_Chunk_iovec, frames_all_entries_of_a_vector_as_one_chunk)
{
    const iovec pieces[] = {piece("he"), piece("l"), piece("lo, world")};
    EXPECT_EQ(frame(pieces, 3, false).wire, "c\r\nhello, world\r\n");
    EXPECT_EQ(frame(pieces, 3, true).wire, "c\r\nhello, world\r\n0\r\n\r\n");
    EXPECT_EQ(frame(pieces, 3, true).payload, 12U);
    EXPECT_EQ(frame(pieces, 1, false).wire, "2\r\nhe\r\n");
}

TEST(HTTP_Chunk_iovec, leaves_the_data_where_it_is)
{
    const iovec pieces[] = {piece("he"), piece("llo")};
    iovec iov[4];
    HTTP_Chunk_iovec chunk(iov);
    ASSERT_EQ(chunk.to_iovec(pieces, 2, false), 4);
    EXPECT_EQ(iov[1].iov_base, pieces[0].iov_base);
    EXPECT_EQ(iov[2].iov_base, pieces[1].iov_base);
}

TEST(HTTP_Chunk_iovec, skips_entries_without_bytes)
{
    const iovec pieces[] = {piece(""),    piece("ab"), {nullptr, 0},
                            {nullptr, 7}, piece("c"),  piece("")};
    EXPECT_EQ(HTTP_Chunk_iovec::iovec_count(pieces, 6, false), 4);
    EXPECT_EQ(frame(pieces, 6, false).wire, "3\r\nabc\r\n");
    EXPECT_EQ(frame(pieces, 6, true).wire, "3\r\nabc\r\n0\r\n\r\n");
    EXPECT_EQ(frame(pieces, 6, true).payload, 3U);
}

TEST(HTTP_Chunk_iovec, gives_no_chunk_for_a_vector_without_bytes)
{
    const iovec empty[] = {piece(""), {nullptr, 0}};
    for (const int count : {-1, 0, 1, 2}) {
        EXPECT_EQ(frame(empty, count, false).wire, "");
        EXPECT_EQ(frame(empty, count, true).wire, "0\r\n\r\n");
    }
    const iovec* const none = nullptr;
    EXPECT_EQ(frame(none, 3, false).wire, "");
    EXPECT_EQ(frame(none, 3, true).wire, "0\r\n\r\n");
}

TEST(HTTP_Chunk_iovec, measures_each_piece_anew)
{
    iovec iov[3];
    HTTP_Chunk_iovec chunk(iov);
    chunk.to_iovec("hello", 5, false);
    EXPECT_EQ(chunk.payload_size_, 5U);
    chunk.to_iovec(nullptr, size_t{0}, true);
    EXPECT_EQ(chunk.payload_size_, 0U);
}

TEST(HTTP_Chunk_iovec, counts_what_it_fills_for_any_vector)
{
    std::mt19937 random(20240607);
    const std::string data(64, 'd');
    for (int round = 0; round < 2000; ++round) {
        std::vector<iovec> pieces(random() % 12);
        size_t total = 0;
        for (iovec& entry : pieces) {
            const size_t length = random() % 3 == 0 ? 0 : random() % data.size();
            entry = {const_cast<char*>(data.data()), length};
            total += length;
        }
        const bool last = random() % 2 == 0;
        const Framed framed = frame(pieces.data(), static_cast<int>(pieces.size()), last);
        EXPECT_EQ(framed.payload, total);
        const Framed whole = frame(std::string(total, 'd').data(), total, last);
        EXPECT_EQ(framed.wire, whole.wire);
    }
}
