// A client that sends and does not read: its loop waits for room in the socket before it takes
// more. Included by http_svc_handler_t.cpp alone.

/// Streams whose descriptor tells by itself when it has room.
template <typename Stream>
constexpr bool TELLS_ROOM =
    std::is_same_v<Stream, ACE_SOCK_Stream> || std::is_same_v<Stream, ACE_SSL_SOCK_Stream> ||
    std::is_same_v<Stream, LSOCK_Stream>;

/// The system is asked for room once in so many bytes of output: it costs a call. A socket of the
/// smallest usual buffer still has a third of it left then.
constexpr unsigned LOOK_AFTER = 16 * 1024;

/// What a response or a piece of one takes besides its payload, about.
constexpr size_t FRAMING_BYTES = 256;

/// What the loop answers in one piece is not much larger: plug-ins move to a thread for that.
constexpr size_t LARGE_ANSWER = 32 * 1024;
constexpr int WIDE_OUTPUT = 256 * 1024;

/**
 * Before the loop sends a large answer: a new connection's socket often takes less than that, and
 * the loop would wait until the client has read the rest.
 */
template <typename Stream, typename Sync>
void HTTP_Svc_Handler_T<Stream, Sync>::widen_output(std::uint64_t payload)
{
    if (TELLS_ROOM<Stream> && payload > LARGE_ANSWER && !output_widened_ &&
        concurrent_state_ == STATE_REACTIVE) {
        output_widened_ = true;
        widen_send_buffer(this->peer().get_handle(), WIDE_OUTPUT);
    }
}

template <typename Stream, typename Sync>
void HTTP_Svc_Handler_T<Stream, Sync>::count_output(size_t bytes)
{
    output_unlooked_ =
        static_cast<unsigned>(std::min<size_t>(output_unlooked_ + bytes, LOOK_AFTER));
}

template <typename Stream, typename Sync>
bool HTTP_Svc_Handler_T<Stream, Sync>::looks_full() const
{
    return TELLS_ROOM<Stream> && output_unlooked_ >= LOOK_AFTER;
}

/**
 * Whether a response can be sent without waiting, as far as that can be told: a third of the
 * socket's buffer is free, or the socket has failed, which the next read tells.
 */
template <typename Stream, typename Sync>
bool HTTP_Svc_Handler_T<Stream, Sync>::has_room()
{
    const bool room = socket_has_room(this->peer().get_handle());
    output_unlooked_ = room ? 0 : output_unlooked_;
    return room;
}

/**
 * Reads no more until the socket has room again. What the client sends meanwhile stays in the
 * socket, where it holds up the client alone; a send that finds no room holds up the whole loop.
 */
template <typename Stream, typename Sync>
int HTTP_Svc_Handler_T<Stream, Sync>::wait_for_room()
{
    ACE_Reactor* const reactor = this->reactor();
    if (reactor->mask_ops(this, ACE_Event_Handler::WRITE_MASK, ACE_Reactor::SET_MASK) == -1) {
        HTTPD_ERROR("unable to register client handler, errno=%d, %m", errno);
        return -1;
    }
    const ACE_HANDLE handle = this->peer().get_handle();
    const int limit = send_limit_ms(handle);
    unsent_ = unsent_bytes(handle);
    const ACE_Time_Value period(limit / 1000, limit % 1000 * 1000);
    if (Timer_Slot(*reactor, room_timer_id_).arm(this, &room_timer_id_, period, period) == -1) {
        HTTPD_ERROR("Failed to %s %s timer, errno=%d, %m", this->protocol(), "room", errno);
        return -1;
    }
    return 0;
}

/// There is room: goes on with what has been received, then with what the socket holds.
template <typename Stream, typename Sync>
int HTTP_Svc_Handler_T<Stream, Sync>::handle_output(ACE_HANDLE)
{
    ACE_Reactor* const reactor = this->reactor();
    if (concurrent_state_ != STATE_REACTIVE || room_timer_id_ == -1) {
        return 0;
    }
    Timer_Slot(*reactor, room_timer_id_).cancel();
    if (reactor->mask_ops(this, ACE_Event_Handler::READ_MASK, ACE_Reactor::SET_MASK) == -1) {
        HTTPD_ERROR("unable to register client handler, errno=%d, %m", errno);
        return -1;
    }
    output_unlooked_ = 0;
    // It has read something, which is as much a sign of life as input.
    last_input_time_ = reactor->timer_queue()->gettimeofday();
    reactor->ready_ops(this, ACE_Event_Handler::READ_MASK, ACE_Reactor::ADD_MASK);
    return 0;
}

/// The limit of a send, kept while none waits: -1 when the client has taken nothing meanwhile.
template <typename Stream, typename Sync>
int HTTP_Svc_Handler_T<Stream, Sync>::handle_room_timeout()
{
    const int before = unsent_;
    unsent_ = unsent_bytes(this->peer().get_handle());
    if (unsent_ < before) {
        return 0;
    }
    errno = ETIME;
    HTTPD_ERROR("%s connection %s takes nothing of what is sent: %m", this->protocol(),
                addr_string_type(remote_addr_, WITH_PORT).c_str());
    return -1;
}
