#pragma once

#include "tests/support/faults.h"
#include "tests/support/listener_server.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

/**
 * A server with faults to come, and a script of requests that uses every part of it: small and
 * large answers, files, bodies counted and chunked, refusals, passwords, a worker thread, WebSocket
 * messages, an access log.
 */
class Fault_Server {
public:
    explicit Fault_Server(Listener_Kind kind = Listener_Kind::TCP,
                          const std::vector<std::string>& options = {});

    Faults& faults() { return faults_; }
    Host_Process& host() { return server_->host(); }
    Listener_Server& listener() { return *server_; }

    /// The folder that is served as "/files".
    std::string root() const { return folder_.path() + "/served"; }
    std::string access_log() const { return folder_.path() + "/log/access.log"; }
    std::string large_text() const { return large_; }
    std::string file_text() const { return file_; }

    /// Null when there is no connection.
    std::unique_ptr<Wire_Client> connect() const;

    /// Error lines of the host up to now, when no fault is armed: one request makes sure that the
    /// log has been read so far.
    size_t errors_logged();

    /**
     * Runs the whole script. Every answer must be right.
     * @return "", or what was wrong first
     */
    std::string run_script() { return this->run(EXACT); }

    /**
     * Runs the whole script while a fault strikes: an answer may be missing if the connection ends
     * then, or may tell of an error (5xx); one that claims to be right must be so, and the server
     * must never just be silent.
     */
    std::string run_script_under_fault() { return this->run(UNDER_FAULT); }

    /// The first requests of the script, which one connection serves in its event loop.
    std::string run_beginning() { return this->run_beginning(EXACT); }
    std::string run_beginning_under_fault() { return this->run_beginning(UNDER_FAULT); }

private:
    enum Mode { EXACT, UNDER_FAULT };

    struct Step {
        const char* name;
        std::string request;
        int status;
        std::function<bool(const Wire_Response&)> check;
    };

    std::string run(Mode mode);
    std::string run_beginning(Mode mode);
    std::string run_step(const Step& step, Mode mode, std::unique_ptr<Wire_Client>& client);
    std::string run_websocket(const std::string& target, Mode mode);
    void write_steps();

    Temporary_Folder folder_;
    Faults faults_;
    std::string file_;
    std::string large_;
    std::vector<Step> steps_;
    std::unique_ptr<Listener_Server> server_;
    unsigned marks_ = 0; ///< requests of errors_logged()
};
