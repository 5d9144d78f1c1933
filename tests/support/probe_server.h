#pragma once

#include "tests/support/host_process.h"
#include "tests/support/wire_client.h"

#include <memory>
#include <string>
#include <vector>

/**
 * A server with the probe plug-in on "/probe", listening on TCP (port 8080 of an address of its
 * own), for tests of one connection's behaviour.
 */
class Probe_Server {
public:
    struct Setup {
        std::vector<std::string> options = {}; ///< further words for the service
        std::vector<Plugin_Record> handlers = {{"/probe", "probe_plugin", "_make_Probe"}};
        std::vector<Plugin_Record> authenticators = {};
        std::vector<Plugin_Record> websockets = {};
        std::vector<std::string> host = {}; ///< further words for the host
        std::string log_level = "debug";
    };

    Probe_Server() : Probe_Server(Setup()) {}
    explicit Probe_Server(const Setup& setup) : address_(own_loopback_address())
    {
        Host_Process::Command command;
        command.host = setup.host;
        command.log_level = setup.log_level;
        command.service = {"-p", address_ + ":8080"};
        this->add_records(command, "-f", "http.json", setup.handlers);
        this->add_records(command, "-a", "auth.json", setup.authenticators);
        this->add_records(command, "-w", "websocket.json", setup.websockets);
        command.service.insert(command.service.end(), setup.options.begin(), setup.options.end());
        host_ = std::make_unique<Host_Process>(command);
    }

    /// A new connection; null (and a message) when there is none.
    std::unique_ptr<Wire_Client> connect() const { return Wire_Client::tcp(address_, 8080); }

    Host_Process& host() { return *host_; }
    const std::string& address() const { return address_; }
    const Temporary_Folder& folder() const { return folder_; }

private:
    void add_records(Host_Process::Command& command, const std::string& option,
                     const std::string& file, const std::vector<Plugin_Record>& records) const
    {
        if (!records.empty()) {
            command.service.push_back(option);
            command.service.push_back(folder_.write(file, plugin_configuration(records)));
        }
    }

    Temporary_Folder folder_;
    std::string address_;
    std::unique_ptr<Host_Process> host_;
};
