#pragma once

#include "bench/load/request_driver.h"
#include "bench/load/tls_client.h"

#include <vector>

/// Mode tls: requests over kept TLS connections.
class Tls_Driver : public Request_Driver {
public:
    Tls_Driver(const Load_Options& options, Load_Engine& engine);

protected:
    bool can_drop() const override { return false; }
    bool greet(Client_Stream& stream, std::string& why) override;
    void opened(Connection& connection, Client_Stream& stream) override;
    void closing(Connection& connection) override;
    ssize_t send_some(Connection& connection, const char* data, size_t size) override;
    ssize_t receive_some(Connection& connection, char* buffer, size_t size) override;

private:
    Tls_Client client_;
    std::vector<Tls_Session> sessions_;
};
