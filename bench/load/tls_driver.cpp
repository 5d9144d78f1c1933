#include "bench/load/tls_driver.h"

#include "bench/load/client_stream.h"
#include "bench/load/options.h"

Tls_Driver::Tls_Driver(const Load_Options& options, Load_Engine& engine)
    : Request_Driver(options, engine), sessions_(options.connections_)
{
}

bool Tls_Driver::greet(Client_Stream& stream, std::string& why)
{
    return stream.start_tls(client_, why);
}

void Tls_Driver::opened(Connection& connection, Client_Stream& stream)
{
    sessions_[key_of(connection)] = stream.release_tls();
}

void Tls_Driver::closing(Connection& connection)
{
    sessions_[key_of(connection)].reset();
}

ssize_t Tls_Driver::send_some(Connection& connection, const char* data, size_t size)
{
    return tls_send(sessions_[key_of(connection)], data, size);
}

ssize_t Tls_Driver::receive_some(Connection& connection, char* buffer, size_t size)
{
    bool end = false; // found again by the next call, if nothing else does
    return tls_receive(sessions_[key_of(connection)], buffer, size, end);
}
