#pragma once

#include "tests/support/host_process.h"
#include "tests/support/probe_server.h"
#include "tests/support/wire_client.h"

#include <memory>
#include <string>

enum class Listener_Kind { TCP, TLS, UNIX, MEM };

/// A server with the probe plug-in on "/probe" (unless told otherwise) behind one listener of any
/// kind.
class Listener_Server {
public:
    explicit Listener_Server(Listener_Kind kind, const Probe_Server::Setup& setup = {});

    /// A new connection; null (and a message) when there is none.
    std::unique_ptr<Wire_Client> connect() const;

    Host_Process& host() { return *host_; }
    const Temporary_Folder& folder() const { return folder_; }
    const std::string& address() const { return address_; } ///< TCP and TLS
    unsigned short port() const { return port_; }           ///< TCP, TLS and MEM
    std::string socket_path() const { return folder_.path() + "/server.sock"; }

private:
    std::string listen_address() const;

    Listener_Kind kind_;
    Temporary_Folder folder_;
    std::string address_;
    unsigned short port_;
    std::unique_ptr<Host_Process> host_;
};
