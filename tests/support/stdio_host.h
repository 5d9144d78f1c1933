#pragma once

#include "tests/support/host_process.h"
#include "tests/support/wire_client.h"

#include <memory>
#include <string>
#include <vector>

/**
 * A host that serves one connection on its standard input and output, and the client at the other
 * end. The probe plug-in is on "/probe", the WebSocket one on "/ws".
 */
class Stdio_Host {
public:
    enum class Kind { PIPES, UNIX_SOCKET, TCP_SOCKET };

    struct Setup {
        Kind kind = Kind::PIPES;
        std::vector<std::string> options = {}; ///< further words for the service
        std::vector<Plugin_Record> handlers = {{"/probe", "probe_plugin", "_make_Probe"}};
        std::vector<Plugin_Record> authenticators = {};
        std::vector<std::string> host = {}; ///< further words for the host
        std::string log_level = "debug";
        int input = -1;               ///< descriptor 0 in place of the client's; not taken
        int output = -1;              ///< descriptor 1, likewise
        bool error_to_client = false; ///< descriptor 2 leads where 1 leads
    };

    Stdio_Host() : Stdio_Host(Setup()) {}
    explicit Stdio_Host(const Setup& setup);

    /// The other end of the connection.
    Wire_Client& client() { return *client_; }
    std::unique_ptr<Wire_Client> take_client() { return std::move(client_); }

    Host_Process& host() { return *host_; }
    const Temporary_Folder& folder() const { return folder_; }

    /// Waits until the host has ended by itself. @return its exit status, or -signal.
    int wait_for_end() { return host_->stop(0); }

private:
    Temporary_Folder folder_;
    std::unique_ptr<Wire_Client> client_;
    std::unique_ptr<Host_Process> host_;
};

/// A client that writes to one descriptor and reads from another one; it closes both.
std::unique_ptr<Wire_Client> make_pipe_client(int write_handle, int read_handle);
