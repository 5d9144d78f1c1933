#pragma once

#include <cstddef>
#include <string_view>

/**
 * User and password of an Authorization field (RFC 7617), wiped from memory when they go.
 */
class Credentials {
public:
    /// What user, colon and password may take together, bytes.
    static constexpr size_t MAX_LENGTH = 1024;

    Credentials() = default;
    ~Credentials();
    Credentials(const Credentials&) = delete;
    Credentials& operator=(const Credentials&) = delete;

    /**
     * @param value  of the Authorization field
     * @return false for another scheme, bad Base64, a missing colon, a control character (RFC 7617,
     *         section 2; a NUL would cut the password short), or more than MAX_LENGTH bytes.
     */
    bool parse(std::string_view value);

    std::string_view user() const { return user_; }

    /// NUL-terminated.
    std::string_view password() const { return password_; }

private:
    char text_[MAX_LENGTH + 1];
    size_t length_ = 0;
    std::string_view user_;
    std::string_view password_;
};

/**
 * Decodes Base64 (RFC 4648, section 4) strictly: padded, without line breaks, the bits behind the
 * last byte zero.
 * @param room    bytes at `bytes`
 * @param length  receives how many bytes were written
 * @return false when the text is malformed or does not fit; `bytes` may have been written to.
 */
bool base64_decode(std::string_view text, char* bytes, size_t room, size_t& length);
