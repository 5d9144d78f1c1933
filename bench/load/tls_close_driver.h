#pragma once

#include "bench/load/close_driver.h"
#include "bench/load/tls_client.h"

#include <vector>

/// Mode tls-close: a TLS connection with a full handshake per request.
class Tls_Close_Driver : public Close_Driver {
public:
    Tls_Close_Driver(const Load_Options& options, Load_Engine& engine);

protected:
    bool secure(Client_Stream& stream, std::string& why) override;
    void opened(Slot& slot) override;
    void closing(Slot& slot) override;
    int try_send(Slot& slot, const std::string& request) override;
    ssize_t receive_some(Slot& slot, char* buffer, size_t size, bool& end) override;

private:
    Tls_Client client_;
    std::vector<Tls_Session> sessions_;
};
