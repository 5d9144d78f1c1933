#include "support/http_syntax.h"

#include "tests/support/guarded_text.h"

#include <gtest/gtest.h>

#include <functional>
#include <random>
#include <string>
#include <vector>

namespace {

constexpr size_t CHUNK = Text_Chunk::SIZE;

/// The bits that a plain loop over the same bytes gives.
unsigned bits_of(std::string_view text, const std::function<bool(unsigned char)>& holds)
{
    unsigned bits = 0;
    for (size_t i = 0; i < CHUNK; ++i) {
        bits |= holds(static_cast<unsigned char>(text[i])) ? 1U << i : 0U;
    }
    return bits;
}

/// Texts of `size` bytes: random ones, and such as consist of what headers consist of.
std::vector<std::string> texts(size_t size, std::mt19937& random)
{
    std::vector<std::string> result(4, std::string(size, '\0'));
    constexpr std::string_view USUAL = "aZ09-_.:/?%, \t\r\n\x7F\x80\xFF";
    for (size_t i = 0; i < size; ++i) {
        result[0][i] = static_cast<char>(random());
        result[1][i] = USUAL[random() % USUAL.size()];
        result[2][i] = random() % 16 == 0 ? static_cast<char>(random()) : 'a';
        result[3][i] = 'a';
    }
    return result;
}

std::vector<size_t> plain_controls(std::string_view text, size_t from)
{
    std::vector<size_t> result;
    for (size_t i = from; i < text.size(); ++i) {
        if (http_is_control(text[i])) {
            result.push_back(i);
        }
    }
    return result;
}

std::vector<size_t> found_controls(std::string_view text, size_t from)
{
    std::vector<size_t> result;
    Control_Finder finder(text.data(), from, text.size());
    for (size_t at = finder.find(); at != text.size(); at = finder.find()) {
        result.push_back(at);
        finder.skip(at + 1);
    }
    return result;
}

bool plain_breaks_line(std::string_view text)
{
    return text.find_first_of(std::string_view("\r\n\0", 3)) != std::string_view::npos;
}

} // namespace

TEST(Text_Chunk, answers_for_every_byte_at_every_place)
{
    for (size_t place = 0; place < CHUNK; ++place) {
        for (unsigned byte = 0; byte < 256; ++byte) {
            SCOPED_TRACE(testing::Message() << "byte " << byte << " at " << place);
            std::string text(CHUNK, 'x');
            text[place] = static_cast<char>(byte);
            const Text_Chunk chunk(text.data());
            EXPECT_EQ(chunk.equal(static_cast<char>(byte)),
                      bits_of(text, [byte](unsigned c) { return c == byte; }));
            EXPECT_EQ(chunk.controls(), bits_of(text, [](unsigned c) {
                          return (c < 0x20 && c != '\t') || c == 0x7F;
                      }));
            EXPECT_EQ(chunk.visible(),
                      bits_of(text, [](unsigned c) { return c > 0x20 && c < 0x7F; }));
            EXPECT_EQ(chunk.line_breakers(),
                      bits_of(text, [](unsigned c) { return c == '\r' || c == '\n' || c == 0; }));
            EXPECT_EQ(chunk.letters_digits_hyphens(), bits_of(text, [](unsigned c) {
                          return http_is_alpha(static_cast<char>(c)) ||
                                 http_is_digit(static_cast<char>(c)) || c == '-';
                      }));
        }
    }
}

TEST(Text_Chunk, compares_names_without_case_and_all_else_exactly)
{
    const std::string lower = "x-requested-8:  ";
    ASSERT_EQ(lower.size(), CHUNK);
    for (size_t place = 0; place < CHUNK; ++place) {
        for (unsigned byte = 0; byte < 256; ++byte) {
            std::string text = "X-Requested-8:  ";
            text[place] = static_cast<char>(byte);
            const unsigned expected = http_lower(text[place]) == lower[place]
                                          ? Text_Chunk::ALL
                                          : Text_Chunk::ALL & ~(1U << place);
            EXPECT_EQ(Text_Chunk(text.data()).same_name(lower.data()), expected)
                << "byte " << byte << " at " << place;
        }
    }
}

TEST(Control_Finder, finds_what_a_plain_loop_finds_and_reads_nothing_else)
{
    std::mt19937 random(1);
    for (size_t size = 0; size <= 5 * CHUNK; ++size) {
        for (const std::string& bytes : texts(size, random)) {
            const Guarded_Text text(bytes);
            for (size_t from = 0; from <= size; ++from) {
                ASSERT_EQ(found_controls(text.view(), from), plain_controls(bytes, from))
                    << "size " << size << ", from " << from;
            }
        }
    }
}

TEST(Control_Finder, finds_a_single_control_character_wherever_it_is)
{
    for (size_t size = 1; size <= 4 * CHUNK; ++size) {
        for (size_t place = 0; place < size; ++place) {
            for (const char control : {'\0', '\r', '\n', '\x1F', '\x7F'}) {
                std::string bytes(size, '\xC3');
                bytes[place] = control;
                const Guarded_Text text(bytes);
                ASSERT_EQ(found_controls(text.view(), 0), std::vector<size_t>{place})
                    << "of " << size;
            }
        }
    }
}

TEST(Control_Finder, skips_any_number_of_bytes)
{
    const std::string bytes(4 * CHUNK, '\n');
    for (size_t to = 1; to <= bytes.size(); ++to) {
        Control_Finder finder(bytes.data(), 0, bytes.size());
        ASSERT_EQ(finder.find(), 0U);
        finder.skip(to);
        ASSERT_EQ(finder.find(), to);
    }
}

TEST(http_find_padded, finds_the_first_or_says_that_there_is_none)
{
    for (size_t size = 0; size <= 3 * CHUNK; ++size) {
        for (size_t place = 0; place <= size + CHUNK - 2; ++place) {
            std::string bytes(size + CHUNK - 1, 'x');
            bytes[place] = ':';
            bytes.back() = ':'; // behind the text
            const Guarded_Text text(bytes);
            const char* const end = text.data() + size;
            const char* const found = http_find_padded(text.data(), text.data() + size, ':');
            if (place < size) {
                ASSERT_EQ(found - text.data(), static_cast<ptrdiff_t>(place));
            } else {
                ASSERT_GE(found, end);
            }
        }
    }
}

TEST(http_is_token_padded, says_the_same_as_the_table)
{
    for (size_t size = 0; size <= 2 * CHUNK + 1; ++size) {
        for (size_t place = 0; place < size || place == 0; ++place) {
            for (unsigned byte = 0; byte < 256; ++byte) {
                std::string bytes(size + CHUNK - 1, 'x');
                bytes[place] = static_cast<char>(byte);
                const std::string_view token = std::string_view(bytes).substr(0, size);
                ASSERT_EQ(http_is_token_padded(token), http_is_token(token))
                    << "byte " << byte << " at " << place << " of " << size;
            }
        }
    }
}

TEST(http_breaks_line, says_the_same_as_a_plain_search_and_reads_nothing_else)
{
    std::mt19937 random(2);
    for (size_t size = 0; size <= 4 * CHUNK; ++size) {
        for (size_t place = 0; place < size || place == 0; ++place) {
            for (const char byte : {'\r', '\n', '\0', '\t', '\x0B', '\x8D', '\x8A'}) {
                std::string bytes(size, 'x');
                if (size > 0) {
                    bytes[place] = byte;
                }
                const Guarded_Text text(bytes);
                ASSERT_EQ(http_breaks_line(text.view()), plain_breaks_line(bytes))
                    << "byte " << int{byte} << " at " << place << " of " << size;
            }
        }
        for (const std::string& bytes : texts(size, random)) {
            const Guarded_Text text(bytes);
            ASSERT_EQ(http_breaks_line(text.view()), plain_breaks_line(bytes));
        }
    }
}

TEST(copy_short, copies_every_size_and_touches_nothing_else)
{
    std::mt19937 random(3);
    for (size_t size = 0; size <= 10 * CHUNK; ++size) {
        const std::string bytes = texts(size, random).front();
        const Guarded_Text from(bytes);
        const Guarded_Text to(std::string(1, '#') + std::string(size, 'x'));
        EXPECT_EQ(copy_short(to.data() + 1, from.view()), to.data() + to.size());
        EXPECT_EQ(to.view(), "#" + bytes);
    }
}

TEST(is_word_no_case, takes_the_whole_word_in_any_case)
{
    EXPECT_TRUE(is_word_no_case("keep-alive", "keep-alive"));
    EXPECT_TRUE(is_word_no_case("Keep-Alive", "keep-alive"));
    EXPECT_TRUE(is_word_no_case("CLOSE", "close"));
    EXPECT_FALSE(is_word_no_case("keep-aliv", "keep-alive"));
    EXPECT_FALSE(is_word_no_case("keep-alive ", "keep-alive"));
    EXPECT_FALSE(is_word_no_case("", "keep-alive"));
    const std::string word = "Keep-Alive";
    for (size_t place = 0; place < word.size(); ++place) {
        for (unsigned byte = 0; byte < 256; ++byte) {
            std::string text = word;
            text[place] = static_cast<char>(byte);
            EXPECT_EQ(is_word_no_case(text, "keep-alive"),
                      http_lower(text[place]) == http_lower(word[place]))
                << "byte " << byte << " at " << place;
        }
    }
}
