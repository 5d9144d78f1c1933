#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string_view>

/// Takes an input apart from its front: choices first, the text that is tested last, so that the
/// text stands in a stored input as it is.
class Fuzz_Input {
public:
    Fuzz_Input(const std::uint8_t* data, size_t size)
        : left_(reinterpret_cast<const char*>(data), size)
    {
    }

    bool empty() const { return left_.empty(); }
    size_t size() const { return left_.size(); }

    /// 0 when nothing is left.
    std::uint8_t byte()
    {
        if (left_.empty()) {
            return 0;
        }
        const char first = left_.front();
        left_.remove_prefix(1);
        return static_cast<std::uint8_t>(first);
    }

    std::uint16_t word()
    {
        const unsigned high = this->byte();
        return static_cast<std::uint16_t>(high << 8 | this->byte());
    }

    std::uint64_t number()
    {
        std::uint64_t number = 0;
        for (int i = 0; i < 8; ++i) {
            number = number << 8 | this->byte();
        }
        return number;
    }

    /// What stands before the next `separator`, which is taken too; all when there is none.
    std::string_view until(char separator)
    {
        const size_t end = std::min(left_.find(separator), left_.size());
        const std::string_view text = left_.substr(0, end);
        left_.remove_prefix(std::min(end + 1, left_.size()));
        return text;
    }

    std::string_view rest()
    {
        const std::string_view text = left_;
        left_ = {};
        return text;
    }

private:
    std::string_view left_;
};

/// Sizes of the pieces in which a text arrives, chosen by two bytes of the input. Small pieces are
/// the rule, since that is where a parser remembers things.
class Pieces {
public:
    explicit Pieces(std::uint16_t choice)
        : most_(size_t{1} << 2 * (choice & 3U)), state_(choice | 0x10000U)
    {
    }

    /// From 1 to `left`, which is not 0.
    size_t next(size_t left)
    {
        state_ ^= state_ << 13;
        state_ ^= state_ >> 17;
        state_ ^= state_ << 5;
        return std::min(left, 1 + state_ % most_);
    }

private:
    size_t most_;
    std::uint32_t state_;
};
