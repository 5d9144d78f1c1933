#include "tests/support/mem_client.h"

#include <ace/MEM_Addr.h>
#include <ace/MEM_Connector.h>
#include <ace/MEM_Stream.h>

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>

namespace {

class Mem_Client : public Wire_Client {
public:
    /// `handle`: a duplicate, which the base closes; the stream has its own.
    Mem_Client(int handle, std::unique_ptr<ACE_MEM_Stream> stream)
        : Wire_Client(handle), stream_(std::move(stream))
    {
    }

    ~Mem_Client() override { stream_->close(); }

    bool send(const std::string& bytes) override
    {
        for (size_t sent = 0; sent < bytes.size();) {
            const size_t length = std::min(bytes.size() - sent, MESSAGE_SIZE);
            // What it returns is read from the message after the server may have freed it: only
            // -1 tells anything.
            if (stream_->send(bytes.data() + sent, length) == -1) {
                return false;
            }
            sent += length;
        }
        return true;
    }

    std::string receive(std::chrono::milliseconds limit) override
    {
        // As large as the longest message of the server, so nothing is left of one.
        std::string bytes(65536, '\0');
        const ACE_Time_Value timeout(limit);
        const ssize_t count = stream_->recv(bytes.data(), bytes.size(), &timeout);
        at_end_ = count == 0 || (count == -1 && errno != ETIME && errno != EWOULDBLOCK);
        bytes.resize(count > 0 ? static_cast<size_t>(count) : 0U);
        return bytes;
    }

    /// A message of no bytes ends the stream.
    void half_close() override { stream_->send("", 0); }

private:
    static constexpr size_t MESSAGE_SIZE = 32 * 1024;

    std::unique_ptr<ACE_MEM_Stream> stream_;
};

} // namespace

std::unique_ptr<Wire_Client> connect_mem(unsigned short port)
{
    // ACE's client installs a handler of its own.
    struct sigaction before {};
    ::sigaction(SIGSEGV, nullptr, &before);
    auto stream = std::make_unique<ACE_MEM_Stream>();
    ACE_MEM_Connector connector;
    const int connected = connector.connect(*stream, ACE_MEM_Addr(port).get_remote_addr());
    ::sigaction(SIGSEGV, &before, nullptr);
    if (connected == -1) {
        std::perror("connect to a shared-memory listener");
        return nullptr;
    }
    const int handle = ::fcntl(stream->get_handle(), F_DUPFD_CLOEXEC, 0);
    return std::make_unique<Mem_Client>(handle, std::move(stream));
}
