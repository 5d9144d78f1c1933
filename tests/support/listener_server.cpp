#include "tests/support/listener_server.h"

#include "tests/support/mem_client.h"
#include "tests/support/tls_files.h"

Listener_Server::Listener_Server(Listener_Kind kind, const Probe_Server::Setup& setup)
    : kind_(kind), address_(own_loopback_address()),
      port_(kind == Listener_Kind::MEM ? free_local_port() : 8443)
{
    Host_Process::Command command;
    command.host = setup.host;
    command.log_level = setup.log_level;
    if (kind == Listener_Kind::TLS) {
        const Tls_Files files = write_tls_files(folder_.path());
        command.host.insert(command.host.end(), {"--tls-certificate", files.certificate,
                                                 "--tls-private-key", files.private_key});
    }
    command.service = {"-p", this->listen_address()};
    const auto add_records = [this, &command](const char* option, const char* file,
                                              const std::vector<Plugin_Record>& records) {
        if (!records.empty()) {
            command.service.emplace_back(option);
            command.service.push_back(folder_.write(file, plugin_configuration(records)));
        }
    };
    add_records("-f", "http.json", setup.handlers);
    add_records("-a", "auth.json", setup.authenticators);
    add_records("-w", "websocket.json", setup.websockets);
    command.service.insert(command.service.end(), setup.options.begin(), setup.options.end());
    host_ = std::make_unique<Host_Process>(command);
}

std::string Listener_Server::listen_address() const
{
    const std::string port = std::to_string(port_);
    switch (kind_) {
    case Listener_Kind::TCP:
        return address_ + ":" + port;
    case Listener_Kind::TLS:
        return address_ + ":" + port + "s";
    case Listener_Kind::UNIX:
        return this->socket_path();
    case Listener_Kind::MEM:
        break;
    }
    return port + "m";
}

std::unique_ptr<Wire_Client> Listener_Server::connect() const
{
    switch (kind_) {
    case Listener_Kind::TCP:
        return Wire_Client::tcp(address_, port_);
    case Listener_Kind::TLS:
        return Wire_Client::tls(address_, port_);
    case Listener_Kind::UNIX:
        return Wire_Client::unix_domain(this->socket_path());
    case Listener_Kind::MEM:
        break;
    }
    return connect_mem(port_);
}
