#pragma once

#include "bench/common/page_buffer.h"
#include "bench/load/driver.h"
#include "bench/load/target.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <sys/types.h>
#include <vector>

class Client_Stream;
class Load_Engine;
struct Load_Options;

/**
 * What the modes with kept plain connections have in common: opening them, sending a batch of equal
 * requests, receiving, and opening another one where a connection is lost.
 */
class Kept_Driver : public Load_Driver {
public:
    /**
     * @param request         sent for each request
     * @param receive_buffer  bytes; one buffer serves all connections
     */
    Kept_Driver(const Load_Options& options, Load_Engine& engine, const std::string& request,
                size_t receive_buffer);

    void prepare() override;
    void begin() override;
    void ready(std::uint32_t key, std::uint32_t events) override;

protected:
    struct Connection {
        int fd_ = -1;
        std::uint32_t batch_ = 0;       ///< requests sent at once
        std::uint32_t outstanding_ = 0; ///< of them, not yet answered
        bool waits_to_send_ = false;    ///< EPOLLOUT is asked for
        std::uint64_t unsent_ = 0;      ///< bytes of the batch
        std::uint64_t missing_ = 0;     ///< bytes of its answers, where their length is known
        std::uint64_t sent_at_ = 0;
    };

    /// Does what comes before requests on a new connection. False, and `why`: that went wrong.
    virtual bool greet(Client_Stream& stream, std::string& why);

    /// Connects and greets.
    bool open(Client_Stream& stream, std::string& why);

    /// A connection has been opened by the stream, again or for the first time.
    virtual void opened(Connection&, Client_Stream&) {}

    /// Its descriptor is about to be closed.
    virtual void closing(Connection&) {}

    /// As send() and recv() on a socket that does not block. The second takes all that has come, as
    /// far as the buffer holds it.
    virtual ssize_t send_some(Connection& connection, const char* data, size_t size);
    virtual ssize_t receive_some(Connection& connection, char* buffer, size_t size);

    /**
     * Takes what has been received, of which the engine is told answer by answer.
     *
     * @return false: it cannot be the answers to what was sent
     */
    virtual bool take_answers(Connection& connection, const char* data, size_t size) = 0;

    Load_Engine& engine() { return engine_; }
    const Target& target() const { return target_; }
    std::uint32_t key_of(const Connection& connection) const;
    size_t connection_count() const { return connections_.size(); }

    /// Of one answer, where all are of one length; 0 where they are not.
    std::uint64_t answer_length_ = 0;

private:
    void start(Connection& connection);
    void send_rest(Connection& connection);
    void receive(Connection& connection);
    void lost(Connection& connection);
    bool open(Connection& connection, std::string& why);

    Load_Engine& engine_;
    Target target_;
    size_t depth_;
    size_t request_size_;
    std::string requests_; ///< as many as are sent at once
    Page_Buffer buffer_;
    std::vector<Connection> connections_;
};
