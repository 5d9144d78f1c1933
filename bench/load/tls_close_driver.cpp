#include "bench/load/tls_close_driver.h"

#include "bench/load/client_stream.h"
#include "bench/load/options.h"

Tls_Close_Driver::Tls_Close_Driver(const Load_Options& options, Load_Engine& engine)
    : Close_Driver(options, engine), sessions_(options.connections_)
{
}

bool Tls_Close_Driver::secure(Client_Stream& stream, std::string& why)
{
    return stream.start_tls(client_, why);
}

void Tls_Close_Driver::opened(Slot& slot)
{
    sessions_[key_of(slot)] = client_.open(slot.fd_);
}

void Tls_Close_Driver::closing(Slot& slot)
{
    sessions_[key_of(slot)].reset();
}

int Tls_Close_Driver::try_send(Slot& slot, const std::string& request)
{
    const Tls_Session& session = sessions_[key_of(slot)];
    const int progress = tls_handshake(session);
    if (progress != 1) {
        return progress;
    }
    return tls_send(session, request.data(), request.size()) == static_cast<ssize_t>(request.size())
               ? 1
               : -1;
}

ssize_t Tls_Close_Driver::receive_some(Slot& slot, char* buffer, size_t size, bool& end)
{
    return tls_receive(sessions_[key_of(slot)], buffer, size, end);
}
