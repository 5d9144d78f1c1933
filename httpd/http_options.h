#pragma once

#include "httpd/export.h"

#include <ace/Addr.h>
#include <ace/Time_Value.h>

#include <sys/types.h>

#include <cstddef>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

class URI;

/**
 * The settings of the server, as the host gives them on the service's command line.
 *
 * One object for the process. It is filled before the server starts to listen and only read
 * afterwards, from any thread and without a lock. A size or a time limit of 0 and an absent
 * duration mean "not configured": whoever uses the setting keeps a default of its own.
 */
class HTTPD_EXPORT HTTP_Options {
public:
    enum {
        DEFAULT_PORT = 10000,
        DEFAULT_ACCEPTOR_TIMEOUT = 3 ///< seconds
    };

    /// The model that the host asks for; the server itself only keeps it for plug-ins.
    enum CONCURRENCY : int { REACTIVE = 0, THREAD = 1, PROCESS = 2, THREAD_POOL = 3 };

    /// An address to listen on. It can be moved, not copied.
    struct HTTPD_EXPORT Listen_Address {
        enum Type : unsigned int {
            TYPE_HTTP = 0,  ///< TCP; sap is an ACE_INET_Addr
            TYPE_HTTPS = 1, ///< TLS over TCP; sap is an ACE_INET_Addr
            TYPE_HTTPM = 2, ///< shared memory; sap is an ACE_MEM_Addr
            TYPE_HTTPU = 3  ///< UNIX-domain socket; sap is an ACE_UNIX_Addr
        };

        Type type = TYPE_HTTP;
        std::unique_ptr<ACE_Addr> sap;
        bool ipv6_only = false;

        bool is_ssl() const { return type == TYPE_HTTPS; }
        bool is_inet_or_inet6() const;
    };

    using Servers = std::set<std::string>;

    HTTP_Options();
    ~HTTP_Options();
    HTTP_Options(const HTTP_Options&) = delete;
    HTTP_Options& operator=(const HTTP_Options&) = delete;

    /// Created by the first call, which must not race with another. Null when there is no memory.
    static HTTP_Options* instance();
    static void close_instance();

    /**
     * Reads the command line, adding to what is there. Configuration files are loaded and the
     * access log is opened on the way; the settings are logged.
     *
     * @param argv  no program name: argv[0] is the first option; null when argc is 0
     * @return 0, also with unknown options and malformed values (logged); -1 with errno when there
     *         is no memory for a listen address or a name.
     */
    int parse_args(int argc, char** argv);

    /**
     * Adds comma-separated addresses: "8080", "127.0.0.1:8080", "[::]:8443s" (TLS), "5000m" (shared
     * memory), "8080/ipv6only", "/run/http.sock".
     *
     * @return false with errno when there is no memory. A text that is no address is added all the
     *         same and refused when the server listens.
     */
    bool parse_listen_address(const char* text);

    /**
     * Where a client on this machine reaches the server best: plain before TLS, IPv4 before IPv6.
     *
     * @param host  without port and brackets
     * @return false when there is no TCP or TLS listener; the arguments are left alone then.
     */
    bool get_local_listen_address(std::string& host, unsigned short& port, bool& ssl) const;

    /// The same as the host, port and scheme of `uri`.
    bool get_local_listen_address(URI& uri) const;

    /// The listen addresses in the order given; null from their number on.
    const Listen_Address* listen_address(int i) const;

    int listen_backlog() const { return listen_backlog_; }

    /// How long a connection may be silent; null: without limit.
    const ACE_Time_Value* idle_timeout() const { return pointer(idle_); }

    /// Seconds for one accept, TLS handshake included; negative: without limit.
    int accept_timeout() const { return accept_timeout_; }

    /// How often a WebSocket peer is pinged; null: never.
    const ACE_Time_Value* ping_interval() const { return pointer(ping_interval_); }
    /// Whether a connection's last input matters to anyone.
    bool watches_input() const { return idle_.has_value() || ping_interval_.has_value(); }

    /// How long the answer to a ping may take; null: without limit.
    const ACE_Time_Value* ping_timeout() const { return pointer(ping_timeout_); }

    CONCURRENCY concurrency() const { return concurrency_; }

    /// The number of event loops, at least 1.
    int loops() const { return loops_; }

    /// Sizes are bytes, time limits seconds.
    size_t file_read_buffer_size() const { return file_read_buffer_size_; }
    size_t file_write_buffer_size() const { return file_write_buffer_size_; }
    int socket_receive_buffer_size() const { return socket_receive_buffer_size_; }
    int socket_send_buffer_size() const { return socket_send_buffer_size_; }
    int socket_receive_timeout() const { return socket_receive_timeout_; }
    int socket_send_timeout() const { return socket_send_timeout_; }
    size_t http_receive_buffer_size() const { return http_receive_buffer_size_; }

    /// Policies for files. Of the cache: -2 goes past it, -1 discards it, n > 0 discards it every
    /// n bytes, 0 leaves it to the system.
    bool read_ahead() const { return read_ahead_; }
    off_t read_discard_cache() const { return read_discard_cache_; }
    off_t write_discard_cache() const { return write_discard_cache_; }

    /// -1: write through; n > 0: begin to write back every n bytes; -n: write back every n bytes
    /// and wait; 0: left to the system.
    off_t write_sync() const { return write_sync_; }

    /// Before a written file is closed: 1 begins to write back, 2 waits for it, 0 does neither.
    int write_sync_close() const { return write_sync_close_; }

    /// The server names that a Referer may carry; empty: any.
    const Servers& servers() const { return servers_; }

    /// The address of the proxy whose X-Forwarded-For is believed; empty: none is.
    const std::string& proxy_from() const { return proxy_from_; }

    /// To be called before the server starts to listen.
    void proxy_from(const std::string& address) { proxy_from_ = address; }

private:
    class Parser; ///< reads one command line

    static const ACE_Time_Value* pointer(const std::optional<ACE_Time_Value>& value)
    {
        return value ? &*value : nullptr;
    }

    void log_sizes() const;
    void log_cache_policies() const;

    CONCURRENCY concurrency_ = REACTIVE;
    int loops_ = 1;
    std::vector<Listen_Address> listen_addrs_;
    int listen_backlog_ = 128;
    std::optional<ACE_Time_Value> idle_;
    int accept_timeout_ = DEFAULT_ACCEPTOR_TIMEOUT;
    std::optional<ACE_Time_Value> ping_interval_;
    std::optional<ACE_Time_Value> ping_timeout_;
    size_t file_read_buffer_size_ = 0;
    size_t file_write_buffer_size_ = 0;
    int socket_receive_buffer_size_ = 0;
    int socket_send_buffer_size_ = 0;
    int socket_receive_timeout_ = 0;
    int socket_send_timeout_ = 0;
    size_t http_receive_buffer_size_ = 0;
    bool read_ahead_ = false;
    off_t read_discard_cache_ = 0;
    int write_sync_close_ = 0;
    off_t write_sync_ = 0;
    off_t write_discard_cache_ = 0;
    Servers servers_;
    std::string proxy_from_;
};
