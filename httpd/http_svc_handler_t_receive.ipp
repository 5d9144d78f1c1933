// Receive side: reads the socket, drives a request through its states, routes it to its plug-in.
// Included by http_svc_handler_t.cpp alone.

/// One read into the buffer. @return 0, or -1 when the connection is to be closed.
template <typename Stream, typename Sync>
int HTTP_Svc_Handler_T<Stream, Sync>::handle_data_reading(const ACE_Time_Value* timeout)
{
    if (this->make_room() == -1) {
        return -1;
    }
    ACE_Reactor* const reactor = this->reactor();
    if (reactor != nullptr && HTTP_Options::instance()->watches_input()) {
        last_input_time_ = reactor->timer_queue()->gettimeofday();
    }
    const Receive_Mode mode =
        reactor != nullptr && timeout == nullptr ? Receive_Mode::NEVER_WAIT : Receive_Mode::WAIT;
    const size_t room = mb_->space();
    const ssize_t received = Stream_IO::receive(this->peer(), mb_->wr_ptr(), room, mode, timeout);
    buffer_filled_ = received == static_cast<ssize_t>(room);
    if (received <= 0) {
        return received == 0 ? this->handle_end_of_input() : this->handle_receive_failure(timeout);
    }
    if (ACE::debug()) {
        ACE_HEX_DUMP((LM_TRACE, mb_->wr_ptr(), static_cast<size_t>(received),
                      this->is_websocket_protocol() ? "WebSocket connection received"
                                                    : "HTTP connection received"));
    }
    mb_->wr_ptr(static_cast<size_t>(received));
    return 0;
}

template <typename Stream, typename Sync>
int HTTP_Svc_Handler_T<Stream, Sync>::handle_end_of_input()
{
    request_state_ = HTTP_SOCK_STATE_CLOSED;
    if (this->response_state() != HTTP_SOCK_STATE_CONTENT_SENT && ACE::debug()) {
        HTTPD_ERROR("%s connection is closed by %s", this->protocol(),
                    addr_string_type(remote_addr_, WITH_PORT).c_str());
    }
    return -1;
}

/// Sees to it that the buffer exists and has free space behind its data.
template <typename Stream, typename Sync>
int HTTP_Svc_Handler_T<Stream, Sync>::make_room()
{
    if (mb_ == nullptr) {
        const size_t configured = HTTP_Options::instance()->http_receive_buffer_size();
        mb_ = Receive_Buffers::take(configured != 0 ? configured
                                                    : static_cast<size_t>(DEFAULT_BUFSIZ));
        return mb_ != nullptr ? 0 : -1;
    }
    if (mb_->length() == 0) {
        mb_->reset();
    }
    return mb_->space() > 0 ? 0 : this->crunch_buffer();
}

template <typename Stream, typename Sync>
int HTTP_Svc_Handler_T<Stream, Sync>::crunch_buffer()
{
    if (ACE::debug() && mb_->length() > 0) {
        ACE_HEX_DUMP((LM_DEBUG, mb_->rd_ptr(), mb_->length(), "The remaining buffer data."));
    }
    HTTPD_WARNING("No buffer space for receiving data from %s client %s, buffer length %B.",
                  this->protocol(), addr_string_type(remote_addr_, WITH_PORT).c_str(),
                  mb_->length());
    mb_->crunch();
    if (mb_->space() > 0) {
        return 0;
    }
    HTTPD_ERROR("No buffer space even after crunching, buffer length %B.", mb_->length());
    return -1;
}

/**
 * A connection that waits for input holds no memory for it, nor, between two requests, for the
 * response. The request stays: the plug-in's handle_close may look at it.
 */
template <typename Stream, typename Sync>
void HTTP_Svc_Handler_T<Stream, Sync>::give_back_memory()
{
    if (mb_ == nullptr || mb_->length() > 0) {
        return;
    }
    Receive_Buffers::give(std::exchange(mb_, nullptr));
    const HTTP_SOCK_State sent = this->response_state();
    if (sent == HTTP_SOCK_STATE_CONTENT_SENT || sent == HTTP_SOCK_STATE_WEBSOCKET_HANDSHAKED) {
        response_.give_back();
    }
}

template <typename Stream, typename Sync>
int HTTP_Svc_Handler_T<Stream, Sync>::handle_receive_failure(const ACE_Time_Value* timeout)
{
    if (errno == EAGAIN) {
        return 0;
    }
    if (errno == ETIME && timeout != nullptr) {
        ACE_Reactor* const reactor = this->reactor();
        return this->handle_timeout_i(reactor != nullptr ? reactor->timer_queue()->gettimeofday()
                                                         : ACE_Monotonic_Time_Policy()(),
                                      timeout);
    }
    HTTPD_ERROR("Failed to receive data from %s client %s, errno=%d, %m", this->protocol(),
                addr_string_type(remote_addr_, WITH_PORT).c_str(), errno);
    return -1;
}

/**
 * Runs the buffered bytes through the states of a request. Every case falls into the next one when
 * its step asks for more; the steps that do not are named where they leave.
 */
template <typename Stream, typename Sync>
int HTTP_Svc_Handler_T<Stream, Sync>::handle_input_i()
{
    if (mb_ == nullptr) {
        return 0;
    }
    if (close_asked_) {
        this->log_access(HANDLE_ERROR);
        return HANDLE_ERROR;
    }
    int step = HANDLE_DATA;
    while (step == HANDLE_DATA) {
        switch (request_state_) {
        case HTTP_SOCK_STATE_CONNECTED: // -> HEADER_RECEIVING, at once
            this->start_request();
            [[fallthrough]];
        case HTTP_SOCK_STATE_HEADER_RECEIVING: // -> HEADER_RECEIVED, or waits for input
            step = this->handle_header_receiving();
            if (step != HANDLE_DATA) {
                return step; // no response was begun: nothing for the access log
            }
            [[fallthrough]];
        case HTTP_SOCK_STATE_HEADER_RECEIVED: // -> HEADER_PROCESSING, or WEBSOCKET_HANDSHAKED
            step = this->handle_header_received();
            if (step == HANDLE_CONTINUE) {
                return step; // a worker thread has it now, or it is a WebSocket connection
            }
            if (step != HANDLE_DATA || request_state_ == HTTP_SOCK_STATE_WEBSOCKET_HANDSHAKED) {
                break;
            }
            [[fallthrough]];
        case HTTP_SOCK_STATE_HEADER_PROCESSING: // -> CONTENT_RECEIVING, CONTENT_RECEIVED, CONNECTED
            step = this->handle_header_processing();
            if (step != HANDLE_DATA || request_state_ == HTTP_SOCK_STATE_CONTENT_RECEIVED) {
                break;
            }
            [[fallthrough]];
        case HTTP_SOCK_STATE_CONTENT_RECEIVING: // -> CONTENT_RECEIVED, or waits for input
            step = this->handle_content_receiving();
            if (step != HANDLE_DATA) {
                break;
            }
            [[fallthrough]];
        case HTTP_SOCK_STATE_CONTENT_RECEIVED: // -> CONNECTED, CLOSED, or waits for input
            step = this->handle_content_received();
            if (step == HANDLE_DATA) {
                this->log_access(HANDLE_ERROR); // this request is over, the next one begins
            }
            break;
        case HTTP_SOCK_STATE_WEBSOCKET_HANDSHAKED: // frames; -> WEBSOCKET_CLOSING
            step = this->handle_websocket_receiving();
            if (step != HANDLE_DATA) {
                return step;
            }
            break;
        default: // no other state reads a request
            return HANDLE_ERROR;
        }
    }
    this->log_access(step);
    return step;
}

/**
 * Each request that got a response, or a part of one, leaves one line.
 * @param result  HANDLE_ERROR: nothing more will be sent for this request
 */
template <typename Stream, typename Sync>
void HTTP_Svc_Handler_T<Stream, Sync>::log_access(int result)
{
    const HTTP_SOCK_State sent = this->response_state();
    const bool begun =
        sent >= HTTP_SOCK_STATE_HEADER_SENDING && sent <= HTTP_SOCK_STATE_CONTENT_SENT;
    if (logged_ || !begun || (result != HANDLE_ERROR && sent != HTTP_SOCK_STATE_CONTENT_SENT)) {
        return;
    }
    logged_ = true;
    if (HTTP_Access_Logger_Impl::instance()->is_open()) {
        this->write_access_line();
    }
}

template <typename Stream, typename Sync>
void HTTP_Svc_Handler_T<Stream, Sync>::write_access_line() const
{
    HTTP_Access_Logger_Impl::instance()->log(start_time_, ACE_OS::gettimeofday(), remote_addr_,
                                             request_, response_, content_received_, content_sent_);
}

template <typename Stream, typename Sync>
void HTTP_Svc_Handler_T<Stream, Sync>::start_request()
{
    request_state_ = HTTP_SOCK_STATE_HEADER_RECEIVING;
    this->response_state(HTTP_SOCK_STATE_CONNECTED);
    request_.reset();
    response_.reset();
    logged_ = false;
    header_received_ = false;
    if (HTTP_Access_Logger_Impl::instance()->is_open()) {
        start_time_ = ACE_OS::gettimeofday();
    }
}

template <typename Stream, typename Sync>
int HTTP_Svc_Handler_T<Stream, Sync>::handle_header_receiving()
{
    const HTTP_Parser_State state = parser_.parse(*mb_, request_);
    switch (state) {
    case HTTP_PARSER_STATE_LINE_EXPECTED:
    case HTTP_PARSER_STATE_HEADERS_PARSING:
        return HANDLE_CONTINUE;
    case HTTP_PARSER_STATE_HEADERS_DONE:
        request_state_ = HTTP_SOCK_STATE_HEADER_RECEIVED;
        header_received_ = true;
        content_received_ = 0;
        content_length_ = 0;
        content_sent_ = 0;
        parser_.reset();
        return HANDLE_DATA;
    case HTTP_PARSER_STATE_ERROR:
        break;
    }
    HTTPD_ERROR("Failed to parse HTTP header by %s, parser state=%d",
                addr_string_type(remote_addr_, WITH_PORT).c_str(), static_cast<int>(state));
    return HANDLE_ERROR;
}

template <typename Stream, typename Sync>
int HTTP_Svc_Handler_T<Stream, Sync>::refuse(int status)
{
    this->send_error(status, nullptr, 0);
    return HANDLE_ERROR;
}

/// Checks the request, finds its authenticator and its plug-in, and chooses the thread.
template <typename Stream, typename Sync>
int HTTP_Svc_Handler_T<Stream, Sync>::handle_header_received()
{
    const char* const uri = request_.uri(PATH);
    if (has_dot_segment(uri)) {
        return this->refuse(400);
    }
    if (!this->is_referer_allowed()) {
        return this->refuse(403);
    }
    this->find_original_addr();

    size_t ignored_off = 0;
    auth_handler_.reset(HTTP_Authenticator_Creator_Map::instance()->find(uri, '/', ignored_off));
    if (auth_handler_.creator() != nullptr && !auth_handler_) {
        return this->refuse(500);
    }
    if (const char* const upgrade = request_.headers().get(HTTP_HEAD_UPGRADE, true)) {
        if (ACE_OS::strcasecmp(upgrade, "websocket") == 0) {
            return this->handle_websocket_handshaking();
        }
        HTTPD_ERROR("HTTP client wants to upgrade to '%s' that is not implemented.", upgrade);
        return this->refuse(501);
    }
    handler_.reset(HTTP_Handler_Creator_Map::instance()->find(uri, '/', uri_off_));
    if (handler_.creator() == nullptr) {
        HTTPD_DEBUG("Not found HTTP uri '%s'.", uri);
        return this->refuse(404);
    }
    if (!handler_) {
        return this->refuse(500);
    }
    return this->choose_thread();
}

/// With server names configured, a Referer must name one of them.
template <typename Stream, typename Sync>
bool HTTP_Svc_Handler_T<Stream, Sync>::is_referer_allowed() const
{
    const HTTP_Options::Servers& servers = HTTP_Options::instance()->servers();
    const char* const referer = request_.headers().get(HTTP_HEAD_REFERER, true);
    if (referer == nullptr || servers.empty()) {
        return true;
    }
    URI uri;
    return URI_Parser().parse(referer, uri) && servers.count(uri.host(false)) > 0;
}

template <typename Stream, typename Sync>
void HTTP_Svc_Handler_T<Stream, Sync>::find_original_addr()
{
    const std::string& proxy = HTTP_Options::instance()->proxy_from();
    if (proxy.empty()) {
        return; // nobody is trusted, also where the peer has no address; open() has set it
    }
    original_addr_ = remote_addr_;
    const char* const forwarded = request_.headers().get(HTTP_HEAD_X_FORWARDED_FOR, true);
    const addr_string_type peer(original_addr_, WITHOUT_PORT);
    if (forwarded != nullptr && peer.c_str() != nullptr && proxy == peer.c_str()) {
        set_forwarded_for(original_addr_, forwarded);
    }
}

template <typename Stream, typename Sync>
int HTTP_Svc_Handler_T<Stream, Sync>::choose_thread()
{
    const HTTP_Handler::CONCURRENCY concurrency =
        handler_->concurrency(request_, HTTP_Handler::HEADER);
    switch (concurrency) {
    case HTTP_Handler::INHERITED:
        return HANDLE_DATA;
    case HTTP_Handler::THREAD:
        if (concurrent_state_ == STATE_THREADING) {
            return HANDLE_DATA;
        }
        request_state_ = HTTP_SOCK_STATE_HEADER_PROCESSING;
        return this->spawn();
    default:
        // REACTIVE as well: a connection that was moved to a thread could not be given back.
        this->send_error(500, nullptr, 0);
        HTTPD_ERROR("Header handler concurrency %d is not supported.",
                    static_cast<int>(concurrency));
        return HANDLE_ERROR;
    }
}

template <typename Stream, typename Sync>
int HTTP_Svc_Handler_T<Stream, Sync>::handle_header_processing()
{
    if (auth_handler_) {
        const int status = auth_handler_->authenticate(*this, request_, response_);
        if (status != 200) {
            return this->refuse(status);
        }
    }
    if (handler_->handle_request(*this) == -1) {
        return HANDLE_ERROR;
    }
    if (this->response_state() == HTTP_SOCK_STATE_CONTENT_SENT) {
        if (!response_.keep_alive() || this->has_unknown_framing()) {
            return HANDLE_ERROR;
        }
        request_state_ = HTTP_SOCK_STATE_CONNECTED;
        return HANDLE_CONTINUE;
    }
    if (request_.method() == HTTP_METHOD_HEAD) {
        constexpr bool LAST = true;
        // A body that came with it is not read, so what follows could not be told from it.
        if (this->send_headers_content(nullptr, 0, LAST) == -1 || this->request_has_body()) {
            return HANDLE_ERROR;
        }
        request_state_ = HTTP_SOCK_STATE_CONNECTED;
        return HANDLE_CONTINUE;
    }
    return this->prepare_body();
}

template <typename Stream, typename Sync>
int HTTP_Svc_Handler_T<Stream, Sync>::prepare_body()
{
    request_state_ = HTTP_SOCK_STATE_CONTENT_RECEIVING;
    if (request_.chunked_transfer_encoding()) {
        chunk_parser_.reset();
        return this->send_continue();
    }
    if (request_.headers().get(HTTP_HEAD_CONTENT_LENGTH, true) == nullptr) {
        HTTPD_ERROR("HTTP request is lack of Content-Length.");
        return this->refuse(411);
    }
    content_length_ = request_.content_length();
    if (content_length_ == 0) {
        request_state_ = HTTP_SOCK_STATE_CONTENT_RECEIVED;
        return HANDLE_DATA;
    }
    return this->send_continue();
}

template <typename Stream, typename Sync>
bool HTTP_Svc_Handler_T<Stream, Sync>::request_has_body() const
{
    return header_received_ &&
           (request_.headers().get(HTTP_HEAD_TRANSFER_ENCODING, true) != nullptr ||
            request_.content_length() > 0);
}

/**
 * A transfer coding other than exactly "chunked": where the body ends cannot be told, so nothing
 * behind this request may be taken for the next one (RFC 9112, section 6.3).
 */
template <typename Stream, typename Sync>
bool HTTP_Svc_Handler_T<Stream, Sync>::has_unknown_framing() const
{
    return !request_.chunked_transfer_encoding() &&
           request_.headers().get(HTTP_HEAD_TRANSFER_ENCODING, true) != nullptr;
}

/// Tells a client that waits for it to send the body (RFC 9110, section 10.1.1).
template <typename Stream, typename Sync>
int HTTP_Svc_Handler_T<Stream, Sync>::send_continue()
{
    const char* const expect = request_.headers().get(HTTP_HEAD_EXPECT, true);
    if (expect == nullptr || mb_->length() > 0 || request_.minor_version() == 0 ||
        this->response_state() != HTTP_SOCK_STATE_CONNECTED ||
        !http_header_value_match(expect, "100-continue", ',')) {
        return HANDLE_DATA;
    }
    static constexpr std::string_view CONTINUE = "HTTP/1.1 100 Continue\r\n\r\n";
    if (Stream_IO::send(this->peer(), CONTINUE.data(), CONTINUE.size()) == -1) {
        HTTPD_ERROR("Failed to send headers to HTTP client %s: %m",
                    addr_string_type(remote_addr_, WITH_PORT).c_str());
        return HANDLE_ERROR;
    }
    return HANDLE_DATA;
}

template <typename Stream, typename Sync>
int HTTP_Svc_Handler_T<Stream, Sync>::handle_content_receiving()
{
    return request_.chunked_transfer_encoding() ? this->handle_chunked_content()
                                                : this->handle_counted_content();
}

template <typename Stream, typename Sync>
int HTTP_Svc_Handler_T<Stream, Sync>::handle_counted_content()
{
    const std::uint64_t remaining = content_length_ - content_received_;
    if (remaining == 0) {
        return mb_->length() > 0 ? HANDLE_DATA : HANDLE_CONTINUE;
    }
    const size_t length = static_cast<size_t>(std::min<std::uint64_t>(mb_->length(), remaining));
    if (length == 0) {
        return HANDLE_CONTINUE;
    }
    content_received_ += length;
    const bool complete = content_received_ >= content_length_;
    if (complete) {
        request_state_ = HTTP_SOCK_STATE_CONTENT_RECEIVED;
    }
    if (this->handle_request_content(length) == -1) {
        return HANDLE_ERROR;
    }
    return complete ? HANDLE_DATA : HANDLE_CONTINUE;
}

template <typename Stream, typename Sync>
int HTTP_Svc_Handler_T<Stream, Sync>::handle_chunked_content()
{
    while (mb_->length() > 0) {
        size_t length = 0;
        switch (chunk_parser_.parse(mb_, length)) {
        case HTTP_CHUNK_STATE_SIZE:
        case HTTP_CHUNK_STATE_SIZE_CR:
        case HTTP_CHUNK_STATE_EXT:
        case HTTP_CHUNK_STATE_DATA_LF_EXPECTED:
            break;
        case HTTP_CHUNK_STATE_DATA:
        case HTTP_CHUNK_STATE_DATA_CR_EXPECTED:
            if (length != 0) {
                content_received_ += length;
                if (this->handle_request_content(length) == -1) {
                    return HANDLE_ERROR;
                }
            }
            break;
        case HTTP_CHUNK_STATE_END:
            request_state_ = HTTP_SOCK_STATE_CONTENT_RECEIVED;
            return handler_->handle_body(*this, nullptr, 0) == -1 ? HANDLE_ERROR : HANDLE_DATA;
        case HTTP_CHUNK_STATE_ERROR:
        default:
            HTTPD_ERROR("Failed to parse HTTP chunk by %s",
                        addr_string_type(remote_addr_, WITH_PORT).c_str());
            return HANDLE_ERROR;
        }
    }
    return HANDLE_CONTINUE;
}

template <typename Stream, typename Sync>
int HTTP_Svc_Handler_T<Stream, Sync>::handle_request_content(size_t length)
{
    const int result = handler_->handle_body(*this, mb_->rd_ptr(), length);
    mb_->rd_ptr(length);
    return result;
}

template <typename Stream, typename Sync>
int HTTP_Svc_Handler_T<Stream, Sync>::handle_content_received()
{
    if (this->is_suspended()) {
        return HANDLE_CONTINUE; // the plug-in is still answering
    }
    if (this->response_state() == HTTP_SOCK_STATE_CONNECTED) {
        this->send_error(response_.status(), nullptr, 0);
    }
    if (!request_.keep_alive()) {
        request_state_ = HTTP_SOCK_STATE_CLOSED;
        return HANDLE_ERROR;
    }
    if (mb_->length() == 0) {
        return HANDLE_CONTINUE;
    }
    request_state_ = HTTP_SOCK_STATE_CONNECTED;
    return HANDLE_DATA;
}
