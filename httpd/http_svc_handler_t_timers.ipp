// Timers of a connection: the repeating one (idle time, or ping interval) and the ping timeout.
// Included by http_svc_handler_t.cpp alone.

/// Replaces the repeating timer; a null or zero `interval` means none.
template <typename Stream, typename Sync>
int HTTP_Svc_Handler_T<Stream, Sync>::schedule_timer_i(const ACE_Time_Value* interval,
                                                       const char* name, const char* reason)
{
    ACE_Reactor* const reactor = this->reactor();
    if (reactor == nullptr) {
        return 0;
    }
    Timer_Slot timer(*reactor, interval_timer_id_);
    if (timer.armed()) {
        const long id = interval_timer_id_;
        const int cancelled = timer.cancel();
        if (ACE::debug()) {
            HTTPD_DEBUG("Cancelled %d %s %s timers by %q after %s %s.", cancelled, this->protocol(),
                        name, static_cast<ACE_INT64>(id), this->protocol(), reason);
        }
    }
    if (interval == nullptr || *interval == ACE_Time_Value::zero) {
        return 0;
    }
    // The timer's act is the option's address: handle_timeout tells the timers apart by it.
    if (timer.arm(this, interval, *interval, *interval) == -1) {
        HTTPD_ERROR("Failed to %s %s timer, errno=%d, %m", this->protocol(), name, errno);
        return -1;
    }
    if (ACE::debug()) {
        HTTPD_DEBUG("Scheduled %s %s timer %q after %s %s.", this->protocol(), name,
                    static_cast<ACE_INT64>(interval_timer_id_), this->protocol(), reason);
    }
    return 0;
}

/// Cancels the timers without a handle_close. @return how many there were.
template <typename Stream, typename Sync>
int HTTP_Svc_Handler_T<Stream, Sync>::cancel_timers()
{
    ACE_Reactor* const reactor = this->reactor();
    if (reactor == nullptr) {
        return 0;
    }
    return Timer_Slot(*reactor, interval_timer_id_).cancel() +
           Timer_Slot(*reactor, ping_timer_id_).cancel() +
           Timer_Slot(*reactor, room_timer_id_).cancel();
}

/// @return 0, or another value when the connection is to be closed.
template <typename Stream, typename Sync>
int HTTP_Svc_Handler_T<Stream, Sync>::handle_timeout_i(const ACE_Time_Value& now, const void* act)
{
    if (request_state_ == HTTP_SOCK_STATE_WEBSOCKET_HANDSHAKED) {
        return this->handle_websocket_timeout(now, act);
    }
    const ACE_Time_Value* const idle = HTTP_Options::instance()->idle_timeout();
    if (idle == nullptr) {
        return 0;
    }
    if (act != idle) {
        HTTPD_WARNING("HTTP idle-timeout is not configured properly.");
        return 0;
    }
    if (now - last_input_time_ < *idle) {
        return 0;
    }
    HTTPD_INFO("HTTP connection %s is idle timeout.",
               addr_string_type(remote_addr_, WITH_PORT).c_str());
    return -1;
}
