#include "tests/support/mem_fixture.h"

#include "support/peer_acceptor_traits.h"
#include "tests/support/test_sockets.h"

#include <ace/INET_Addr.h>
#include <ace/Lib_Find.h>
#include <ace/MEM_Addr.h>

#include <climits>
#include <filesystem>
#include <thread>

namespace {

using Traits = ACE_Peer_Acceptor_Traits<MEM_Stream>;

} // namespace

int open_mem_listener(ACE_MEM_Acceptor& acceptor)
{
    // Somebody else may have taken the port meanwhile.
    for (int attempt = 0; attempt < 20; ++attempt) {
        const int port = free_port();
        if (Traits::open(acceptor, ACE_MEM_Addr(static_cast<u_short>(port)), 1, 5, 0, 0, 0) == 0) {
            return port;
        }
    }
    return -1;
}

size_t count_pool_files(int port)
{
    char directory[PATH_MAX];
    if (ACE::get_temp_dir(directory, sizeof directory) == -1) {
        return 0;
    }
    const std::string start = "MEM_Acceptor_" + std::to_string(port) + "_";
    size_t count = 0;
    for (const auto& entry : std::filesystem::directory_iterator(directory)) {
        count += entry.path().filename().string().rfind(start, 0) == 0 ? 1U : 0U;
    }
    return count;
}

Mem_Connection::Mem_Connection()
{
    sigaction(SIGSEGV, nullptr, &sigsegv_);
    port = open_mem_listener(acceptor);
    int connected = -1;
    std::thread connecting([this, &connected] {
        ACE_MEM_Connector connector;
        connected =
            connector.connect(client, ACE_MEM_Addr(static_cast<u_short>(port)).get_remote_addr());
    });
    ACE_Time_Value limit(10);
    const int accepted = Traits::accept(acceptor, server, nullptr, &limit, true, false);
    connecting.join();
    open_ = accepted == 0 && connected == 0;
}

Mem_Connection::~Mem_Connection()
{
    server.close();
    if (client.get_handle() != ACE_INVALID_HANDLE) {
        client.close();
    }
    acceptor.close();
    sigaction(SIGSEGV, &sigsegv_, nullptr);
}
