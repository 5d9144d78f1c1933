// Send side: bodies that are files.
// Included by http_svc_handler_t.cpp alone.

/// Sockets that the system itself can send a file to.
template <typename Stream>
constexpr bool IS_PLAIN_SOCKET =
    std::is_same_v<Stream, ACE_SOCK_Stream> || std::is_same_v<Stream, LSOCK_Stream>;

/// Up to here a file is read and leaves with its header in one write, which is no dearer.
constexpr size_t SMALL_FILE = 4096;

template <typename Stream, typename Sync>
int HTTP_Svc_Handler_T<Stream, Sync>::send_file(const char* path)
{
    const HTTP_Options* const options = HTTP_Options::instance();
    Fixed_Block_File_Reader_T<char, File_Buffer_T<char>> reader;
    constexpr int READ_ONLY_CLOEXEC = O_RDONLY | O_CLOEXEC;
    constexpr unsigned int PERMISSIONS = 0640;
    constexpr bool EXCLUSIVE = false;
    if (!reader.open(path, options->file_read_buffer_size(), READ_ONLY_CLOEXEC,
                     options->read_ahead(), options->read_discard_cache(), PERMISSIONS, EXCLUSIVE,
                     std::function<bool(const char*)>())) {
        HTTPD_ERROR("Failed to open file %s to read, errno=%d, %m", path, errno);
        return -1;
    }
    ACE_FILE_Info info;
    if (!reader.get_info(info)) {
        HTTPD_ERROR("Failed to get file %s info, errno=%d, %m", path, errno);
        return -1;
    }
    const size_t size = static_cast<size_t>(info.size_);
    if (!response_.chunked_transfer_encoding()) {
        response_.content_length(size);
    }
    const char* const dot = std::strrchr(path, '.');
    response_.content_type(mime_type(dot != nullptr ? dot + 1 : path));

    // Reading ahead and dropping from the cache are asked of the reader.
    if (size > SMALL_FILE && !options->read_ahead() &&
        options->read_discard_cache() == File_Block_Reader::KEEP_CACHE &&
        this->sends_from_files()) {
        return this->send_file_in_parts(path, reader.handle(), size,
                                        options->file_read_buffer_size());
    }
    while (size > 0) {
        void* data = nullptr;
        long length = 0;
        if (!reader.read(data, length)) {
            HTTPD_ERROR("Failed to read data from file %s, errno=%d, %m", path, errno);
            return -1;
        }
        if (data == nullptr || length < 1) {
            break;
        }
        constexpr bool MORE = false;
        if (this->send(data, static_cast<size_t>(length), MORE) == -1) {
            return -1;
        }
    }
    constexpr bool LAST = true;
    return this->response_state() != HTTP_SOCK_STATE_CONTENT_SENT ? this->send(nullptr, 0, LAST)
                                                                  : 0;
}

/// send_file() by way of the system: ends as it does, also when the file becomes shorter.
template <typename Stream, typename Sync>
int HTTP_Svc_Handler_T<Stream, Sync>::send_file_in_parts(const char* path, int file, size_t size,
                                                         size_t block_size)
{
    constexpr off_t BEGIN = 0;
    constexpr bool MORE = false;
    File_Sent::Outcome outcome = File_Sent::COMPLETE;
    const int result = this->send_file_part(file, BEGIN, size, block_size, MORE, outcome);
    if (outcome == File_Sent::READ_FAILED) {
        HTTPD_ERROR("Failed to read data from file %s, errno=%d, %m", path, errno);
    }
    constexpr bool LAST = true;
    return result != -1 && this->response_state() != HTTP_SOCK_STATE_CONTENT_SENT
               ? this->send(nullptr, 0, LAST)
               : result;
}

template <typename Stream, typename Sync>
bool HTTP_Svc_Handler_T<Stream, Sync>::sends_from_files() const
{
    if constexpr (IS_PLAIN_SOCKET<Stream>) {
        const HTTP_SOCK_State state = this->response_state();
        return (state == HTTP_SOCK_STATE_CONNECTED || state == HTTP_SOCK_STATE_HEADER_SENT ||
                state == HTTP_SOCK_STATE_CONTENT_SENDING) &&
               request_.method() != HTTP_METHOD_HEAD && !response_.chunked_transfer_encoding();
    } else {
        return false;
    }
}

template <typename Stream, typename Sync>
int HTTP_Svc_Handler_T<Stream, Sync>::send_file_part(int file, off_t offset, size_t length,
                                                     size_t block_size, bool last,
                                                     File_Sent::Outcome& outcome)
{
    if (block_size == 0) {
        block_size = File_Block_Reader::DEFAULT_BLOCK_SIZE;
    }
    File_Sent sent{File_Sent::COMPLETE, 0};
    int result = 0;
    for (size_t done = 0; done < length && result == 0 && sent.outcome_ == File_Sent::COMPLETE;
         done += sent.sent_) {
        const size_t block = std::min(length - done, block_size);
        result = this->send_file_block(file, offset + static_cast<off_t>(done), block,
                                       last && block == length - done, sent);
    }
    outcome = sent.outcome_;
    return result;
}

/// What send() does for one block; the first one leaves with the header.
template <typename Stream, typename Sync>
int HTTP_Svc_Handler_T<Stream, Sync>::send_file_block(int file, off_t offset, size_t length,
                                                      bool last, File_Sent& sent)
{
    const bool first = this->response_state() == HTTP_SOCK_STATE_CONNECTED;
    const int socket = this->peer().get_handle();
    bool keep = false;
    if (first) {
        keep =
            this->begin_headers(request_.keep_alive() &&
                                response_.headers().get(HTTP_HEAD_CONTENT_LENGTH, true) != nullptr);
        Send_Vector vector(response_.iovec_count());
        iovec* const iov = vector.get();
        const int entries = iov != nullptr ? response_.to_iovec(iov, response_.iovec_count()) : -1;
        if (entries < 0 || ace_sendv_more(socket, iov, entries) == -1) {
            sent = {File_Sent::SEND_FAILED, 0};
            return this->finish_send(this->headers_failed());
        }
    } else {
        this->response_state(HTTP_SOCK_STATE_CONTENT_SENDING);
    }
    this->set_nonblocking(true);
    sent = ace_send_file(socket, file, offset, length);
    this->set_nonblocking(false);
    if (sent.outcome_ == File_Sent::SEND_FAILED) {
        return this->finish_send(first ? this->headers_failed() : this->body_failed());
    }
    if (sent.outcome_ == File_Sent::READ_FAILED) {
        return this->finish_send(-1);
    }
    constexpr bool HEAD = false;
    return this->finish_send(
        first ? this->headers_content_sent(sent.sent_, sent.sent_ > 0, HEAD, keep, last)
              : this->body_content_sent(sent.sent_, last));
}

/**
 * Sending from a file takes a socket that does not block. The calls of an event loop never block
 * anyway, so there the mode stays; a worker thread, which waits in its receives, gets its own back.
 */
template <typename Stream, typename Sync>
void HTTP_Svc_Handler_T<Stream, Sync>::set_nonblocking(bool on)
{
    const CONCURRENT_STATE driver = concurrent_state_;
    const bool in_loop = driver == STATE_REACTIVE || driver == STATE_REACTIVE_SUSPENDED;
    int value = on ? 1 : 0;
    if (nonblocking_ != on && (on || !in_loop) &&
        ::ioctl(this->peer().get_handle(), FIONBIO, &value) == 0) {
        nonblocking_ = on;
    }
}
