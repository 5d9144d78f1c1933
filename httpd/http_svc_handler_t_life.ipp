// Life of a connection: open, the calls of its driver, worker threads, close, addresses.
// Included by http_svc_handler_t.cpp alone.

template <typename Stream, typename Sync>
HTTP_Svc_Handler_T<Stream, Sync>::HTTP_Svc_Handler_T(ACE_Thread_Manager* manager)
    : ACE_Svc_Handler<Stream, Sync>(manager, unused_queue<Sync>(), ACE_Reactor::instance())
{
    this->reference_counting_policy().value(ACE_Event_Handler::Reference_Counting_Policy::ENABLED);
    request_.give_back(); // a connection that waits for its first request needs no memory for it
    Live_Connections::instance().add();
}

template <typename Stream, typename Sync>
HTTP_Svc_Handler_T<Stream, Sync>::~HTTP_Svc_Handler_T()
{
    Live_Connections::instance().leave_thread(this);
    // The plug-in objects go first: they may still look at the connection.
    handler_.reset(nullptr);
    ws_handler_.reset(nullptr);
    auth_handler_.reset(nullptr);
    this->close_stream();
    // The base would take a reactor into its hands that may be gone. No timer and no registration
    // can exist any more, since each of them holds a reference.
    this->closing_ = true;
    Live_Connections::instance().remove();
}

template <typename Stream, typename Sync>
void HTTP_Svc_Handler_T<Stream, Sync>::accepted_from(const ACE_INET_Addr& remote)
{
    remote_addr_ = remote;
}

template <typename Stream, typename Sync>
int HTTP_Svc_Handler_T<Stream, Sync>::open(void*)
{
    return this->open_i();
}

/**
 * Everything of the connection is set before it is registered: from then on its loop may call it,
 * and may have deleted it before this returns.
 */
template <typename Stream, typename Sync>
int HTTP_Svc_Handler_T<Stream, Sync>::open_i()
{
    auto undo =
        make_deleter([this, concurrent_state = concurrent_state_.load(),
                      request_state = request_state_, response_state = this->response_state()] {
            this->schedule_timer_i(nullptr, "idle", "established");
            concurrent_state_ = concurrent_state;
            request_state_ = request_state;
            this->response_state(response_state);
        });

    concurrent_state_ = STATE_REACTIVE;
    const ACE_HANDLE handle = this->peer().get_handle();
    const bool accepted = remote_addr_ != ACE_INET_Addr(); // then what accept4 did is known
    if (!accepted && enable_fd_cloexec(handle) == -1) {
        HTTPD_ERROR("Failed to enable cloexec on HTTP connection handle %d, errno=%d, %m", handle,
                    errno);
    }
    if (Stream_IO::prepare(this->peer()) == -1) {
        HTTPD_ERROR("Failed to prepare HTTP connection handle %d, errno=%d, %m", handle, errno);
        return -1;
    }
    const HTTP_Options* const options = HTTP_Options::instance();
    this->socket_timeout(options->socket_send_timeout(), options->socket_receive_timeout());
    if (!accepted && this->peer().get_remote_addr(remote_addr_) == -1) {
        HTTPD_ERROR("Failed to get remote address from HTTP connection handle %d, errno=%d, %m",
                    handle, errno);
    }
    original_addr_ = remote_addr_;
    this->response_state(HTTP_SOCK_STATE_CONNECTED);
    request_state_ = HTTP_SOCK_STATE_CONNECTED;
    if (ACE::debug()) {
        HTTPD_DEBUG("HTTP connection is established by %s",
                    addr_string_type(remote_addr_, WITH_PORT).c_str());
    }
    this->schedule_timer_i(options->idle_timeout(), "idle", "established");

    ACE_Reactor* const reactor = this->reactor();
    if (reactor != nullptr && reactor->register_handler(this, ACE_Event_Handler::READ_MASK) == -1) {
        HTTPD_ERROR("unable to register client handler, errno=%d, %m", errno);
        return -1;
    }
    undo.dismiss();
    return 0;
}

/**
 * ACE calls this for a connection that could not be accepted or opened, and when a worker thread
 * ends. The first kind has never been registered, so no handle_close would ever free it.
 */
template <typename Stream, typename Sync>
int HTTP_Svc_Handler_T<Stream, Sync>::close(u_long flags)
{
    if (concurrent_state_ == STATE_INITIAL && !released_) {
        released_ = true;
        Stream_IO::close(this->peer());
        this->remove_reference();
        return 0;
    }
    const bool in_thread =
        concurrent_state_ == STATE_THREADING || concurrent_state_ == STATE_THREADING_SUSPENDED;
    const int result = ACE_Svc_Handler<Stream, Sync>::close(flags);
    if (in_thread) {
        this->remove_reference(); // the thread's
    }
    return result;
}

template <typename Stream, typename Sync>
int HTTP_Svc_Handler_T<Stream, Sync>::handle_input(ACE_HANDLE)
{
    if (concurrent_state_ != STATE_REACTIVE) {
        return 0; // a notification that comes late: suspended again, in a worker thread, or closed
    }
    if (this->looks_full() && !this->has_room()) {
        return this->wait_for_room();
    }
    Upcall upcall;
    upcall_ = &upcall;
    const int result = this->guarded([this] { return this->handle_read_event(); });
    return this->finish_upcall(upcall, result);
}

template <typename Stream, typename Sync>
int HTTP_Svc_Handler_T<Stream, Sync>::handle_read_event()
{
    const Upcall* const upcall = upcall_;
    int result = 0;
    int reads_left = MOST_READS;
    do {
        // Input that the engine has not looked at yet comes first; what lies in the socket
        // meanwhile stays there and is told again.
        const bool read = !this->has_unserved_bytes();
        result = read ? this->handle_data_reading(nullptr) : 0;
        if (result != -1) {
            result = this->handle_input_i();
        }
    } while (result == 0 && !upcall->moved_ && --reads_left > 0 && this->expects_more_at_once());
    return result;
}

/**
 * Runs a call by the driver. What a plug-in throws, and what is thrown for lack of memory, ends
 * this connection and nothing else: above are the loop of many others, or the end of a thread.
 */
template <typename Stream, typename Sync>
template <typename Call>
int HTTP_Svc_Handler_T<Stream, Sync>::guarded(Call call)
{
    try {
        return call();
    } catch (const std::exception& problem) {
        return this->end_by_exception(problem.what());
    } catch (...) {
        return this->end_by_exception("of an unknown type");
    }
}

/// A client that waits for its response is told, if that still can be done. @return -1
template <typename Stream, typename Sync>
int HTTP_Svc_Handler_T<Stream, Sync>::end_by_exception(const char* reason)
{
    HTTPD_ERROR("%s connection %s ends by an exception: %s", this->protocol(),
                addr_string_type(remote_addr_, WITH_PORT).c_str(), reason);
    const bool awaited = header_received_ && request_state_ >= HTTP_SOCK_STATE_HEADER_RECEIVED &&
                         request_state_ <= HTTP_SOCK_STATE_CONTENT_RECEIVED &&
                         this->response_state() == HTTP_SOCK_STATE_CONNECTED &&
                         !this->is_suspended() && !released_;
    if (awaited) {
        try {
            this->refuse(500);
            this->log_access(HANDLE_ERROR);
        } catch (...) { // nothing more can be done for it
        }
    }
    return HANDLE_ERROR;
}

/**
 * A body or a message is on its way and the last read has filled the buffer, so there is more of
 * it: asking the event loop first would only cost a system call. Other connections wait for
 * MOST_READS buffers at most.
 */
template <typename Stream, typename Sync>
bool HTTP_Svc_Handler_T<Stream, Sync>::expects_more_at_once() const
{
    return buffer_filled_ && mb_ != nullptr && mb_->length() == 0 &&
           (request_state_ == HTTP_SOCK_STATE_CONTENT_RECEIVING ||
            request_state_ == HTTP_SOCK_STATE_WEBSOCKET_HANDSHAKED) &&
           concurrent_state_ == STATE_REACTIVE && !this->closing_ && !this->looks_full();
}

/**
 * What the event loop is told after a call: to close (-1), to wait for input (0), or to call again
 * although no input will be told, because bytes lie in the buffer or above the socket: at once,
 * while connection and socket are in the processor's caches.
 */
template <typename Stream, typename Sync>
int HTTP_Svc_Handler_T<Stream, Sync>::finish_upcall(Upcall& upcall, int result)
{
    if (upcall.moved_) {
        return 0; // `this` belongs to another thread
    }
    upcall_ = nullptr;
    if (upcall.orphaned_ || this->closing_) {
        // It has left the reactor, which therefore calls no handle_close.
        this->handle_close(ACE_INVALID_HANDLE, ACE_Event_Handler::ALL_EVENTS_MASK);
        return 0;
    }
    if (result == -1 || this->is_suspended()) {
        return result == -1 ? -1 : 0;
    }
    if (this->has_unserved_bytes() || Stream_IO::pending(this->peer())) {
        return Epoll_Reactor::AGAIN_AT_ONCE;
    }
    this->give_back_memory();
    return 0;
}

/**
 * A request waits in the buffer: the step before returned after one request although there is
 * more, or the response of a suspended request was completed meanwhile.
 */
template <typename Stream, typename Sync>
bool HTTP_Svc_Handler_T<Stream, Sync>::has_unserved_bytes() const
{
    return mb_ != nullptr && mb_->length() > 0 &&
           (request_state_ == HTTP_SOCK_STATE_CONNECTED ||
            request_state_ == HTTP_SOCK_STATE_CONTENT_RECEIVED ||
            request_state_ == HTTP_SOCK_STATE_WEBSOCKET_HANDSHAKED);
}

template <typename Stream, typename Sync>
int HTTP_Svc_Handler_T<Stream, Sync>::handle_timeout(const ACE_Time_Value& now, const void* act)
{
    if (act == HTTP_Options::instance()->ping_timeout()) {
        ping_timer_id_ = -1; // it fires once; its id may be another timer's by now
    }
    Upcall upcall;
    upcall_ = &upcall;
    const int result = this->guarded([this, &now, act] {
        return act == &room_timer_id_ ? this->handle_room_timeout()
                                      : this->handle_timeout_i(now, act);
    });
    upcall_ = nullptr;
    if (this->closing_) {
        this->handle_close(ACE_INVALID_HANDLE, ACE_Event_Handler::ALL_EVENTS_MASK);
        return 0;
    }
    if (result == 0) {
        return 0;
    }
    ACE_Reactor* const reactor = this->reactor();
    if (reactor != nullptr &&
        reactor->remove_handler(this, ACE_Event_Handler::ALL_EVENTS_MASK) == -1 &&
        errno != ENOENT) {
        HTTPD_ERROR("Failed to remove %s from reactor, errno=%d, %m", this->protocol(), errno);
    }
    return -1;
}

template <typename Stream, typename Sync>
int HTTP_Svc_Handler_T<Stream, Sync>::handle_close(ACE_HANDLE handle, ACE_Reactor_Mask mask)
{
    if (handle == ACE_INVALID_HANDLE && mask == ACE_Event_Handler::TIMER_MASK) {
        return 0; // a timer was cancelled
    }
    ACE_Reactor* const reactor = this->reactor();
    const int remaining = reactor != nullptr ? reactor->mask_ops(this, ACE_Event_Handler::NULL_MASK,
                                                                 ACE_Reactor::GET_MASK)
                                             : -1;
    if (remaining == -1) {
        if (this->closing_ || concurrent_state_ == STATE_THREADING ||
            concurrent_state_ == STATE_THREADING_SUSPENDED) {
            this->handle_close_i();
        }
    } else if (remaining == 0) {
        const int cancelled = this->cancel_timers();
        if (ACE::debug()) {
            HTTPD_DEBUG("Cancelled %d timers by handle_close %s.", cancelled,
                        addr_string_type(remote_addr_, WITH_PORT).c_str());
        }
        this->handle_close_i();
    }
    return 0;
}

/// Tells the plug-ins and drops the connection's own reference, once: it may be deleted here.
template <typename Stream, typename Sync>
int HTTP_Svc_Handler_T<Stream, Sync>::handle_close_i()
{
    if (!this->tell_plug_ins()) {
        return 0;
    }
    if (this->reactor() != nullptr) {
        // Nobody drives it any more: a plug-in that still holds a reference resumes nothing.
        concurrent_state_ = STATE_INITIAL;
    }
    this->remove_reference();
    return 0;
}

/// Tells the plug-ins that the connection has ended. @return false: they have been told before.
template <typename Stream, typename Sync>
bool HTTP_Svc_Handler_T<Stream, Sync>::tell_plug_ins()
{
    if (released_) {
        return false;
    }
    released_ = true;
    if (ACE::debug()) {
        HTTPD_DEBUG("%s connection %s is closing.", ws_handler_ ? "WebSocket" : "HTTP",
                    addr_string_type(remote_addr_, WITH_PORT).c_str());
    }
    if (ws_handler_) {
        this->guarded([this] {
            this->close_websocket();
            return 0;
        });
    }
    if (handler_) {
        this->guarded([this] { return handler_->handle_close(); });
    }
    return true;
}

template <typename Stream, typename Sync>
void HTTP_Svc_Handler_T<Stream, Sync>::end_connection()
{
    if (ACE_Reactor* const reactor = this->reactor()) {
        this->cancel_timers();
        if (this->peer().get_handle() != ACE_INVALID_HANDLE) {
            reactor->remove_handler(this, ACE_Event_Handler::ALL_EVENTS_MASK |
                                              ACE_Event_Handler::DONT_CALL);
        }
        concurrent_state_ = STATE_INITIAL;
    } else {
        Live_Connections::instance().leave_thread(this);
    }
    this->tell_plug_ins();
}

template <typename Stream, typename Sync>
void HTTP_Svc_Handler_T<Stream, Sync>::stop_connection()
{
    if (this->reactor() != nullptr) {
        this->end_connection();
    } else {
        Live_Connections::instance().interrupt(this);
    }
}

/**
 * A response was sent and the client has not been read to the end of its request, or our close
 * frame and its answer has not been read: a plain close could destroy what is on its way.
 */
template <typename Stream, typename Sync>
bool HTTP_Svc_Handler_T<Stream, Sync>::lingers() const
{
    const HTTP_SOCK_State sent = this->response_state();
    const bool answered =
        sent >= HTTP_SOCK_STATE_HEADER_SENDING && sent <= HTTP_SOCK_STATE_CONTENT_SENT;
    const bool awaits_close = close_sent_ && request_state_ != HTTP_SOCK_STATE_WEBSOCKET_CLOSING;
    if (awaits_close && !interrupted_) {
        return true;
    }
    if (!answered || interrupted_) {
        return false;
    }
    const bool body_read = request_state_ == HTTP_SOCK_STATE_CONTENT_RECEIVED ||
                           request_state_ == HTTP_SOCK_STATE_CLOSED || !this->request_has_body();
    const bool buffered = mb_ != nullptr && mb_->length() > 0;
    return !body_read || buffered;
}

template <typename Stream, typename Sync>
void HTTP_Svc_Handler_T<Stream, Sync>::close_stream()
{
    const ACE_HANDLE late_input =
        this->lingers() ? Stream_IO::half_close_and_detach(this->peer()) : ACE_INVALID_HANDLE;
    if (late_input != ACE_INVALID_HANDLE) {
        // The end of a pipe connection has ended its loop, too.
        constexpr bool HAS_LOOP = !std::is_same_v<Stream, Pipe_Stream>;
        if (HAS_LOOP && this->reactor() != nullptr) {
            Lingering_Close::start(*this->reactor(), late_input);
        } else {
            Lingering_Close::run(late_input);
        }
    }
    Stream_IO::close(this->peer());
}

/**
 * ACE's own count, moved by our own code: ThreadSanitizer sees then that whoever drops a reference
 * is done with the connection before the last one deletes it.
 */
template <typename Stream, typename Sync>
ACE_Event_Handler::Reference_Count HTTP_Svc_Handler_T<Stream, Sync>::add_reference()
{
    return this->reference_count_.fetch_add(1, std::memory_order_relaxed) + 1;
}

template <typename Stream, typename Sync>
ACE_Event_Handler::Reference_Count HTTP_Svc_Handler_T<Stream, Sync>::remove_reference()
{
    const Reference_Count left = this->reference_count_.fetch_sub(1, std::memory_order_acq_rel) - 1;
    if (left == 0) {
        delete this;
    }
    return left;
}

template <typename Stream, typename Sync>
void HTTP_Svc_Handler_T<Stream, Sync>::shutdown()
{
    if (this->closing_) {
        return;
    }
    this->closing_ = true;
    if (ACE_Reactor* const reactor = this->reactor()) {
        this->cancel_timers();
        if (this->peer().get_handle() != ACE_INVALID_HANDLE) {
            reactor->remove_handler(this, ACE_Event_Handler::ALL_EVENTS_MASK |
                                              ACE_Event_Handler::DONT_CALL);
        }
    }
    Live_Connections::instance().leave_thread(this);
    this->close_stream();
    // Inside a call of the driver the release waits until that call returns.
    if (upcall_ == nullptr && this->reactor() != nullptr) {
        this->handle_close(ACE_INVALID_HANDLE, ACE_Event_Handler::ALL_EVENTS_MASK);
    }
}

// ---------------------------------------------------------------- worker threads

/// Moves the connection from its event loop to a worker thread, which drives it to its end.
template <typename Stream, typename Sync>
int HTTP_Svc_Handler_T<Stream, Sync>::spawn()
{
    if (ACE_Reactor* const reactor = this->reactor()) {
        const int cancelled = this->cancel_timers();
        if (ACE::debug()) {
            HTTPD_DEBUG("Cancelled %d timers for spawning worker thread %s.", cancelled,
                        addr_string_type(remote_addr_, WITH_PORT).c_str());
        }
        if (reactor->remove_handler(this, ACE_Event_Handler::ALL_EVENTS_MASK |
                                              ACE_Event_Handler::DONT_CALL) == -1) {
            HTTPD_ERROR("Failed to remove %s from reactor, errno=%d, %m", this->protocol(), errno);
            return -1;
        }
        concurrent_state_ = STATE_THREADING;
        this->reactor(nullptr);
    }
    Upcall* const upcall = upcall_;
    upcall_ = nullptr;
    this->add_reference(); // the thread's: dropped by close(), its last call
    if (Live_Connections::instance().enter_thread(this)) {
        if (Signals_Blocked guard; Worker_Threads::start(&run_in_thread, this) == 0) {
            // `this` is the thread's now.
            if (upcall != nullptr) {
                upcall->moved_ = true;
            }
            return 0;
        }
    }
    HTTPD_ERROR("Failed to start a worker thread for %s client %s, errno=%d, %m", this->protocol(),
                addr_string_type(remote_addr_, WITH_PORT).c_str(), errno);
    Live_Connections::instance().leave_thread(this);
    this->remove_reference();
    if (upcall != nullptr) {
        upcall->orphaned_ = true;
    }
    upcall_ = upcall;
    return -1;
}

/// All of a worker thread's life. Without a log, which ACE would crash for lack of, it only ends.
template <typename Stream, typename Sync>
void HTTP_Svc_Handler_T<Stream, Sync>::run_in_thread(void* connection, bool has_log)
{
    auto* const self = static_cast<HTTP_Svc_Handler_T*>(connection);
    if (has_log) {
        self->svc();
    }
    self->close();
}

template <typename Stream, typename Sync>
int HTTP_Svc_Handler_T<Stream, Sync>::svc()
{
    Upcall upcall;
    upcall_ = &upcall;
    return this->guarded([this] { return this->drive_to_the_end(); });
}

template <typename Stream, typename Sync>
int HTTP_Svc_Handler_T<Stream, Sync>::drive_to_the_end()
{
    if (request_state_ != HTTP_SOCK_STATE_WEBSOCKET_HANDSHAKED) {
        set_thread_name("HTTPd", ::pthread_self());
    } else {
        set_thread_name("WebSocket", ::pthread_self());
        if (this->start_websocket() == -1) {
            return -1;
        }
    }
    const ACE_Time_Value* timeout =
        this->is_websocket_protocol() ? nullptr : HTTP_Options::instance()->idle_timeout();
    if (timeout != nullptr && *timeout == ACE_Time_Value::zero) {
        timeout = nullptr;
    }
    // An interrupted connection whose plug-in is still answering is not to be touched any more:
    // hence the look before each step.
    while (!interrupted_ && this->handle_input_i() != -1 && !this->closing_ && !interrupted_) {
        if (this->is_suspended()) {
            this->wait_while_suspended();
        } else if (!this->has_unserved_bytes() && this->handle_data_reading(timeout) == -1) {
            break;
        }
    }
    return -1;
}

/// A worker thread whose plug-in suspended reading sleeps until the response is complete.
template <typename Stream, typename Sync>
void HTTP_Svc_Handler_T<Stream, Sync>::wait_while_suspended()
{
    for (;;) {
        const unsigned seen = wakes_;
        if (concurrent_state_ != STATE_THREADING_SUSPENDED || interrupted_) {
            return;
        }
        wakes_.wait(seen);
    }
}

template <typename Stream, typename Sync>
void HTTP_Svc_Handler_T<Stream, Sync>::wake_worker()
{
    ++wakes_;
    wakes_.notify_all();
}

/// Leaves a suspension as it is: the response belongs to whoever the plug-in gave it to.
template <typename Stream, typename Sync>
void HTTP_Svc_Handler_T<Stream, Sync>::interrupt()
{
    interrupted_ = true;
    Stream_IO::interrupt(this->peer());
    this->wake_worker();
}

template <typename Stream, typename Sync>
std::string HTTP_Svc_Handler_T<Stream, Sync>::plug_in() const
{
    std::string text = HTTP_Handler_Creator_Map::instance()->describe(handler_.creator());
    if (text.empty()) {
        text = WebSocket_Handler_Creator_Map::instance()->describe(ws_handler_.creator());
    }
    return text.empty() ? "no plug-in" : text;
}

template <typename Stream, typename Sync>
bool HTTP_Svc_Handler_T<Stream, Sync>::is_suspended() const
{
    const CONCURRENT_STATE state = concurrent_state_;
    return state == STATE_REACTIVE_SUSPENDED || state == STATE_THREADING_SUSPENDED;
}

/**
 * The two directions differ in order on purpose: a suspension counts only once the reactor has
 * accepted it, while a resumed connection may get its event before resume_handler returns.
 */
template <typename Stream, typename Sync>
int HTTP_Svc_Handler_T<Stream, Sync>::suspend_read(bool suspend)
{
    ACE_Reactor* const reactor = this->reactor();
    CONCURRENT_STATE state = concurrent_state_;
    if (reactor == nullptr && state == (suspend ? STATE_REACTIVE : STATE_REACTIVE_SUSPENDED)) {
        HTTPD_EMERGENCY("Unexpected error in %N:%l, reactor is NULL:\n%?");
        return -1;
    }
    if (suspend) {
        if (state == STATE_REACTIVE) {
            if (reactor->suspend_handler(this) == -1) {
                HTTPD_ERROR("Failed to suspend %s from reactor, errno=%d, %m", this->protocol(),
                            errno);
                return -1;
            }
            concurrent_state_ = STATE_REACTIVE_SUSPENDED;
        } else if (state == STATE_THREADING) {
            concurrent_state_ = STATE_THREADING_SUSPENDED;
        }
        return 0;
    }
    if (state == STATE_REACTIVE_SUSPENDED) {
        if (!concurrent_state_.compare_exchange_strong(state, STATE_REACTIVE)) {
            return 0; // another thread resumes it, or it is closed
        }
        if (reactor->resume_handler(this) == -1) {
            HTTPD_ERROR("Failed to resume %s to reactor, errno=%d, %m", this->protocol(), errno);
            return -1;
        }
        // A request whose response is complete is finished off without waiting for more input. By
        // no notification: one that comes when the loop has ended would keep the connection.
        reactor->ready_ops(this, ACE_Event_Handler::READ_MASK, ACE_Reactor::ADD_MASK);
    } else if (state == STATE_THREADING_SUSPENDED &&
               concurrent_state_.compare_exchange_strong(state, STATE_THREADING)) {
        this->wake_worker();
    }
    return 0;
}

// ---------------------------------------------------------------- what plug-ins may ask

template <typename Stream, typename Sync>
bool HTTP_Svc_Handler_T<Stream, Sync>::is_websocket_protocol() const
{
    const HTTP_SOCK_State state = this->response_state();
    return state >= HTTP_SOCK_STATE_WEBSOCKET_HANDSHAKED &&
           state <= HTTP_SOCK_STATE_WEBSOCKET_PONGING;
}

template <typename Stream, typename Sync>
const char* HTTP_Svc_Handler_T<Stream, Sync>::protocol() const
{
    return this->is_websocket_protocol() ? "WebSocket" : "HTTP";
}

template <typename Stream, typename Sync>
bool HTTP_Svc_Handler_T<Stream, Sync>::is_ssl() const
{
    return std::is_same_v<Stream, ACE_SSL_SOCK_Stream>;
}

template <typename Stream, typename Sync>
ACE_Reactor* HTTP_Svc_Handler_T<Stream, Sync>::event_loop() const
{
    return this->reactor();
}

template <typename Stream, typename Sync>
ACE_HANDLE HTTP_Svc_Handler_T<Stream, Sync>::output_handle() const
{
    if constexpr (std::is_same_v<Stream, Pipe_Stream>) {
        constexpr bool OUTPUT = false;
        return this->peer().get_handle(OUTPUT);
    } else {
        return this->peer().get_handle();
    }
}

template <typename Stream, typename Sync>
int HTTP_Svc_Handler_T<Stream, Sync>::tcp_nodelay(bool on) const
{
    return Stream_Option::set_nodelay(this->peer(), on);
}

template <typename Stream, typename Sync>
int HTTP_Svc_Handler_T<Stream, Sync>::socket_timeout(int send_seconds, int receive_seconds) const
{
    constexpr int PROBE_SECONDS = 60;
    if (receive_seconds <= 0 || Stream_Option::set_keepalive(this->peer(), PROBE_SECONDS) == 0) {
        receive_seconds = 0;
    }
    return Stream_Option::set_timeout(this->peer(), send_seconds, receive_seconds);
}

template <typename Stream, typename Sync>
int HTTP_Svc_Handler_T<Stream, Sync>::get_local_addr(ACE_Addr& address) const
{
    return this->peer().get_local_addr(address);
}

template <typename Stream, typename Sync>
int HTTP_Svc_Handler_T<Stream, Sync>::get_remote_addr(ACE_Addr& address) const
{
    return copy_inet_addr(remote_addr_, address);
}

template <typename Stream, typename Sync>
int HTTP_Svc_Handler_T<Stream, Sync>::get_original_addr(ACE_Addr& address) const
{
    return copy_inet_addr(original_addr_, address);
}

template <typename Stream, typename Sync>
std::string HTTP_Svc_Handler_T<Stream, Sync>::get_remote_addr(bool with_port) const
{
    const addr_string_type text(remote_addr_, with_port);
    return text.c_str() != nullptr ? text.c_str() : "";
}

template <typename Stream, typename Sync>
std::string HTTP_Svc_Handler_T<Stream, Sync>::get_original_addr() const
{
    const addr_string_type text(original_addr_, WITHOUT_PORT);
    return text.c_str() != nullptr ? text.c_str() : "";
}
