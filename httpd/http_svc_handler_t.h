#pragma once

#include "httpd/detail/loop_io.h"
#include "httpd/export.h"
#include "httpd/http_authenticator.h"
#include "httpd/http_chunk_parser.h"
#include "httpd/http_handler.h"
#include "httpd/live_connections.h"
#include "httpd/object_creator_t.h"
#include "httpd/websocket_handler.h"
#include "support/addr_string.h"
#include "support/http_parser.h"
#include "support/peer_stream_io.h"
#include "support/websocket_data_frame.h"
#include "support/websocket_data_frame_parser.h"

#include <ace/Reactor.h>
#include <ace/Svc_Handler.h>
#include <ace/Time_Value.h>

#include <atomic>
#include <cstdint>
#include <string>

/**
 * One connection, from its accept to its end, over any kind of stream: reads requests, routes them
 * to plug-ins, sends what they answer, and carries WebSocket frames after an upgrade.
 *
 * Driven by one thread at a time: the event loop that the acceptor chose, or, once a plug-in asked
 * for THREAD, a worker thread of its own to the connection's end. Reference counted: the acceptor
 * creates it, handle_close_i() drops the first reference, the last one deletes it and closes the
 * stream.
 *
 * The class lies in several files, one for each side: http_svc_handler_t_life.ipp (open, close,
 * threads, addresses), _timers.ipp, _receive.ipp, _send.ipp, _file.ipp and _websocket.ipp.
 */
template <typename Stream, typename Sync>
class HTTP_Svc_Handler_T : public ACE_Svc_Handler<Stream, Sync>,
                           protected Loop_IO,
                           private Live_Connections::Worker {
public:
    using addr_string_type = ACE_Addr_String;
    using Reference_Count = ACE_Event_Handler::Reference_Count;

    enum { DEFAULT_BUFSIZ = 8192, SIZE_BUFSIZ = 32 };

    /// Reads that one input event is good for.
    enum { MOST_READS = 16 };

    /// What a step of the receive side asks for.
    enum {
        HANDLE_ERROR = -1,   ///< close the connection
        HANDLE_CONTINUE = 0, ///< stop for now, wait for more input
        HANDLE_DATA = 1      ///< go on with the next step at once
    };

    /// Who drives the connection.
    enum CONCURRENT_STATE {
        STATE_INITIAL = 0,            ///< nobody: not opened yet, or closed
        STATE_REACTIVE = 1,           ///< an event loop
        STATE_REACTIVE_SUSPENDED = 2, ///< an event loop, which was told not to read
        STATE_THREADING = 3,          ///< a worker thread
        STATE_THREADING_SUSPENDED = 4 ///< a worker thread, which was told not to read
    };

    explicit HTTP_Svc_Handler_T(ACE_Thread_Manager* manager = nullptr);
    ~HTTP_Svc_Handler_T() override;

    // --- life ---
    /// Before open(), for a stream that comes from an accept: close-on-exec, with this peer.
    void accepted_from(const ACE_INET_Addr& remote);
    int open(void* acceptor = nullptr) override;
    int close(u_long flags = 0) override;
    int handle_input(ACE_HANDLE handle) override;
    int handle_output(ACE_HANDLE handle) override;
    int handle_timeout(const ACE_Time_Value& now, const void* act) override;
    int handle_close(ACE_HANDLE handle, ACE_Reactor_Mask mask) override;
    int svc() override;
    Reference_Count add_reference() override;
    Reference_Count remove_reference() override;

    bool is_websocket_protocol() const;
    const char* protocol() const;

protected:
    // --- HTTP_IO and WebSocket_IO: connection ---
    int get_local_addr(ACE_Addr& address) const override;
    int get_remote_addr(ACE_Addr& address) const override;
    int get_original_addr(ACE_Addr& address) const override;
    std::string get_remote_addr(bool with_port) const override;
    std::string get_original_addr() const override;
    int suspend_read(bool suspend) override;
    int tcp_nodelay(bool on) const override;
    int socket_timeout(int send_seconds, int receive_seconds) const override;
    bool is_ssl() const override;
    void shutdown() override;

    // --- HTTP_IO: sending ---
    int send_file(const char* path) override;
    int send_error(int status, const void* body, size_t length) override;
    int send(const void* data, size_t length, bool last) override;
    int sendv_n(const iovec* iov, int count, bool last) override;

    // --- WebSocket_IO: frames ---
    ssize_t send_frame(const void* data, size_t length, bool final, bool binary) override;
    ssize_t sendv_frame(const iovec* iov, int count, bool final, bool binary) override;
    int send_ping(bool wait) override;
    int send_close_frame(WebSocket_Data_Frame::Close_Status status, const void* reason,
                         size_t length) override;

    // --- Loop_IO: sending without waiting ---
    ACE_Reactor* event_loop() const override;
    ACE_HANDLE output_handle() const override;
    Frame_State frame_state() const override;
    ssize_t sendv_now(const iovec* iov, int count) override;

    // --- Loop_IO: sending from a file ---
    bool sends_from_files() const override;
    int send_file_part(int file, off_t offset, size_t length, size_t block_size, bool last,
                       File_Sent::Outcome& outcome) override;

    // --- life, for a connection whose handle_close frees nothing and whose owner does ---
    /**
     * What handle_close does, but for the release: nobody drives the connection any more (no call
     * comes, also none that is under way), and the plug-ins have been told. By its driver's thread.
     */
    void end_connection();
    /**
     * Makes it end, called by the thread that ran its loop: at once, or, when a worker thread
     * drives it, as soon as the plug-in returns; the thread holds a reference until then.
     */
    void stop_connection();

private:
    using Stream_IO = Peer_Stream_IO_T<Stream>;
    using Stream_Option = ACE_Peer_Stream_Option_T<Stream>;

    /**
     * One call into the connection by the thread that drives it; lives on that thread's stack, so
     * that the caller can tell what became of a connection that it may not touch any more.
     */
    struct Upcall {
        bool moved_ = false;    ///< a worker thread drives it now
        bool orphaned_ = false; ///< no one drives it: it left its loop, and no thread could start
    };

    // --- life ---
    int open_i();
    template <typename Call>
    int guarded(Call call);
    int end_by_exception(const char* reason);
    int handle_read_event();
    int drive_to_the_end();
    int spawn();
    static void run_in_thread(void* connection, bool has_log);
    int finish_upcall(Upcall& upcall, int result);
    int handle_close_i();
    bool tell_plug_ins();
    void close_stream();
    bool lingers() const;
    bool is_suspended() const;
    bool has_unserved_bytes() const;
    bool expects_more_at_once() const;
    void wait_while_suspended();
    void wake_worker();
    void interrupt() override;
    std::string plug_in() const override;

    // --- timers ---
    int schedule_timer_i(const ACE_Time_Value* interval, const char* name, const char* reason);
    int cancel_timers();
    int handle_timeout_i(const ACE_Time_Value& now, const void* act);
    int handle_websocket_timeout(const ACE_Time_Value& now, const void* act);
    int handle_ping_interval(const ACE_Time_Value& now, const ACE_Time_Value& interval);
    int schedule_ping_timeout(bool debugging);

    // --- a client that does not read what it is sent ---
    void widen_output(std::uint64_t payload);
    void count_output(size_t bytes);
    bool looks_full() const;
    bool has_room();
    int wait_for_room();
    int handle_room_timeout();

    // --- receiving ---
    int handle_data_reading(const ACE_Time_Value* timeout);
    int make_room();
    int crunch_buffer();
    int handle_end_of_input();
    void give_back_memory();
    int handle_receive_failure(const ACE_Time_Value* timeout);
    int handle_input_i();
    void start_request();
    int handle_header_receiving();
    int handle_header_received();
    int handle_header_processing();
    int handle_content_receiving();
    int handle_counted_content();
    int handle_chunked_content();
    int handle_content_received();
    int handle_request_content(size_t length);
    int refuse(int status);
    bool is_referer_allowed() const;
    void find_original_addr();
    int choose_thread();
    int prepare_body();
    bool request_has_body() const;
    bool has_unknown_framing() const;
    int send_continue();
    void log_access(int result);
    [[gnu::noinline]] void write_access_line() const;

    // --- sending ---
    int send_headers_content(const void* data, size_t length, bool last);
    int send_headers_chunked(const void* data, size_t length, bool last);
    int send_body_content(const void* data, size_t length, bool last);
    int send_body_chunked(const void* data, size_t length, bool last);
    int sendv_headers_content(const iovec* iov, int count, bool last);
    int sendv_headers_chunked(const iovec* iov, int count, bool last);
    int sendv_body_content(const iovec* iov, int count, bool last);
    int sendv_body_chunked(const iovec* iov, int count, bool last);
    bool begin_headers(bool keep);
    int write_headers(iovec* iov, int head_entries, int body_entries);
    int headers_content_sent(size_t payload, bool piece, bool head, bool keep, bool last);
    int headers_chunked_sent(size_t payload, bool piece, bool keep, bool last);
    int body_content_sent(size_t payload, bool last);
    int body_chunked_sent(size_t payload, bool last);
    int headers_failed() const;
    int body_failed() const;
    int send_file_in_parts(const char* path, int file, size_t size, size_t block_size);
    int send_file_block(int file, off_t offset, size_t length, bool last, File_Sent& sent);
    void set_nonblocking(bool on);
    int finish_send(int result);

    // --- WebSocket ---
    int handle_websocket_handshaking();
    bool check_websocket_request();
    int accept_websocket();
    int start_websocket();
    int choose_websocket_thread(WebSocket_Handler::CONCURRENCY concurrency);
    int handle_websocket_receiving();
    int handle_websocket_payload(size_t length);
    int handle_websocket_data_framing(size_t length);
    int handle_websocket_ping(unsigned char opcode, size_t length);
    int handle_websocket_close(size_t length);
    int handle_websocket_pong();
    void close_websocket();
    ssize_t send_frame_i(const void* data, size_t length);
    ssize_t sendv_frame_i(const iovec* iov, int count);
    ssize_t write_frame(const iovec* iov, int count);

    HTTP_Request_Parser parser_;
    HTTP_Chunk_Parser chunk_parser_;
    Object_var<Object_Creator_T<HTTP_Handler>, HTTP_Handler> handler_;
    Object_var<Object_Creator_T<HTTP_Authenticator>, HTTP_Authenticator> auth_handler_;
    std::uint64_t content_length_ = 0;   ///< declared length of the request's body
    std::uint64_t content_received_ = 0; ///< body bytes given to the plug-in
    std::uint64_t content_sent_ = 0;     ///< body bytes sent, framing not counted
    ACE_Time_Value start_time_;          ///< wall clock; set while an access log is open
    ACE_INET_Addr remote_addr_;
    WebSocket_Data_Frame_Parser ws_parser_;
    WebSocket_Data_Frame ws_frame_;
    Object_var<Object_Creator_T<WebSocket_Handler>, WebSocket_Handler> ws_handler_;
    std::atomic<CONCURRENT_STATE> concurrent_state_{STATE_INITIAL};
    long interval_timer_id_ = -1;    ///< the repeating timer: idle time or ping interval
    long ping_timer_id_ = -1;        ///< the one-shot ping timeout
    long room_timer_id_ = -1;        ///< armed while the socket has no room: no input is read then
    ACE_Time_Value last_input_time_; ///< by the loop's timer clock

    /// Declared length of a kept-alive counted response. Not the request's: a plug-in may answer
    /// while the body still arrives.
    std::uint64_t response_length_ = 0;
    Upcall* upcall_ = nullptr;
    unsigned output_unlooked_ = 0; ///< bytes sent since the socket was seen to have room
    int unsent_ = 0;               ///< bytes that lay in the socket when the timer was armed
    bool output_widened_ = false;  ///< the socket takes a large answer at once
    bool close_sent_ = false;      ///< our close frame has been sent
    bool buffer_filled_ = false;   ///< by the last read
    bool released_ = false;        ///< handle_close_i has run
    bool logged_ = false;          ///< the current request has its access-log line
    bool header_received_ = false; ///< the current request's header is complete
    bool nonblocking_ = false;     ///< the socket's mode, changed to send from a file
    std::atomic<bool> close_asked_{false}; ///< by a send while reading was suspended
    std::atomic<unsigned> wakes_{0};       ///< changes when a suspended worker is to look again
    std::atomic<bool> interrupted_{false}; ///< the service ends; a worker thread is to stop
};

extern template class HTTP_Svc_Handler_T<ACE_SOCK_Stream, ACE_MT_SYNCH>;
extern template class HTTP_Svc_Handler_T<ACE_SSL_SOCK_Stream, ACE_MT_SYNCH>;
extern template class HTTP_Svc_Handler_T<LSOCK_Stream, ACE_MT_SYNCH>;
extern template class HTTP_Svc_Handler_T<MEM_Stream, ACE_MT_SYNCH>;
// The base of an exported class.
extern template class HTTPD_EXPORT HTTP_Svc_Handler_T<Pipe_Stream, ACE_NULL_SYNCH>;
