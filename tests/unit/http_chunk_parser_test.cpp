#include "httpd/http_chunk_parser.h"

#include <ace/Message_Block.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

namespace {

struct Decoded {
    std::string data;
    HTTP_Chunk_State state;
    std::string left; ///< bytes that were not consumed

    bool operator==(const Decoded&) const = default;
};

std::ostream& operator<<(std::ostream& out, const Decoded& decoded)
{
    return out << "state " << decoded.state << ", data '" << decoded.data << "', left '"
               << decoded.left << "'";
}

/// Gives the bytes to the parser as reads of a connection would: behind what is still unread.
class Decoder {
public:
    explicit Decoder(size_t capacity) : mb_(std::max<size_t>(capacity, 1)) {}

    void feed(const std::string& piece)
    {
        mb_.copy(piece.data(), piece.size());
        while (mb_.length() > 0 && !final()) {
            size_t length = 99;
            const size_t before = mb_.length();
            const HTTP_Chunk_State state = parser_.parse(&mb_, length);
            EXPECT_EQ(state, parser_.state());
            EXPECT_LE(length, mb_.length());
            if (length > 0) {
                EXPECT_TRUE(state == HTTP_CHUNK_STATE_DATA ||
                            state == HTTP_CHUNK_STATE_DATA_CR_EXPECTED);
            }
            data_.append(mb_.rd_ptr(), length);
            mb_.rd_ptr(length);
            // Each call consumes something, or an endless loop would hang a connection's thread.
            ASSERT_TRUE(mb_.length() < before || final());
        }
    }

    Decoded result() const
    {
        return {data_, parser_.state(), std::string(mb_.rd_ptr(), mb_.length())};
    }

private:
    bool final() const
    {
        return parser_.state() == HTTP_CHUNK_STATE_ERROR || parser_.state() == HTTP_CHUNK_STATE_END;
    }

    HTTP_Chunk_Parser parser_;
    ACE_Message_Block mb_;
    std::string data_;
};

Decoded decode(const std::string& wire, size_t step)
{
    Decoder decoder(wire.size());
    for (size_t at = 0; at < wire.size(); at += step) {
        decoder.feed(wire.substr(at, step));
    }
    return decoder.result();
}

struct Row {
    const char* name;
    std::string wire;
    Decoded expected;
};

constexpr HTTP_Chunk_State END = HTTP_CHUNK_STATE_END;
constexpr HTTP_Chunk_State ERROR = HTTP_CHUNK_STATE_ERROR;

const std::string LETTERS = "abcdefghijklmnopqrstuvwxyz";

const std::vector<Row>& rows()
{
    static const std::vector<Row> table = {
        {"one chunk", "4\r\nwiki\r\n0\r\n\r\n", {"wiki", END, ""}},
        {"empty body", "0\r\n\r\n", {"", END, ""}},
        {"two chunks", "4\r\nwiki\r\n5\r\npedia\r\n0\r\n\r\n", {"wikipedia", END, ""}},
        {"data that looks like framing", "5\r\n0\r\n\r\n\r\n0\r\n\r\n", {"0\r\n\r\n", END, ""}},
        {"next request behind the end", "1\r\nx\r\n0\r\n\r\nGET /", {"x", END, "GET /"}},
        {"no digits is size 0", "\r\n\r\n", {"", END, ""}},
        {"an extension and no digits", ";a\r\n\r\n", {"", END, ""}},
        {"several zeros", "000\r\n\r\n", {"", END, ""}},
        {"upper case digits", "1A\r\n" + LETTERS + "\r\n0\r\n\r\n", {LETTERS, END, ""}},
        {"lower case digits", "1a\r\n" + LETTERS + "\r\n0\r\n\r\n", {LETTERS, END, ""}},
        {"extension", "4;name=value\r\nwiki\r\n0\r\n\r\n", {"wiki", END, ""}},
        {"extension with any bytes",
         "4; \n\t\"\x01\xff;;\r\nwiki\r\n0;last\r\n\r\n",
         {"wiki", END, ""}},
        {"empty extension", "4;\r\nwiki\r\n0\r\n\r\n", {"wiki", END, ""}},
        {"leading zeros", "0000000000000000000000004\r\nwiki\r\n0\r\n\r\n", {"wiki", END, ""}},
        {"trailer field", "0\r\nExpires: 0\r\n\r\n", {"", ERROR, "Expires: 0\r\n\r\n"}},
        {"leading blank", " 4\r\nwiki\r\n", {"", ERROR, " 4\r\nwiki\r\n"}},
        {"trailing blank", "4 \r\nwiki\r\n", {"", ERROR, " \r\nwiki\r\n"}},
        {"tab behind the size", "4\t\r\n", {"", ERROR, "\t\r\n"}},
        {"sign", "-4\r\n", {"", ERROR, "-4\r\n"}},
        {"hexadecimal prefix", "0x4\r\n", {"", ERROR, "x4\r\n"}},
        {"neighbour before 0", "/\r\n", {"", ERROR, "/\r\n"}},
        {"neighbour behind 9", ":\r\n", {"", ERROR, ":\r\n"}},
        {"neighbour before A", "@\r\n", {"", ERROR, "@\r\n"}},
        {"neighbour behind F", "G\r\n", {"", ERROR, "G\r\n"}},
        {"neighbour before a", "`\r\n", {"", ERROR, "`\r\n"}},
        {"neighbour behind f", "g\r\n", {"", ERROR, "g\r\n"}},
        {"bare LF ends the size line", "4\nwiki", {"", ERROR, "\nwiki"}},
        {"CR without LF in the size line", "4\rwiki", {"", ERROR, "wiki"}},
        {"CR without LF behind an extension", "4;a\r;b\r\n", {"", ERROR, ";b\r\n"}},
        {"data followed by LF", "4\r\nwiki\n0\r\n\r\n", {"wiki", ERROR, "\n0\r\n\r\n"}},
        {"data followed by CR alone", "4\r\nwiki\r0\r\n", {"wiki", ERROR, "0\r\n"}},
        {"more data than declared", "4\r\nwikip\r\n", {"wiki", ERROR, "p\r\n"}},
        {"last chunk without its own CR LF", "0\r\n\rX", {"", ERROR, "X"}},
        {"size of 17 digits", "10000000000000000\r\n", {"", ERROR, "0\r\n"}},
        {"size beyond 64 bits behind zeros", "00ffffffffffffffffF\r\n", {"", ERROR, "F\r\n"}},
        {"data cut", "4\r\nwi", {"wi", HTTP_CHUNK_STATE_DATA, ""}},
        {"size line cut", "4", {"", HTTP_CHUNK_STATE_SIZE, ""}},
        {"extension cut", "4;na", {"", HTTP_CHUNK_STATE_EXT, ""}},
        {"size line without LF", "4\r", {"", HTTP_CHUNK_STATE_SIZE_CR, ""}},
        {"size line without data", "4\r\n", {"", HTTP_CHUNK_STATE_DATA, ""}},
        {"data without CR LF", "4\r\nwiki", {"wiki", HTTP_CHUNK_STATE_DATA_CR_EXPECTED, ""}},
        {"data without LF", "4\r\nwiki\r", {"wiki", HTTP_CHUNK_STATE_DATA_LF_EXPECTED, ""}},
        {"last chunk without its end", "0\r\n", {"", HTTP_CHUNK_STATE_DATA_CR_EXPECTED, ""}},
        {"first chunk done", "1\r\nx\r\n", {"x", HTTP_CHUNK_STATE_SIZE, ""}},
    };
    return table;
}

struct Step {
    HTTP_Chunk_State state;
    size_t length;
};

/// One parse of what the block holds, the data consumed as a connection does.
Step step(HTTP_Chunk_Parser& parser, ACE_Message_Block& mb)
{
    size_t length = 99;
    const HTTP_Chunk_State state = parser.parse(&mb, length);
    mb.rd_ptr(length);
    return {state, length};
}

void expect_step(const Step& seen, HTTP_Chunk_State state, size_t length)
{
    EXPECT_EQ(seen.state, state);
    EXPECT_EQ(seen.length, length);
}

ACE_Message_Block* block(const std::string& bytes)
{
    auto* const mb = new ACE_Message_Block(bytes.size() + 64);
    mb->copy(bytes.data(), bytes.size());
    return mb;
}

TEST(HTTP_Chunk_Parser, numbers_of_the_states_are_fixed)
{
    EXPECT_EQ(HTTP_CHUNK_STATE_SIZE, 0);
    EXPECT_EQ(HTTP_CHUNK_STATE_SIZE_CR, 1);
    EXPECT_EQ(HTTP_CHUNK_STATE_EXT, 2);
    EXPECT_EQ(HTTP_CHUNK_STATE_DATA, 3);
    EXPECT_EQ(HTTP_CHUNK_STATE_DATA_CR_EXPECTED, 4);
    EXPECT_EQ(HTTP_CHUNK_STATE_DATA_LF_EXPECTED, 5);
    EXPECT_EQ(HTTP_CHUNK_STATE_ERROR, 6);
    EXPECT_EQ(HTTP_CHUNK_STATE_END, 7);
}

TEST(HTTP_Chunk_Parser, gives_the_same_result_however_the_bytes_are_split)
{
    for (const Row& row : rows()) {
        for (size_t piece = 1; piece <= row.wire.size(); ++piece) {
            SCOPED_TRACE(testing::Message() << row.name << ", pieces of " << piece);
            Decoded expected = row.expected;
            Decoded seen = decode(row.wire, piece);
            EXPECT_EQ(seen.state, expected.state);
            EXPECT_EQ(seen.data, expected.data);
            EXPECT_EQ(seen.left, expected.left);
        }
    }
}

TEST(HTTP_Chunk_Parser, gives_the_same_result_wherever_the_bytes_are_cut_in_two)
{
    for (const Row& row : rows()) {
        for (size_t cut = 0; cut <= row.wire.size(); ++cut) {
            SCOPED_TRACE(testing::Message() << row.name << ", cut at " << cut);
            Decoder decoder(row.wire.size());
            decoder.feed(row.wire.substr(0, cut));
            decoder.feed(row.wire.substr(cut));
            EXPECT_EQ(decoder.result(), row.expected);
        }
    }
}

TEST(HTTP_Chunk_Parser, reports_each_run_of_data_and_the_empty_one_of_the_last_chunk)
{
    HTTP_Chunk_Parser parser;
    ACE_Message_Block* const mb = block("4\r\nwiki\r\n0\r\n\r\n");
    expect_step(step(parser, *mb), HTTP_CHUNK_STATE_DATA_CR_EXPECTED, 4);
    expect_step(step(parser, *mb), HTTP_CHUNK_STATE_DATA_CR_EXPECTED, 0);
    expect_step(step(parser, *mb), HTTP_CHUNK_STATE_END, 0);
    EXPECT_EQ(mb->length(), 0U);
    mb->release();
}

TEST(HTTP_Chunk_Parser, leaves_the_data_at_the_read_pointer)
{
    HTTP_Chunk_Parser parser;
    ACE_Message_Block* const mb = block("4\r\nwiki\r\n");
    size_t length = 0;
    parser.parse(mb, length);
    ASSERT_EQ(length, 4U);
    EXPECT_EQ(std::string(mb->rd_ptr(), mb->length()), "wiki\r\n");
    EXPECT_EQ(parser.chunk_size(), 4U);
    mb->release();
}

TEST(HTTP_Chunk_Parser, reports_the_part_of_a_chunk_that_has_arrived)
{
    HTTP_Chunk_Parser parser;
    ACE_Message_Block* const mb = block("4\r\nwi");
    expect_step(step(parser, *mb), HTTP_CHUNK_STATE_DATA, 2);
    mb->copy("ki\r", 3);
    expect_step(step(parser, *mb), HTTP_CHUNK_STATE_DATA_CR_EXPECTED, 2);
    expect_step(step(parser, *mb), HTTP_CHUNK_STATE_DATA_LF_EXPECTED, 0);
    mb->release();
}

TEST(HTTP_Chunk_Parser, a_size_line_at_the_end_of_the_buffer_reports_no_data)
{
    HTTP_Chunk_Parser parser;
    ACE_Message_Block* const mb = block("4\r\n");
    expect_step(step(parser, *mb), HTTP_CHUNK_STATE_DATA, 0);
    EXPECT_EQ(mb->length(), 0U);
    mb->release();
}

TEST(HTTP_Chunk_Parser, takes_sizes_up_to_64_bits)
{
    for (const char* const line : {"ffffffffffffffff\r\n", "FFFFFFFFFFFFFFFF;x\r\n",
                                   "000000000000000000000000000ffffffffffffffff\r\n"}) {
        SCOPED_TRACE(line);
        HTTP_Chunk_Parser parser;
        ACE_Message_Block* const mb = block(std::string(line) + "some");
        expect_step(step(parser, *mb), HTTP_CHUNK_STATE_DATA, 4);
        EXPECT_EQ(parser.chunk_size(), 0xFFFF'FFFF'FFFF'FFFFU);
        mb->release();
    }
}

TEST(HTTP_Chunk_Parser, without_a_block_nothing_changes)
{
    HTTP_Chunk_Parser parser;
    ACE_Message_Block* const mb = block("4;");
    step(parser, *mb);
    size_t length = 7;
    EXPECT_EQ(parser.parse(nullptr, length), HTTP_CHUNK_STATE_EXT);
    EXPECT_EQ(length, 0U);
    EXPECT_EQ(parser.chunk_size(), 4U);
    mb->release();
}

TEST(HTTP_Chunk_Parser, an_empty_block_changes_nothing)
{
    HTTP_Chunk_Parser parser;
    ACE_Message_Block mb(8);
    expect_step(step(parser, mb), HTTP_CHUNK_STATE_SIZE, 0);
}

TEST(HTTP_Chunk_Parser, end_and_error_are_final_and_consume_nothing)
{
    for (const char* const wire : {"0\r\n\r\n", "x"}) {
        SCOPED_TRACE(wire);
        HTTP_Chunk_Parser parser;
        ACE_Message_Block* const mb = block(wire);
        step(parser, *mb);
        const HTTP_Chunk_State final = step(parser, *mb).state;
        const size_t left = mb->length();
        mb->copy("4\r\nwiki\r\n", 9);
        expect_step(step(parser, *mb), final, 0);
        EXPECT_EQ(mb->length(), left + 9);
        mb->release();
    }
}

TEST(HTTP_Chunk_Parser, reset_begins_a_new_body)
{
    HTTP_Chunk_Parser parser;
    ACE_Message_Block* const mb = block("8\r\nwiki");
    step(parser, *mb);
    parser.reset();
    EXPECT_EQ(parser.state(), HTTP_CHUNK_STATE_SIZE);
    EXPECT_EQ(parser.chunk_size(), 0U);
    mb->copy("2\r\nok\r\n", 7);
    expect_step(step(parser, *mb), HTTP_CHUNK_STATE_DATA_CR_EXPECTED, 2);
    mb->release();
}

TEST(HTTP_Chunk_Parser, sizes_are_forgotten_behind_each_chunk)
{
    HTTP_Chunk_Parser parser;
    ACE_Message_Block* const mb = block("4\r\nwiki\r\n");
    step(parser, *mb);
    step(parser, *mb);
    EXPECT_EQ(parser.state(), HTTP_CHUNK_STATE_SIZE);
    EXPECT_EQ(parser.chunk_size(), 0U);
    mb->release();
}

} // namespace
