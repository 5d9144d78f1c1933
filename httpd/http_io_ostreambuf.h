#pragma once

#include "httpd/export.h"

#include <cstddef>
#include <streambuf>

class HTTP_IO;

/**
 * Output buffer of a response body, so that a plug-in can write it with stream insertion: bytes
 * are collected and handed to HTTP_IO::send.
 *
 * Set status and header fields before the buffer is full for the first time. Its destruction sends
 * the rest as the last piece and so completes the response. What that last send returned (-1 asks
 * for the connection to be closed) is lost, so a plug-in returns -1 where the response is not kept
 * alive. Used by one thread; the HTTP_IO must outlive it.
 */
class HTTPD_EXPORT HTTP_IO_ostreambuf : public std::basic_streambuf<char> {
public:
    /**
     * @param size  bytes collected before they are sent. With 0, or without memory (ENOMEM), there
     *              is no buffer (one emergency line): every write fails and the stream goes bad.
     */
    HTTP_IO_ostreambuf(HTTP_IO& io, size_t size);
    ~HTTP_IO_ostreambuf() override;
    HTTP_IO_ostreambuf(const HTTP_IO_ostreambuf&) = delete;
    HTTP_IO_ostreambuf& operator=(const HTTP_IO_ostreambuf&) = delete;

protected:
    /// Makes room and stores `c`. @return `c`; end-of-file on failure and where `c` is end-of-file.
    int_type overflow(int_type c) override;

    /// Sends what is collected. @return 0, or -1: the bytes are still in the buffer then.
    int sync() override;

    /**
     * Sends what is collected.
     * @param last  ends the response; then also an empty piece is sent
     * @return the bytes sent, or what the send of an empty last piece returned; -1 on failure.
     */
    int sync(bool last);

    HTTP_IO& io_;
    size_t size_;
    char* buf_ = nullptr;
};
