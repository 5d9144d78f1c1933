// WebSocket side (RFC 6455): opening handshake, frames, ping and pong, closing handshake.
// Included by http_svc_handler_t.cpp alone.

/**
 * Turns an upgrade request into a WebSocket connection.
 * @return HANDLE_CONTINUE, HANDLE_DATA when frames came along with the request, or HANDLE_ERROR.
 */
template <typename Stream, typename Sync>
int HTTP_Svc_Handler_T<Stream, Sync>::handle_websocket_handshaking()
{
    if (!this->check_websocket_request() || this->accept_websocket() == -1) {
        return -1;
    }
    this->response_state(HTTP_SOCK_STATE_WEBSOCKET_HANDSHAKED);
    request_state_ = HTTP_SOCK_STATE_WEBSOCKET_HANDSHAKED;

    const WebSocket_Handler::CONCURRENCY concurrency = ws_handler_->concurrency();
    const bool moves =
        concurrency == WebSocket_Handler::THREAD && concurrent_state_ != STATE_THREADING;
    if (!moves && this->start_websocket() == -1) {
        return -1;
    }
    return this->choose_websocket_thread(concurrency);
}

/// The checks before the 101; a refusal has been sent when the result is false.
template <typename Stream, typename Sync>
bool HTTP_Svc_Handler_T<Stream, Sync>::check_websocket_request()
{
    const HTTP_Headers& headers = request_.headers();
    const char* const connection = headers.get(HTTP_HEAD_CONNECTION, true);
    if (connection == nullptr) {
        HTTPD_ERROR("Lack of 'Connection: Upgrade' when handshaking WebSocket.");
        this->refuse(400);
        return false;
    }
    if (!http_header_value_match(connection, "Upgrade", ',')) {
        HTTPD_ERROR("HTTP head 'Connection' is '%s' rather than 'Upgrade' when handshaking "
                    "WebSocket.",
                    connection);
        this->refuse(400);
        return false;
    }
    const char* const version = headers.get(HTTP_HEAD_SEC_WEBSOCKET_VERSION, true);
    if (version == nullptr) {
        HTTPD_ERROR("Lack of HTTP head 'Sec-WebSocket-Version' when handshaking WebSocket.");
        this->refuse(400);
        return false;
    }
    if (std::strcmp(version, "13") != 0) {
        HTTPD_ERROR("Not supported WebSocket (Sec-WebSocket-Version: %s).", version);
        this->refuse(501);
        return false;
    }
    if (headers.get(HTTP_HEAD_SEC_WEBSOCKET_KEY, true) == nullptr) {
        HTTPD_ERROR("Lack of HTTP head 'Sec-WebSocket-Key' when handshaking WebSocket.");
        this->refuse(400);
        return false;
    }
    return true;
}

/// Finds the plug-in and sends the 101. @return 0, or -1: refused, or the write failed.
template <typename Stream, typename Sync>
int HTTP_Svc_Handler_T<Stream, Sync>::accept_websocket()
{
    const char* const uri = request_.uri(PATH);
    ws_handler_.reset(WebSocket_Handler_Creator_Map::instance()->find(uri, '/', uri_off_));
    if (ws_handler_.creator() == nullptr) {
        HTTPD_DEBUG("Not found WebSocket uri '%s'.", uri);
        return this->refuse(404);
    }
    if (!ws_handler_) {
        return this->refuse(404);
    }
    if (ws_handler_->handle_handshaking(*this) == -1) {
        return this->refuse(400);
    }
    HTTP_Headers& headers = response_.headers();
    response_.status(101);
    headers.put(HTTP_HEAD_UPGRADE, "websocket", true);
    headers.put(HTTP_HEAD_CONNECTION, "Upgrade", true);
    char accept[WEBSOCKET_ACCEPT_SIZE];
    if (websocket_key_accept(request_.headers().get(HTTP_HEAD_SEC_WEBSOCKET_KEY, true), accept) ==
        -1) {
        HTTPD_ERROR_NO_NEWLINE("Failed to calculate WebSocket accept key, errno=%d, %m", errno);
        return this->refuse(404);
    }
    headers.put(HTTP_HEAD_SEC_WEBSOCKET_ACCEPT, accept, true);
    const char* const offered = request_.headers().get(HTTP_HEAD_SEC_WEBSOCKET_PROTOCOL, true);
    if (offered != nullptr) {
        headers.put(HTTP_HEAD_SEC_WEBSOCKET_PROTOCOL, ws_handler_->select_protocol(offered), true);
    }
    Send_Vector vector(response_.iovec_count());
    const int entries =
        vector.get() != nullptr ? response_.to_iovec(vector.get(), response_.iovec_count()) : -1;
    if (entries == -1 || Stream_IO::sendv(this->peer(), vector.get(), entries) == -1) {
        HTTPD_ERROR("Failed to send WebSocket handshaking response to HTTP client %s: %m",
                    addr_string_type(remote_addr_, WITH_PORT).c_str());
        return -1;
    }
    return 0;
}

/// What follows the 101, in the thread that will carry the frames.
template <typename Stream, typename Sync>
int HTTP_Svc_Handler_T<Stream, Sync>::start_websocket()
{
    if (auth_handler_) {
        const int status = auth_handler_->authenticate(*this, request_, response_);
        if (status != 200) {
            return this->refuse(status);
        }
    }
    if (ws_handler_->handle_handshaked() == -1) {
        return -1;
    }
    HTTPD_DEBUG("%t| WebSocket %s handshaked.", addr_string_type(remote_addr_, WITH_PORT).c_str());
    return 0;
}

template <typename Stream, typename Sync>
int HTTP_Svc_Handler_T<Stream, Sync>::choose_websocket_thread(
    WebSocket_Handler::CONCURRENCY concurrency)
{
    switch (concurrency) {
    case WebSocket_Handler::INHERITED:
        // Only a connection that is watched at all is pinged.
        if (interval_timer_id_ != -1 &&
            this->schedule_timer_i(HTTP_Options::instance()->ping_interval(), "ping",
                                   "handshaked") == -1) {
            return HANDLE_ERROR;
        }
        break;
    case WebSocket_Handler::THREAD:
        if (concurrent_state_ != STATE_THREADING) {
            return this->spawn(); // the thread begins with the buffered frames
        }
        break;
    default:
        HTTPD_ERROR("WebSocket handler concurrency %d is not supported.",
                    static_cast<int>(concurrency));
        return HANDLE_ERROR;
    }
    return mb_->length() > 0 ? HANDLE_DATA : HANDLE_CONTINUE;
}

// ---------------------------------------------------------------- receiving

template <typename Stream, typename Sync>
int HTTP_Svc_Handler_T<Stream, Sync>::handle_websocket_receiving()
{
    if (this->closing_) {
        return HANDLE_ERROR; // the plug-in has shut it down: handle_close is all that follows
    }
    // Frames that are in the buffer already wait too: another thread may be answering meanwhile,
    // and no pong of ours may break into its frames.
    if (mb_->length() == 0 || this->is_suspended()) {
        return HANDLE_CONTINUE;
    }
    size_t length = 0;
    int result = HANDLE_CONTINUE;
    switch (ws_parser_.parse(mb_, length)) {
    case WebSocket_Data_Frame_Parser::STATE_PAYLOAD:
        result = this->handle_websocket_payload(length);
        break;
    case WebSocket_Data_Frame_Parser::STATE_ERROR:
        HTTPD_ERROR("Failed to parse WebSocket data frame.");
        return HANDLE_ERROR;
    case WebSocket_Data_Frame_Parser::STATE_OPCODE:
    case WebSocket_Data_Frame_Parser::STATE_PAYLOAD_LEN:
    case WebSocket_Data_Frame_Parser::STATE_MASK:
    case WebSocket_Data_Frame_Parser::STATE_MASK_KEY:
        break; // the header is not complete
    }
    if (request_state_ != HTTP_SOCK_STATE_WEBSOCKET_HANDSHAKED) {
        return HANDLE_ERROR; // it ended, perhaps inside a send_ping() of the plug-in
    }
    return result == HANDLE_CONTINUE && mb_->length() > 0 ? HANDLE_DATA : result;
}

/// Handles `length` payload bytes of the current frame and consumes them.
template <typename Stream, typename Sync>
int HTTP_Svc_Handler_T<Stream, Sync>::handle_websocket_payload(size_t length)
{
    enum : unsigned char { CONTINUATION = 0, TEXT = 1, BINARY = 2, CLOSE = 8, PING = 9, PONG = 10 };
    constexpr unsigned char PONG_CONTINUED = CONTINUATION;

    size_t skip = length;
    auto consume = make_deleter([this, &skip] { mb_->rd_ptr(skip); });
    switch (ws_parser_.opcode()) {
    case TEXT:
    case BINARY:
        skip = 0; // data framing consumes it
        this->response_state(HTTP_SOCK_STATE_WEBSOCKET_FRAMING);
        return this->handle_websocket_data_framing(length);
    case CONTINUATION:
        switch (this->response_state()) {
        case HTTP_SOCK_STATE_WEBSOCKET_CLOSING:
            return HANDLE_ERROR;
        case HTTP_SOCK_STATE_WEBSOCKET_PONGING:
            // A continuation after a ping within a fragmented message belongs to the pong; kept,
            // and pinned by WebSocket_Frames.continuation_after_a_ping_belongs_to_the_pong.
            return this->handle_websocket_ping(PONG_CONTINUED, length);
        case HTTP_SOCK_STATE_WEBSOCKET_FRAMING:
            skip = 0;
            return this->handle_websocket_data_framing(length);
        default:
            return HANDLE_CONTINUE;
        }
    case PING:
        return this->handle_websocket_ping(PONG, length);
    case CLOSE:
        return this->handle_websocket_close(length);
    case PONG:
        return this->handle_websocket_pong();
    default: // reserved opcodes are skipped
        return HANDLE_CONTINUE;
    }
}

template <typename Stream, typename Sync>
int HTTP_Svc_Handler_T<Stream, Sync>::handle_websocket_data_framing(size_t length)
{
    if (length == 0 && !ws_parser_.last()) {
        return HANDLE_CONTINUE;
    }
    const char* const data = mb_->rd_ptr();
    mb_->rd_ptr(length);
    return ws_handler_->handle_data_framing(data, length, ws_parser_.last(), ws_parser_.binary());
}

/// Echoes a piece of a ping's payload; the pong's header goes out with the first piece.
template <typename Stream, typename Sync>
int HTTP_Svc_Handler_T<Stream, Sync>::handle_websocket_ping(unsigned char opcode, size_t length)
{
    if (ws_frame_.done()) {
        constexpr bool MASK = false;
        this->response_state(HTTP_SOCK_STATE_WEBSOCKET_PONGING);
        ws_frame_.init(ws_parser_.final(), opcode, ws_parser_.payload_length(), MASK);
    }
    if (this->send_frame_i(mb_->rd_ptr(), length) == -1) {
        return HANDLE_ERROR;
    }
    return ws_frame_.done() ? ws_handler_->handle_ping() : HANDLE_CONTINUE;
}

template <typename Stream, typename Sync>
int HTTP_Svc_Handler_T<Stream, Sync>::handle_websocket_close(size_t length)
{
    using Frame = WebSocket_Data_Frame;
    request_state_ = HTTP_SOCK_STATE_WEBSOCKET_CLOSING;
    if (length < 2) {
        ws_handler_->handle_close(Frame::CLOSE_NO_STATUS, nullptr, 0);
    } else {
        const auto* const bytes = reinterpret_cast<const unsigned char*>(mb_->rd_ptr());
        const int status = (bytes[0] << 8) | bytes[1];
        ws_handler_->handle_close(static_cast<Frame::Close_Status>(status), mb_->rd_ptr() + 2,
                                  length - 2);
    }
    // Whatever the peer's status was, the answer is 1000; kept, and pinned by
    // WebSocket_Frames.answers_every_close_with_1000.
    this->send_close_frame(Frame::CLOSE_NORMAL, nullptr, 0);
    return HANDLE_ERROR;
}

template <typename Stream, typename Sync>
int HTTP_Svc_Handler_T<Stream, Sync>::handle_websocket_pong()
{
    ACE_Reactor* const reactor = this->reactor();
    if (ping_timer_id_ == -1 || reactor == nullptr) {
        return HANDLE_CONTINUE;
    }
    const long id = ping_timer_id_;
    const int cancelled = Timer_Slot(*reactor, ping_timer_id_).cancel();
    if (ACE::debug()) {
        HTTPD_DEBUG("Cancelled %d ping timers by %q after websocket pong %s.", cancelled,
                    static_cast<ACE_INT64>(id), addr_string_type(remote_addr_, WITH_PORT).c_str());
    }
    return HANDLE_CONTINUE;
}

/// Tells the handler of the end, unless the peer's close frame has told it already.
template <typename Stream, typename Sync>
void HTTP_Svc_Handler_T<Stream, Sync>::close_websocket()
{
    if (request_state_ != HTTP_SOCK_STATE_WEBSOCKET_CLOSING) {
        ws_handler_->handle_close(WebSocket_Data_Frame::CLOSE_ABNORMAL, nullptr, 0);
    }
    HTTPD_DEBUG("%t| WebSocket %s closed.", addr_string_type(remote_addr_, WITH_PORT).c_str());
}

// ---------------------------------------------------------------- sending

template <typename Stream, typename Sync>
ssize_t HTTP_Svc_Handler_T<Stream, Sync>::send_frame(const void* data, size_t length, bool final,
                                                     bool binary)
{
    constexpr bool MASK = false;
    ws_frame_.init(final, binary ? 2 : 1, length, MASK);
    return this->send_frame_i(data, length);
}

template <typename Stream, typename Sync>
ssize_t HTTP_Svc_Handler_T<Stream, Sync>::sendv_frame(const iovec* iov, int count, bool final,
                                                      bool binary)
{
    if (count == 1) {
        return this->send_frame(iov[0].iov_base, iov[0].iov_len, final, binary);
    }
    constexpr bool MASK = false;
    ws_frame_.init(final, binary ? 2 : 1, total_length(iov, count), MASK);
    return this->sendv_frame_i(iov, count);
}

template <typename Stream, typename Sync>
ssize_t HTTP_Svc_Handler_T<Stream, Sync>::send_frame_i(const void* data, size_t length)
{
    iovec iov[2];
    const int entries = ws_frame_.to_iovec(iov, 2, data, length);
    if (entries < 0) {
        HTTPD_ERROR("Failed to serialize WebSocket to I/O vector.");
        ws_frame_.withdraw();
        return -1;
    }
    return this->write_frame(iov, entries);
}

template <typename Stream, typename Sync>
ssize_t HTTP_Svc_Handler_T<Stream, Sync>::sendv_frame_i(const iovec* iov, int count)
{
    Send_Vector vector(count + 1);
    iovec* cursor = vector.get();
    int room = cursor != nullptr ? count + 1 : 0;
    // A frame without payload still has its header to write.
    const iovec nothing = {nullptr, 0};
    const int pieces = count > 0 ? count : 1;
    for (int i = 0; i < pieces; ++i) {
        const iovec& piece = count > 0 ? iov[i] : nothing;
        const int entries = ws_frame_.to_iovec(cursor, room, piece.iov_base, piece.iov_len);
        if (entries < 0) {
            HTTPD_ERROR("Failed to serialize WebSocket to I/O vector.");
            ws_frame_.withdraw();
            return -1;
        }
        cursor += entries;
        room -= entries;
    }
    return this->write_frame(vector.get(), count + 1 - room);
}

template <typename Stream, typename Sync>
ssize_t HTTP_Svc_Handler_T<Stream, Sync>::write_frame(const iovec* iov, int count)
{
    const ssize_t sent = frame_output_ != nullptr ? frame_output_->write_frame(*this, iov, count)
                                                  : Stream_IO::sendv(this->peer(), iov, count);
    if (sent == -1) {
        HTTPD_ERROR("Failed to send WebSocket data frame to %s: %m",
                    addr_string_type(remote_addr_, WITH_PORT).c_str());
    } else {
        this->count_output(static_cast<size_t>(sent));
    }
    return sent;
}

template <typename Stream, typename Sync>
ssize_t HTTP_Svc_Handler_T<Stream, Sync>::sendv_now(const iovec* iov, int count)
{
    return Stream_IO::sendv_now(this->peer(), iov, count);
}

template <typename Stream, typename Sync>
Loop_IO::Frame_State HTTP_Svc_Handler_T<Stream, Sync>::frame_state() const
{
    if (close_sent_ || this->closing_ ||
        request_state_ != HTTP_SOCK_STATE_WEBSOCKET_HANDSHAKED) { // refused, or closing
        return FRAMES_ENDED;
    }
    return ws_frame_.done() && !ws_frame_.message_open() ? FRAMES_FREE : FRAME_OPEN;
}

template <typename Stream, typename Sync>
int HTTP_Svc_Handler_T<Stream, Sync>::send_close_frame(WebSocket_Data_Frame::Close_Status status,
                                                       const void* reason, size_t length)
{
    // The state alone does not tell: frames that come after our close frame change it.
    if (close_sent_) {
        return 0;
    }
    close_sent_ = true;
    this->response_state(HTTP_SOCK_STATE_WEBSOCKET_CLOSING);
    constexpr bool FINAL = true;
    constexpr bool MASK = false;
    constexpr unsigned char CLOSE = 8;
    unsigned char code[2] = {static_cast<unsigned char>(status >> 8),
                             static_cast<unsigned char>(status & 0xFF)};
    if (reason != nullptr && length > 0) {
        ws_frame_.init(FINAL, CLOSE, length + sizeof code, MASK);
        const iovec iov[2] = {{code, sizeof code}, to_entry(reason, length)};
        return static_cast<int>(this->sendv_frame_i(iov, 2));
    }
    ws_frame_.init(FINAL, CLOSE, sizeof code, MASK);
    return this->send_frame_i(code, sizeof code) == -1 ? -1 : 0;
}

template <typename Stream, typename Sync>
int HTTP_Svc_Handler_T<Stream, Sync>::send_ping(bool wait)
{
    if (ACE::debug()) {
        HTTPD_DEBUG("WebSocket ping %s.", addr_string_type(remote_addr_, WITH_PORT).c_str());
    }
    constexpr bool FINAL = true;
    constexpr bool MASK = false;
    constexpr unsigned char PING = 9;
    ws_frame_.init(FINAL, PING, 0, MASK);
    if (this->send_frame_i(nullptr, 0) == -1) {
        return -1;
    }
    if (!wait) {
        return 0;
    }
    if (this->response_state() != HTTP_SOCK_STATE_WEBSOCKET_FRAMING ||
        request_state_ != HTTP_SOCK_STATE_WEBSOCKET_HANDSHAKED || // the peer's close has been read
        released_) {                                              // handle_close is running
        return -1;
    }
    do {
        if (this->handle_data_reading(HTTP_Options::instance()->ping_timeout()) < 0 ||
            this->handle_input_i() < 0) {
            return -1;
        }
        // The plug-in's next frame must not break into half a pong. Of a connection that a call in
        // there has suspended, the frame may be another thread's already.
    } while (!this->is_suspended() && !ws_frame_.done());
    return 0;
}

// ---------------------------------------------------------------- keep-alive

template <typename Stream, typename Sync>
int HTTP_Svc_Handler_T<Stream, Sync>::handle_websocket_timeout(const ACE_Time_Value& now,
                                                               const void* act)
{
    const HTTP_Options* const options = HTTP_Options::instance();
    if (options->ping_interval() == nullptr) {
        HTTPD_ERROR("Failed to handle HTTP_Svc_Handler_T<P,S> timeout, ping-interval is not "
                    "configured.");
        return -1;
    }
    if (act == options->ping_interval()) {
        return this->handle_ping_interval(now, *options->ping_interval());
    }
    if (options->ping_timeout() == nullptr) {
        HTTPD_WARNING("WebSocket ping-timeout is not configured properly.");
        return 0;
    }
    if (act == options->ping_timeout()) {
        HTTPD_ERROR("WebSocket ping %s timeout.",
                    addr_string_type(remote_addr_, WITH_PORT).c_str());
        return -1;
    }
    HTTPD_WARNING("Unknown WebSocket timeout.");
    return 0;
}

template <typename Stream, typename Sync>
int HTTP_Svc_Handler_T<Stream, Sync>::handle_ping_interval(const ACE_Time_Value& now,
                                                           const ACE_Time_Value& interval)
{
    // While reading is suspended another thread may be sending, and no pong could be read.
    if (now - last_input_time_ < interval || this->is_suspended()) {
        return 0; // input is proof enough of life
    }
    // A ping must not break into a pong whose payload has come by half; a client that sends no more
    // of it for another interval loses that care.
    if (!ws_frame_.done() && now - last_input_time_ < interval + interval) {
        return 0;
    }
    constexpr bool WAIT = false;
    // A ping would wait for room, too, and hold up the loop with it. A client that reads nothing is
    // given the time that it has for a pong.
    if (room_timer_id_ == -1 && this->send_ping(WAIT) < 0) {
        return -1;
    }
    const bool debugging = ACE::debug();
    if (ping_timer_id_ != -1) {
        ACE_Reactor* const reactor = this->reactor();
        if (reactor == nullptr) {
            HTTPD_EMERGENCY("Unexpected error in %N:%l, reactor is NULL:\n%?");
            return -1;
        }
        const long id = ping_timer_id_;
        const int cancelled = Timer_Slot(*reactor, ping_timer_id_).cancel();
        if (debugging) {
            HTTPD_DEBUG("Cancelled %d ping timer by %q for rescheduling ping timeout.", cancelled,
                        static_cast<ACE_INT64>(id));
        }
    }
    return this->schedule_ping_timeout(debugging);
}

template <typename Stream, typename Sync>
int HTTP_Svc_Handler_T<Stream, Sync>::schedule_ping_timeout(bool debugging)
{
    const ACE_Time_Value* const limit = HTTP_Options::instance()->ping_timeout();
    if (limit == nullptr) {
        HTTPD_WARNING("WebSocket ping-timeout is not configured properly.");
        return 0;
    }
    if (concurrent_state_ == STATE_THREADING) {
        return 0; // a plug-in in its own thread waits for the pong itself
    }
    ACE_Reactor* const reactor = this->reactor();
    if (reactor == nullptr) {
        HTTPD_EMERGENCY("Unexpected error in %N:%l, reactor is NULL:\n%?");
        return -1;
    }
    if (Timer_Slot(*reactor, ping_timer_id_).arm(this, limit, *limit, ACE_Time_Value::zero) == -1) {
        HTTPD_ERROR("Failed to schedule WebSocket ping timer, errno=%d, %m", errno);
        return 0;
    }
    if (debugging) {
        HTTPD_DEBUG("Scheduled WebSocket ping timer %q for %s.",
                    static_cast<ACE_INT64>(ping_timer_id_),
                    addr_string_type(remote_addr_, WITH_PORT).c_str());
    }
    return 0;
}
