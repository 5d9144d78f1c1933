#pragma once

#include "support/arena.h"
#include "support/export.h"
#include "support/http_headers.h"
#include "support/http_method.h"

#include <sys/uio.h>

#include <cstdint>
#include <string_view>

/// A message: its memory and its header fields.
class HTTPD_SUPPORT_EXPORT CGI_Base {
public:
    CGI_Base();
    CGI_Base(const CGI_Base&) = delete;
    CGI_Base& operator=(const CGI_Base&) = delete;

    HTTP_Headers& headers() { return headers_; }
    const HTTP_Headers& headers() const { return headers_; }

    /// Memory that lives as long as this message's content, that is until its reset().
    Arena& arena() { return arena_; }

protected:
    ~CGI_Base() = default;

    Arena arena_;
    HTTP_Headers headers_;
};

/// A request: method, target and header fields.
class HTTPD_SUPPORT_EXPORT CGI_Request : public CGI_Base {
public:
    HTTP_Method method() const { return method_; }

    /// The method as sent: also where method() is HTTP_NO_METHOD.
    const char* method_text() const { return method_text_; }

    /**
     * @param path  true: the path of the target, without query, percent-encoded unreserved
     *              characters decoded (RFC 3986, 2.3), every other encoding as sent; the same for
     *              origin and absolute form; "*" and an authority stay as sent.
     *              false: the whole target as sent.
     * @return never null; lives until the next reset().
     */
    const char* uri(bool path) const { return path ? path_ : target_; }

    /// The text behind the "?" of the target, or null when there is no "?".
    const char* query() const { return query_; }

    /// The authority of a target in absolute form, without user information; else empty.
    std::string_view authority() const { return authority_; }

    /**
     * Sets method and target (both are copied). Called by the parser and by tests.
     * @return 0; -1 with ENOMEM; -1 with EINVAL for a target that is empty or holds a control
     *         character, a blank or a byte above 0x7E, or whose path holds "%00" or a "%" without
     *         two hexadecimal digits. The request is unchanged then.
     */
    int request_line(std::string_view method, std::string_view target);

    /**
     * The same without a copy.
     * @param method_text  lives for ever or lies in this message's arena
     * @param target       lies in this message's arena; a NUL is written behind it, where PADDING
     *                     bytes must be readable
     */
    int request_line_placed(HTTP_Method method, const char* method_text, char* target,
                            size_t target_size);
    enum : size_t { PADDING = 16 };

protected:
    ~CGI_Request() = default;
    CGI_Request() = default;

    /// Forgets everything but the arena's memory.
    void reset_content()
    {
        headers_.reset();
        method_ = HTTP_METHOD_GET;
        method_text_ = "GET";
        target_ = "/";
        path_ = "/";
        query_ = nullptr;
        authority_ = {};
    }

    HTTP_Method method_ = HTTP_METHOD_GET;
    const char* method_text_ = "GET";
    const char* target_ = "/";
    const char* path_ = "/";
    const char* query_ = nullptr;
    std::string_view authority_;

private:
    const char* copy_path(std::string_view path, bool is_encoded);
};

/// A response: status, reason and header fields.
class HTTPD_SUPPORT_EXPORT CGI_Response : public CGI_Base {
public:
    int status() const { return status_; }

    /**
     * Sets status and reason phrase.
     * @param code    three digits; 200 after a reset. Any other number, which the status line could
     *                not hold, logs an error line and sets 500.
     * @param reason  null or "": the phrase of RFC 9110, section 15, or the generic text of the
     *                status class. A phrase with CR, LF or NUL is refused with an error line and
     *                replaced by the default.
     */
    void status(int code, const char* reason = nullptr);

    /// Never null.
    const char* reason() const { return reason_.data(); }

protected:
    ~CGI_Response() = default;
    CGI_Response() = default;

    /// Forgets everything but the arena's memory.
    void reset_content()
    {
        headers_.reset();
        status_ = 200;
        reason_ = "OK";
    }

    int status_ = 200;
    std::string_view reason_ = "OK"; ///< NUL-terminated
};

/// What requests and responses of HTTP/1.x have in common: T is CGI_Request or CGI_Response.
template <typename T>
class HTTPD_SUPPORT_EXPORT HTTP_Base : public T {
public:
    int minor_version() const { return minor_version_; }
    void minor_version(int version) { minor_version_ = version; }

    /// Content-Length as a decimal number that stops at the first non-digit; 0 when absent, the
    /// highest number of 64 bits when it is larger.
    std::uint64_t content_length() const
    {
        return this->headers_.has(HTTP_HEAD_CONTENT_LENGTH) ? this->read_content_length() : 0;
    }
    void content_length(std::uint64_t length);

    /// Content-Type, or null.
    const char* content_type() const { return this->headers_.get(HTTP_HEAD_CONTENT_TYPE); }
    void content_type(const char* type) { this->headers_.put(HTTP_HEAD_CONTENT_TYPE, type); }

    /// Connection: false for "close", else true for "Keep-Alive", else true from HTTP/1.1 on.
    bool keep_alive() const
    {
        return this->headers_.has(HTTP_HEAD_CONNECTION) ? this->read_connection()
                                                        : minor_version_ > 0;
    }
    void keep_alive(bool on);

    /// True exactly when Transfer-Encoding is "chunked", byte for byte.
    bool chunked_transfer_encoding() const
    {
        return this->headers_.value(HTTP_HEAD_TRANSFER_ENCODING) == "chunked";
    }
    void chunked_transfer_encoding(bool on);

protected:
    ~HTTP_Base() = default;
    HTTP_Base() = default;

    void reset_content()
    {
        T::reset_content();
        minor_version_ = 1;
    }

    int minor_version_ = 1;

private:
    std::uint64_t read_content_length() const;
    bool read_connection() const;
};

extern template class HTTP_Base<CGI_Request>;
extern template class HTTP_Base<CGI_Response>;

/// A request as the server received it. Used by one thread at a time.
class HTTPD_SUPPORT_EXPORT HTTP_Request : public HTTP_Base<CGI_Request> {
public:
    /**
     * @param method       HTTP_METHOD_ number
     * @param uri          the target
     * @param keep_alive   false puts "Connection: close"
     */
    explicit HTTP_Request(HTTP_Method method = HTTP_METHOD_GET, const char* uri = "/",
                          bool keep_alive = true);
    ~HTTP_Request() = default;

    /// Empties it for the next request of the connection: GET, "/", HTTP/1.1, no fields.
    void reset()
    {
        this->reset_content();
        arena_.reset();
    }

    /// reset(), and leaves the memory to the next message of the calling thread.
    void give_back();
};

/// A response as a plug-in builds it. Used by one thread at a time.
class HTTPD_SUPPORT_EXPORT HTTP_Response : public HTTP_Base<CGI_Response> {
public:
    HTTP_Response() = default;
    ~HTTP_Response() = default;

    /// Empties it for the next response of the connection: 200, HTTP/1.1, no fields.
    void reset()
    {
        this->reset_content();
        arena_.reset();
    }

    /// reset(), and leaves the memory to the next message of the calling thread.
    void give_back();

    /// How many entries to_iovec() needs at most.
    int iovec_count() const { return 1; }

    /**
     * Serialises status line, fields (in the order in which they were put), a Date field unless the
     * plug-in put one (RFC 9110, 6.6.1), and the empty line, as one contiguous piece. The version
     * is always HTTP/1.1, the highest that this server speaks (RFC 9112, 2.3).
     * @param iov    receives the entries; they point into this response and live until the next
     *               change of it
     * @param count  room in iov; at least iovec_count()
     * @return the number of entries filled, or -1 with errno (EINVAL: no room; ENOMEM)
     */
    int to_iovec(iovec* iov, int count) { return this->to_iovec(iov, count, nullptr, 0); }

    /**
     * The same with a body, or its beginning, behind it: as an entry of its own that refers to the
     * caller's bytes, or, where they are few, in one piece with the rest, which makes a plain send
     * of it without another copy.
     * @param count   at least iovec_count() + 1
     * @param length  of body, bytes; 0: no body
     */
    int to_iovec(iovec* iov, int count, const void* body, size_t length);

private:
    /// Longer bodies are not copied behind the head.
    enum : size_t { SMALL_BODY = 1024 };
};
