// Send side: header and body of a response, counted or chunked, from a buffer, a vector or a file.
// Included by http_svc_handler_t.cpp alone.
//
// Every routine gathers the facts of one write; send_outcome() alone says what comes next.

template <typename Stream, typename Sync>
int HTTP_Svc_Handler_T<Stream, Sync>::send(const void* data, size_t length, bool last)
{
    int result = -1;
    switch (this->response_state()) {
    case HTTP_SOCK_STATE_CONNECTED:
        result = response_.chunked_transfer_encoding()
                     ? this->send_headers_chunked(data, length, last)
                     : this->send_headers_content(data, length, last);
        break;
    case HTTP_SOCK_STATE_HEADER_SENT:
    case HTTP_SOCK_STATE_CONTENT_SENDING:
        result = response_.chunked_transfer_encoding()
                     ? this->send_body_chunked(data, length, last)
                     : this->send_body_content(data, length, last);
        break;
    default:
        HTTPD_ERROR("Call HTTP_Svc_Handler_T<P, S>::send with incorrect response state %s",
                    http_sock_state_name(this->response_state()));
        break;
    }
    return this->finish_send(result);
}

template <typename Stream, typename Sync>
int HTTP_Svc_Handler_T<Stream, Sync>::sendv_n(const iovec* iov, int count, bool last)
{
    int result = -1;
    switch (this->response_state()) {
    case HTTP_SOCK_STATE_CONNECTED:
        result = response_.chunked_transfer_encoding()
                     ? this->sendv_headers_chunked(iov, count, last)
                     : this->sendv_headers_content(iov, count, last);
        break;
    case HTTP_SOCK_STATE_HEADER_SENT:
    case HTTP_SOCK_STATE_CONTENT_SENDING:
        result = response_.chunked_transfer_encoding() ? this->sendv_body_chunked(iov, count, last)
                                                       : this->sendv_body_content(iov, count, last);
        break;
    default:
        HTTPD_ERROR("Call HTTP_Svc_Handler_T<P, S>::sendv_n with incorrect response state %s",
                    http_sock_state_name(this->response_state()));
        break;
    }
    return this->finish_send(result);
}

/**
 * A completed response lets a suspended connection read its next request. A thread of the plug-in's
 * cannot pass a -1 on to the engine, so the request to close is kept for it; a failed write is one.
 */
template <typename Stream, typename Sync>
int HTTP_Svc_Handler_T<Stream, Sync>::finish_send(int result)
{
    const HTTP_SOCK_State sent = this->response_state();
    const bool complete = sent == HTTP_SOCK_STATE_CONTENT_SENT;
    const bool failed = result == -1 && (sent == HTTP_SOCK_STATE_HEADER_SENDING ||
                                         sent == HTTP_SOCK_STATE_CONTENT_SENDING);
    if ((complete || failed) && this->is_suspended()) {
        close_asked_ = result == -1;
        constexpr bool RESUME = false;
        this->suspend_read(RESUME);
    }
    return result;
}

// ---------------------------------------------------------------- header and first piece

/// Readies counters and the Connection field. @return keep, for the caller's use.
template <typename Stream, typename Sync>
bool HTTP_Svc_Handler_T<Stream, Sync>::begin_headers(bool keep)
{
    this->response_state(HTTP_SOCK_STATE_HEADER_SENDING);
    content_sent_ = 0;
    response_length_ = 0;
    response_.keep_alive(keep);
    this->widen_output(response_.content_length());
    return keep;
}

/// Writes head and body entries in one go. @return 0, or -1 (logged).
template <typename Stream, typename Sync>
int HTTP_Svc_Handler_T<Stream, Sync>::write_headers(iovec* iov, int head_entries, int body_entries)
{
    if (head_entries >= 0 &&
        Stream_IO::sendv(this->peer(), iov, head_entries + body_entries) != -1) {
        return 0;
    }
    return this->headers_failed();
}

template <typename Stream, typename Sync>
int HTTP_Svc_Handler_T<Stream, Sync>::headers_failed() const
{
    HTTPD_ERROR("Failed to send headers to HTTP client %s: %m",
                addr_string_type(remote_addr_, WITH_PORT).c_str());
    return -1;
}

template <typename Stream, typename Sync>
[[gnu::always_inline]] inline int
HTTP_Svc_Handler_T<Stream, Sync>::headers_content_sent(size_t payload, bool piece, bool head,
                                                       bool keep, bool last)
{
    content_sent_ += payload;
    this->count_output(payload + FRAMING_BYTES);
    if (keep && !head) {
        response_length_ = response_.content_length();
    }
    constexpr bool HEADERS = true;
    constexpr bool CHUNKED = false;
    const Send_Outcome outcome = send_outcome(
        {HEADERS, piece, head, CHUNKED, keep, content_sent_ >= response_length_, last});
    this->response_state(outcome.state);
    return outcome.result;
}

template <typename Stream, typename Sync>
int HTTP_Svc_Handler_T<Stream, Sync>::headers_chunked_sent(size_t payload, bool piece, bool keep,
                                                           bool last)
{
    content_sent_ += payload;
    this->count_output(payload + FRAMING_BYTES);
    // A chunked response to HEAD keeps its chunks, unlike a counted one; intended, and pinned by
    // HTTP_Send.chunked_head_keeps_its_body.
    constexpr bool HEAD = false;
    constexpr bool HEADERS = true;
    constexpr bool CHUNKED = true;
    constexpr bool COMPLETE = false;
    const Send_Outcome outcome =
        send_outcome({HEADERS, piece, HEAD, CHUNKED, keep, COMPLETE, last});
    this->response_state(outcome.state);
    return outcome.result;
}

template <typename Stream, typename Sync>
[[gnu::always_inline]] inline int
HTTP_Svc_Handler_T<Stream, Sync>::send_headers_content(const void* data, size_t length, bool last)
{
    const bool head = request_.method() == HTTP_METHOD_HEAD;
    const bool keep = this->begin_headers(request_.keep_alive() &&
                                          response_.headers().has(HTTP_HEAD_CONTENT_LENGTH));
    const bool body = !head && data != nullptr && length > 0;
    iovec iov[2];
    const int entries = response_.to_iovec(iov, 2, data, body ? length : 0);
    if (this->write_headers(iov, entries, 0) == -1) {
        return -1;
    }
    return this->headers_content_sent(body ? length : 0, body, head, keep, last);
}

template <typename Stream, typename Sync>
int HTTP_Svc_Handler_T<Stream, Sync>::sendv_headers_content(const iovec* source, int count,
                                                            bool last)
{
    // The vector's bytes go out for HEAD too; only send() drops them.
    constexpr bool HEAD = false;
    const bool keep =
        this->begin_headers(request_.keep_alive() &&
                            response_.headers().get(HTTP_HEAD_CONTENT_LENGTH, true) != nullptr);
    const bool body = source != nullptr && count > 0;
    const int body_entries = body ? count : 0;
    Send_Vector vector(response_.iovec_count() + body_entries);
    iovec* const iov = vector.get();
    const int entries = iov != nullptr ? response_.to_iovec(iov, response_.iovec_count()) : -1;
    if (entries >= 0) {
        std::copy_n(source, body_entries, iov + entries);
    }
    if (this->write_headers(iov, entries, body_entries) == -1) {
        return -1;
    }
    return this->headers_content_sent(total_length(source, body_entries), body, HEAD, keep, last);
}

template <typename Stream, typename Sync>
int HTTP_Svc_Handler_T<Stream, Sync>::send_headers_chunked(const void* data, size_t length,
                                                           bool last)
{
    const bool keep = this->begin_headers(request_.keep_alive());
    Send_Vector vector(response_.iovec_count() + HTTP_Chunk_iovec::iovec_count(data, length, last));
    iovec* const iov = vector.get();
    const int entries = iov != nullptr ? response_.to_iovec(iov, response_.iovec_count()) : -1;
    HTTP_Chunk_iovec chunk(entries >= 0 ? iov + entries : nullptr);
    const int chunk_entries = entries >= 0 ? chunk.to_iovec(data, length, last) : 0;
    if (this->write_headers(iov, entries, chunk_entries) == -1) {
        return -1;
    }
    return this->headers_chunked_sent(chunk.payload_size_, data != nullptr && length > 0, keep,
                                      last);
}

template <typename Stream, typename Sync>
int HTTP_Svc_Handler_T<Stream, Sync>::sendv_headers_chunked(const iovec* source, int count,
                                                            bool last)
{
    const bool keep = this->begin_headers(request_.keep_alive());
    Send_Vector vector(response_.iovec_count() +
                       HTTP_Chunk_iovec::iovec_count(source, count, last));
    iovec* const iov = vector.get();
    const int entries = iov != nullptr ? response_.to_iovec(iov, response_.iovec_count()) : -1;
    HTTP_Chunk_iovec chunk(entries >= 0 ? iov + entries : nullptr);
    const int chunk_entries = entries >= 0 ? chunk.to_iovec(source, count, last) : 0;
    if (this->write_headers(iov, entries, chunk_entries) == -1) {
        return -1;
    }
    return this->headers_chunked_sent(chunk.payload_size_, source != nullptr && count > 0, keep,
                                      last);
}

// ---------------------------------------------------------------- further pieces

template <typename Stream, typename Sync>
int HTTP_Svc_Handler_T<Stream, Sync>::body_failed() const
{
    HTTPD_ERROR("Failed to send body to HTTP client %s: %m",
                addr_string_type(remote_addr_, WITH_PORT).c_str());
    return -1;
}

template <typename Stream, typename Sync>
int HTTP_Svc_Handler_T<Stream, Sync>::body_content_sent(size_t payload, bool last)
{
    content_sent_ += payload;
    this->count_output(payload + FRAMING_BYTES);
    constexpr bool HEADERS = false;
    constexpr bool PIECE = true;
    constexpr bool HEAD = false;
    constexpr bool CHUNKED = false;
    const Send_Outcome outcome =
        send_outcome({HEADERS, PIECE, HEAD, CHUNKED, response_.keep_alive(),
                      content_sent_ >= response_length_, last});
    this->response_state(outcome.state);
    return outcome.result;
}

template <typename Stream, typename Sync>
int HTTP_Svc_Handler_T<Stream, Sync>::body_chunked_sent(size_t payload, bool last)
{
    content_sent_ += payload;
    this->count_output(payload + FRAMING_BYTES);
    constexpr bool HEADERS = false;
    constexpr bool PIECE = true;
    constexpr bool HEAD = false;
    constexpr bool CHUNKED = true;
    constexpr bool COMPLETE = false;
    const Send_Outcome outcome =
        send_outcome({HEADERS, PIECE, HEAD, CHUNKED, response_.keep_alive(), COMPLETE, last});
    this->response_state(outcome.state);
    return outcome.result;
}

template <typename Stream, typename Sync>
int HTTP_Svc_Handler_T<Stream, Sync>::send_body_content(const void* data, size_t length, bool last)
{
    this->response_state(HTTP_SOCK_STATE_CONTENT_SENDING);
    const size_t payload = data != nullptr ? length : 0;
    if (payload > 0 &&
        Stream_IO::send(this->peer(), data, payload) != static_cast<ssize_t>(payload)) {
        return this->body_failed();
    }
    return this->body_content_sent(payload, last);
}

template <typename Stream, typename Sync>
int HTTP_Svc_Handler_T<Stream, Sync>::sendv_body_content(const iovec* source, int count, bool last)
{
    this->response_state(HTTP_SOCK_STATE_CONTENT_SENDING);
    const int entries = source != nullptr && count > 0 ? count : 0;
    const size_t payload = total_length(source, entries);
    if (payload > 0 && Stream_IO::sendv(this->peer(), source, entries) == -1) {
        return this->body_failed();
    }
    return this->body_content_sent(payload, last);
}

template <typename Stream, typename Sync>
int HTTP_Svc_Handler_T<Stream, Sync>::send_body_chunked(const void* data, size_t length, bool last)
{
    this->response_state(HTTP_SOCK_STATE_CONTENT_SENDING);
    if ((data == nullptr || length == 0) && !last) {
        return 0; // an empty chunk would end the body
    }
    Send_Vector vector(HTTP_Chunk_iovec::iovec_count(data, length, last));
    HTTP_Chunk_iovec chunk(vector.get());
    if (vector.get() == nullptr ||
        Stream_IO::sendv(this->peer(), vector.get(), chunk.to_iovec(data, length, last)) == -1) {
        return this->body_failed();
    }
    return this->body_chunked_sent(chunk.payload_size_, last);
}

template <typename Stream, typename Sync>
int HTTP_Svc_Handler_T<Stream, Sync>::sendv_body_chunked(const iovec* source, int count, bool last)
{
    this->response_state(HTTP_SOCK_STATE_CONTENT_SENDING);
    if ((source == nullptr || count < 1) && !last) {
        return 0;
    }
    Send_Vector vector(HTTP_Chunk_iovec::iovec_count(source, count, last));
    HTTP_Chunk_iovec chunk(vector.get());
    if (vector.get() == nullptr ||
        Stream_IO::sendv(this->peer(), vector.get(), chunk.to_iovec(source, count, last)) == -1) {
        return this->body_failed();
    }
    return this->body_chunked_sent(chunk.payload_size_, last);
}

// ---------------------------------------------------------------- whole responses

template <typename Stream, typename Sync>
int HTTP_Svc_Handler_T<Stream, Sync>::send_error(int status, const void* body, size_t length)
{
    response_.status(status, nullptr);
    response_.chunked_transfer_encoding(false);
    response_.content_length(body != nullptr ? length : 0);
    constexpr bool LAST = true;
    return this->send(body, length, LAST);
}
