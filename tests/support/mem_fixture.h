#pragma once

#include "support/mem_stream.h"

#include <ace/MEM_Acceptor.h>
#include <ace/MEM_Connector.h>
#include <ace/MEM_Stream.h>

#include <signal.h>

#include <string>

/// A shared-memory connection: the server's side as the library accepts it, the client's as ACE
/// makes it.
class Mem_Connection {
public:
    Mem_Connection();
    ~Mem_Connection();
    Mem_Connection(const Mem_Connection&) = delete;
    Mem_Connection& operator=(const Mem_Connection&) = delete;

    bool is_open() const { return open_; }

    ACE_MEM_Acceptor acceptor;
    MEM_Stream server;
    ACE_MEM_Stream client;
    int port;

private:
    bool open_ = false;
    struct sigaction sigsegv_ {}; ///< ACE's client installs a handler
};

/// Opens `acceptor` on a free port, which is returned; -1 when that fails.
int open_mem_listener(ACE_MEM_Acceptor& acceptor);

/// The names of the pool files of listeners on `port`, in the directory for temporary files.
size_t count_pool_files(int port);
