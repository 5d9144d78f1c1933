#pragma once

#include "support/export.h"

#include <string>

class ACE_MEM_Acceptor;

/**
 * The files that the pools of a shared-memory listener lie in. A server that is killed leaves them
 * behind, each with a semaphore of the system, and nobody else would ever remove them; so the next
 * listener on the same port does. A lock on the file tells that its server lives.
 * Functions throw std::bad_alloc.
 */
class HTTPD_SUPPORT_EXPORT Mem_Pool_File {
public:
    /// @return "<directory>/MEM_Acceptor_<port>_", which all pools of the listener begin with; ""
    ///         with errno when there is none.
    static std::string prefix(const ACE_MEM_Acceptor& acceptor, int port);

    /// A new name that nobody can guess: the directory is open to all. @return "" with errno, also
    ///         for a prefix that could not be made.
    static std::string make_path(const std::string& prefix);

    /// Says, for as long as `handle` is open, that the pool is in use.
    static void lock(int handle);

    /// Removes the pools whose name begins with `prefix`, those in use excepted, and their
    /// semaphores. What cannot be removed stays, without a word.
    static void remove_stale(const std::string& prefix);
};
