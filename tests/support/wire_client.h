#pragma once

#include <chrono>
#include <map>
#include <memory>
#include <string>
#include <vector>

/// A response as it came over the wire; names of fields in lower case.
struct Wire_Response {
    int status = 0;
    std::string status_line;
    std::multimap<std::string, std::string> fields;
    std::string body; ///< decoded when it was chunked
    bool complete = false;
    std::string raw_head;

    /// The field's value, "" when absent; the first when repeated.
    std::string field(const std::string& name) const;
    bool has(const std::string& name) const { return fields.count(name) > 0; }
};

/**
 * One client connection that sends and receives raw bytes, over TCP, a UNIX-domain socket or TLS.
 * Every wait is bounded; what does not come in time fails the call, not the test suite.
 */
class Wire_Client {
public:
    /// Each gives null, and prints why, when there is no connection.
    static std::unique_ptr<Wire_Client> tcp(const std::string& host, unsigned short port);
    static std::unique_ptr<Wire_Client> unix_domain(const std::string& path);
    static std::unique_ptr<Wire_Client> tls(const std::string& host, unsigned short port);

    /// A socket that is connected; the client closes it.
    static std::unique_ptr<Wire_Client> over_socket(int handle);

    virtual ~Wire_Client();

    /// Sends all bytes. @return false on an error (the peer may have closed).
    virtual bool send(const std::string& bytes) = 0;

    /// Receives what is there, at least one byte. @return "" at the end, on an error, or in vain.
    virtual std::string receive(std::chrono::milliseconds limit = std::chrono::seconds(20)) = 0;

    /// Ends the sending side.
    virtual void half_close() = 0;

    int handle() const { return handle_; }

    /**
     * Reads one response. `head_only`: it answers HEAD and has no body. Bytes behind it are kept
     * for the next. `complete` is false when the connection ended or time ran out before its end.
     */
    Wire_Response read_response(bool head_only = false,
                                std::chrono::milliseconds limit = std::chrono::seconds(20));

    /// send() and read_response().
    Wire_Response exchange(const std::string& request, bool head_only = false);

    /// Everything until the peer closes (or `limit`).
    std::string read_to_end(std::chrono::milliseconds limit = std::chrono::seconds(20));

    /// Waits until `count` bytes have come (with what was kept); takes them. Shorter at the end.
    std::string read_exactly(size_t count,
                             std::chrono::milliseconds limit = std::chrono::seconds(20));

    /// True when the peer closes (or resets) without sending another byte.
    bool is_closed_by_peer(std::chrono::milliseconds limit = std::chrono::seconds(20));

    /// True when nothing at all comes for `limit`: the connection is open and silent.
    bool is_silent(std::chrono::milliseconds limit);

    /// The last receive() ended because the peer closed or reset.
    bool at_end() const { return at_end_; }

protected:
    explicit Wire_Client(int handle) : handle_(handle) {}

    int handle_;
    bool at_end_ = false;
    std::string kept_; ///< received and not taken yet
};

/// "GET target HTTP/1.1", Host and the given fields (each without line end), empty line.
std::string get_request(const std::string& target, const std::vector<std::string>& fields = {});

/// A request with Content-Length and `body`.
std::string body_request(const std::string& method, const std::string& target,
                         const std::string& body, const std::vector<std::string>& fields = {});

/// A request with a chunked body, one chunk for each piece.
std::string chunked_request(const std::string& method, const std::string& target,
                            const std::vector<std::string>& pieces,
                            const std::vector<std::string>& fields = {});
