#pragma once

#include <ace/Message_Block.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <memory>
#include <string_view>

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define FUZZ_ADDRESS_SANITIZER
#endif
#elif defined(__SANITIZE_ADDRESS__)
#define FUZZ_ADDRESS_SANITIZER
#endif
#ifdef FUZZ_ADDRESS_SANITIZER
#include <sanitizer/asan_interface.h>
#endif

/// A receive buffer that a text arrives in piece by piece. What has not arrived must not be read,
/// and AddressSanitizer sees to that.
class Growing_Block {
public:
    /// @param lead  bytes of an earlier message that lie consumed in front of the text
    explicit Growing_Block(std::string_view text, size_t lead = 0)
        : left_(text), size_(lead + text.size()), bytes_(new char[std::max<size_t>(size_, 1)]),
          block_(bytes_.get(), size_)
    {
        std::memset(bytes_.get(), '\r', lead);
        block_.wr_ptr(lead);
        block_.rd_ptr(lead);
        this->close();
    }

    ~Growing_Block() { this->open(); }
    Growing_Block(const Growing_Block&) = delete;
    Growing_Block& operator=(const Growing_Block&) = delete;

    ACE_Message_Block& block() { return block_; }
    size_t left() const { return left_.size(); }

    /// Bytes of the text that were consumed from the block.
    size_t consumed(std::string_view text) const
    {
        return text.size() - left_.size() - block_.length();
    }

    void append(size_t size)
    {
        this->open();
        std::memcpy(block_.wr_ptr(), left_.data(), size);
        block_.wr_ptr(size);
        left_.remove_prefix(size);
        this->close();
    }

    /// Moves what is unread to the front, as a connection does that needs room.
    void crunch()
    {
        this->open();
        block_.crunch();
        this->close();
    }

private:
    void open()
    {
#ifdef FUZZ_ADDRESS_SANITIZER
        ASAN_UNPOISON_MEMORY_REGION(bytes_.get(), size_);
#endif
    }

    void close()
    {
#ifdef FUZZ_ADDRESS_SANITIZER
        const auto used = static_cast<size_t>(block_.wr_ptr() - bytes_.get());
        ASAN_POISON_MEMORY_REGION(block_.wr_ptr(), size_ - used);
#endif
    }

    std::string_view left_;
    size_t size_;
    std::unique_ptr<char[]> bytes_;
    ACE_Message_Block block_;
};
