#pragma once

#include "tests/support/wire_client.h"

#include <memory>

/// A connection to the shared-memory listener on `port`, made as ACE's own clients make theirs;
/// null (and a message) when there is none.
std::unique_ptr<Wire_Client> connect_mem(unsigned short port);
